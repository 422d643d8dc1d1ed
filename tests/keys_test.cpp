// Keypairs and public keys: what generation and import make, its encodings, and the private key at
// rest, against OpenSSL's own PBKDF2 and AES-GCM. What they refuse is in the table of results and
// with the fuzz targets.
#include "keypair/keypair.h"
#include "tests/support/world.h"

#include <set>

class KeysTest : public ModuleTest {
 protected:
  static int Import(Device* device, const std::string& encoding, KeypairHandle& out) {
    Keypair* made = nullptr;
    const int result = DeviceImportKeypair(device, Raw(encoding), Len(encoding), 99, "new", &made);
    out.reset(made);
    return result;
  }
};

TEST_F(KeysTest, AGeneratedKeypairIsUsableAtOnceAndAfterARescan) {
  const ECCKeypairParams p256 = {3, 0};
  const RSAKeypairParams three = {Raw("\3"), 1, 0};
  for (const auto& [algorithm, params, exponent] :
       {std::tuple<unsigned int, const void*, unsigned long>(1, nullptr, 65537),
        {1, &three, 3},
        {4, &p256, 0}}) {
    SCOPED_TRACE(exponent);
    const int bits = algorithm == 1 ? 1024 : 256;
    const DeviceHandle device = Load();
    Keypair* made = nullptr;
    EXPECT_EQ(DeviceGenerateKeypair(device.get(), algorithm, bits, params, 0xfffffff7, "n", &made),
              1);
    const Keypair& k = *device->keypairs[1];
    EXPECT_TRUE(made == &k && k.algorithm == algorithm && EVP_PKEY_get_bits(k.privateKey) == bits);
    const RsaKey rsa(algorithm == 1 ? EVP_PKEY_get1_RSA(k.privateKey) : nullptr);
    EXPECT_EQ(rsa ? BN_get_word(RSA_get0_e(rsa.get())) : 0, exponent);
    EXPECT_EQ(DeviceFreeKeypair(made), 1);
    const DeviceHandle again = Rescan(PIN);
    EXPECT_EQ(Describe(*again, false), Describe(*device, false));
    EXPECT_EQ(EVP_PKEY_eq(again->keypairs[1]->privateKey, k.privateKey), 1);
  }
}

// Sealed here opens there, and the other way round. Short numbers are padded on the left.
TEST_F(KeysTest, APrivateKeyIsSealedUnderPinSaltAndTag) {
  auto vectors = ReadVectors("keys.txt");
  std::set<std::string> fresh;
  const std::pair<std::string, std::string> cases[] = {
      {"rsa2048_pair", "rsa2048"}, {"p256_pair", "p256"},      {"sm2_pair", "sm2"},
      {"short_pair", "short"},     {"short_dropped", "short"}, {"short_added", "short"}};
  for (const auto& [given, key] : cases) {
    for (const std::string pin : {PIN, "", "\xff\xfe long 0123456789012345678901234567890123456"}) {
      SCOPED_TRACE(given + " PIN " + pin);
      const DeviceHandle device =
          Load(StoredDevice{.keypairs = {StoredKeypair{.pin = pin}.Json()}}.File(), pin.c_str());
      KeypairHandle made;
      ASSERT_EQ(Import(device.get(), vectors[given], made), 1);
      EXPECT_EQ(Bytes(made->publicKey, made->publicKeyLen), vectors[key + "_public"]);
      EXPECT_TRUE(IsSealed(*made, vectors[key + "_pair"], pin));
      EXPECT_TRUE(fresh.insert(Bytes(made->salt, 32)).second && made->saltLen == 32);
      EXPECT_TRUE(fresh.insert(Bytes(made->iv, 16)).second && made->ivLen == 16);
      made.reset();
      EXPECT_EQ(Describe(*Rescan(pin.c_str()), false), Describe(*device, false));
    }
  }
}

// Sealed with the first 56 bytes, so that an iv cut to what there is room for would open it.
TEST_F(KeysTest, TheNonceHasRoomFor56BytesOfIv) {
  for (const size_t n : {1u, 56u, 57u, 200u, 60000u}) {
    const StoredKeypair stored{.iv = std::string(std::min<size_t>(n, 56), 'v')};
    const std::string json = StoredDevice{.keypairs = {stored.Json()}}.Json();
    const std::string text = Replaced(json, Hex(stored.iv), Hex(std::string(n, 'v')));
    const DeviceHandle device = Load(Container(TAG, text), nullptr);
    EXPECT_EQ(DeviceVerifyPwd(device.get(), 1, PIN, nullptr), n <= 56 ? 1 : -5) << n;
  }
}

TEST_F(KeysTest, The65thKeypairIsIgnoredAndRefused) {
  StoredDevice stored = {.keypairs = {}};
  for (int i = 1; i <= 70; i++) stored.keypairs.push_back(StoredKeypair{.type = i}.Json());
  const DeviceHandle device = Load(stored.File());
  EXPECT_TRUE(device->keypairCount == 64 && device->refCount == 65);
  KeypairHandle made;
  Refuses(0, device.get(), [&] { return Import(device.get(), TestP256().pair, made); });
  const KeypairHandle last(DeviceGetKeypair(device.get(), 63));
  EXPECT_EQ(DeviceDeleteKeypair(last.get()), 1);
  EXPECT_EQ(Import(device.get(), TestP256().pair, made), 1);
}
