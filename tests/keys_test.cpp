// Keypairs and public keys: what generation and import make, its encodings, and the private key at
// rest, against OpenSSL's own PBKDF2 and AES-GCM. What they refuse is in the table of results and
// in hostile_bytes_test.cpp.
#include "keypair/keypair.h"
#include "sm2/sm2.h"
#include "tests/support/world.h"

#include <openssl/obj_mac.h>
#include <set>

class KeysTest : public ModuleTest {
 protected:
  static KeypairHandle Generate(Device* device, unsigned int algorithm, int bits,
                                const void* params, const std::string& label = "n",
                                unsigned int type = 0xfffffff7) {
    Keypair* made = nullptr;
    EXPECT_EQ(DeviceGenerateKeypair(device, algorithm, bits, params, type, label.c_str(), &made),
              1);
    return KeypairHandle(made);
  }
  static int Import(Device* device, const std::string& encoding, KeypairHandle& out) {
    Keypair* made = nullptr;
    const int result =
        DeviceImportKeypair(device, Raw(encoding), Len(encoding), 99, "import", &made);
    out.reset(made);
    return result;
  }
};

TEST_F(KeysTest, AGeneratedKeypairIsUsableAtOnceAndAfterARescan) {
  const ECCKeypairParams p256 = {3, 0}, sm2 = {7, 0};
  const RSAKeypairParams three = {Raw("\3"), 1, 0};
  const struct {
    unsigned int algorithm;
    int bits, curve;
    const void* params;
    unsigned long exponent;
  } cases[] = {{1, 1024, 0, nullptr, 65537},
               {1, 1024, 0, &three, 3},
               {4, 256, 3, &p256, 0},
               {4, 256, 7, &sm2, 0}};
  for (const auto& c : cases) {
    SCOPED_TRACE(&c - cases);
    const DeviceHandle device = Load();
    const std::string label(63, 'l');
    KeypairHandle made = Generate(device.get(), c.algorithm, c.bits, c.params, label);
    const Keypair& k = *device->keypairs[1];
    EXPECT_TRUE(made.get() == &k && k.label == label && k.type == 0xfffffff7 && k.isTemp == 0);
    EXPECT_TRUE(k.algorithm == c.algorithm && k.curve == c.curve && k.device == device.get());
    EXPECT_EQ(EVP_PKEY_get_bits(k.privateKey), c.bits);
    EXPECT_EQ(device->refCount, 4u);
    made.reset();
    const DeviceHandle again = Rescan(PIN);
    EXPECT_EQ(Describe(*again, false), Describe(*device, false));
    EXPECT_EQ(EVP_PKEY_eq(again->keypairs[1]->privateKey, k.privateKey), 1);
    const RsaKey rsa(c.algorithm == 1 ? EVP_PKEY_get1_RSA(k.privateKey) : nullptr);
    EXPECT_EQ(rsa ? BN_get_word(RSA_get0_e(rsa.get())) : 0, c.exponent);
  }
}

TEST_F(KeysTest, ATemporaryKeypairTouchesNothing) {
  const RSAKeypairParams rsa = {nullptr, 0, 1};
  const ECCKeypairParams p521 = {5, 1};
  const DeviceHandle device = Load(StoredDevice().File(), nullptr);  // no PIN needed
  KeypairHandle made;
  for (const bool isRsa : {true, false})
    Refuses(isRsa ? 1 : 4, device.get(), [&] {
      made = isRsa ? Generate(device.get(), 1, 1024, &rsa) : Generate(device.get(), 4, 521, &p521);
      EXPECT_TRUE(made->isTemp == 1 && made->device == nullptr && made->label[0] == '\0');
      EXPECT_EQ(EVP_PKEY_get_bits(made->privateKey), isRsa ? 1024 : 521);
      EXPECT_EQ(made->saltLen + made->ivLen + made->encryptedPrivateKeyLen, 0);
      const int algorithm = static_cast<int>(made->algorithm);
      made.reset();
      return algorithm;
    });
}

// Sealed here opens there, and the other way round.
TEST_F(KeysTest, APrivateKeyIsSealedUnderPinSaltAndTag) {
  std::set<std::string> fresh;
  for (const TestKey* key : {&TestRsa(), &TestP256(), &TestSm2()}) {
    for (const std::string pin : {PIN, "", "\xff\xfe long 0123456789012345678901234567890123456"}) {
      SCOPED_TRACE(std::to_string(key->curve) + " PIN " + pin);
      const StoredKeypair stored{.key = key, .pin = pin};
      const DeviceHandle device =
          Load(StoredDevice{.keypairs = {stored.Json()}}.File(), pin.c_str());
      KeypairHandle made;
      ASSERT_EQ(Import(device.get(), key->pair, made), 1);
      EXPECT_EQ(EVP_PKEY_eq(made->privateKey, device->keypairs[0]->privateKey), 1);
      EXPECT_TRUE(made->bits == static_cast<unsigned int>(key->bits) && made->curve == key->curve);
      EXPECT_EQ(Bytes(made->publicKey, made->publicKeyLen), key->publicKey);
      const std::string salt = Bytes(made->salt, 32), iv = Bytes(made->iv, 16);
      EXPECT_TRUE(made->saltLen == 32 && made->ivLen == 16);
      EXPECT_TRUE(fresh.insert(salt).second && fresh.insert(iv).second);
      EXPECT_EQ(Bytes(made->encryptedPrivateKey, made->encryptedPrivateKeyLen),
                Seal(key->pair, pin, salt, iv));
      made.reset();
      EXPECT_EQ(Describe(*Rescan(pin.c_str()), false), Describe(*device, false));
    }
  }
}

TEST_F(KeysTest, ABlobOpensOnlyWhole) {
  const auto opens = [&](const StoredKeypair& stored, const std::string& from,
                         const std::string& to) {
    const std::string json = StoredDevice{.keypairs = {stored.Json()}}.Json();
    const DeviceHandle device =
        Load(Container(TAG, Replaced(json, Quoted(Hex(from)), Quoted(Hex(to)))), nullptr);
    return DeviceVerifyPwd(device.get(), 1, PIN, nullptr);
  };
  const StoredKeypair stored;
  const std::string blob = Seal(stored.key->pair, PIN, stored.salt, stored.iv);
  for (const std::string& field : {stored.salt, stored.iv, blob})
    for (const size_t length : {size_t{0}, size_t{1}, field.size() - 1})
      EXPECT_EQ(opens(stored, field, field.substr(0, length)), -5) << length;
  // Sealed with the first 56 bytes, so that an iv cut to what there is room for would open it.
  for (const size_t n : {1u, 56u, 57u, 200u, 60000u}) {
    const StoredKeypair odd{.iv = std::string(std::min<size_t>(n, 56), 'v')};
    EXPECT_EQ(opens(odd, odd.iv, std::string(n, 'v')), n <= 56 ? 1 : -5) << n;
  }
  const std::string der = TestRsa().pair.substr(12) + "x";
  EXPECT_EQ(DecodeRSAPair(Raw(der), Len(der)), nullptr);
}

TEST_F(KeysTest, The65thKeypairIsRefused) {
  StoredDevice stored = {.keypairs = {}};
  for (int i = 1; i <= 64; i++) stored.keypairs.push_back(StoredKeypair{.type = i}.Json());
  const DeviceHandle device = Load(stored.File());
  const ECCKeypairParams p256 = {3, 0}, temporary = {3, 1};
  Keypair* out = nullptr;
  KeypairHandle made;
  Refuses(0, device.get(),
          [&] { return DeviceGenerateKeypair(device.get(), 4, 256, &p256, 99, "n", &out); });
  Refuses(0, device.get(), [&] { return Import(device.get(), TestP256().pair, made); });
  Generate(device.get(), 4, 256, &temporary);
  KeypairHandle last(DeviceGetKeypair(device.get(), 63));
  EXPECT_EQ(DeviceDeleteKeypair(last.get()), 1);
  EXPECT_EQ(Import(device.get(), TestP256().pair, made), 1);
}

// Keys of the odd curves are made and encoded; what is stored of them does not decode again.
TEST_F(KeysTest, EveryCurveEncodesWithItsFieldSize) {
  const int sizes[] = {0, 24, 28, 32, 48, 66, 0, 32};
  for (const int curve : {1, 2, 3, 4, 5, 7}) {
    SCOPED_TRACE(curve);
    Keypair* raw = nullptr;
    ASSERT_EQ(GenerateTempECCKeypair(curve, GetECCBits(curve), 0, &raw), 1);
    const KeypairHandle made(raw);
    EXPECT_EQ(made->publicKeyLen, 12 + 4 + 2 * (4 + sizes[curve]));
    const EcKey ec(EVP_PKEY_get1_EC_KEY(made->privateKey));
    unsigned char* encoding = nullptr;
    int length = 0, decoded = 0;
    ASSERT_EQ(EncodeECCKeypair(curve, ec.get(), &encoding, &length), 1);
    const LibBytes owned(encoding);
    EXPECT_EQ(length, 12 + 4 + 3 * (4 + sizes[curve]));
    const EvpKey back(DecodeECCPair(encoding, length, &decoded));
    EXPECT_EQ(back != nullptr, sizes[curve] == 32);
    EXPECT_EQ(decoded, curve);
    const long live = LiveAllocations();
    const PublicHandle key(DeviceGetPublicKeyFromKeypair(raw));
    EXPECT_EQ(key != nullptr, sizes[curve] == 32);
    EXPECT_TRUE(key != nullptr || LiveAllocations() == live);
  }
}

// A coordinate whose leading zeros were dropped, one with a zero too many, and a short scalar.
TEST_F(KeysTest, ShortNumbersArePaddedOnTheLeft) {
  const EcKey key(EC_KEY_new_by_curve_name(NID_X9_62_prime256v1));
  const EC_GROUP* group = EC_KEY_get0_group(key.get());
  const EcPoint point(EC_POINT_new(group));
  const BigNum d(BN_new());
  // The first multiple of G whose x begins with a zero.
  std::string encoded(65, '\1');
  for (unsigned int n = 1; encoded[1] != '\0'; n++) {
    ASSERT_EQ(BN_set_word(d.get(), n), 1);
    EC_POINT_mul(group, point.get(), d.get(), nullptr, nullptr, nullptr);
    EC_POINT_point2oct(group, point.get(), POINT_CONVERSION_UNCOMPRESSED,
                       reinterpret_cast<unsigned char*>(encoded.data()), 65, nullptr);
  }
  EXPECT_EQ(EC_KEY_set_private_key(key.get(), d.get()), 1);
  EXPECT_EQ(EC_KEY_set_public_key(key.get(), point.get()), 1);
  const std::string x = encoded.substr(1, 32), y = encoded.substr(33);
  std::string scalar(32, '\0');
  BN_bn2binpad(d.get(), reinterpret_cast<unsigned char*>(scalar.data()), 32);
  unsigned char* raw = nullptr;
  int length = 0, curve = 0;
  ASSERT_EQ(EncodeECCKeypair(3, key.get(), &raw, &length), 1);
  const LibBytes owned(raw);
  EXPECT_EQ(Hex(Bytes(raw, length)), Hex(EccPair(3, x, y, scalar)));
  for (const std::string& pair :
       {EccPair(3, x, y, scalar), EccPair(3, x.substr(1), y, scalar.substr(30)),
        EccPair(3, '\0' + x, '\0' + y, '\0' + scalar)}) {
    const EvpKey back(DecodeECCPair(Raw(pair), Len(pair), &curve));
    ASSERT_NE(back, nullptr);
    const EcKey ec(EVP_PKEY_get1_EC_KEY(back.get()));
    EXPECT_EQ(EC_POINT_cmp(group, EC_KEY_get0_public_key(ec.get()), point.get(), nullptr), 0);
    EXPECT_EQ(BN_cmp(EC_KEY_get0_private_key(ec.get()), d.get()), 0);
  }
}

TEST_F(KeysTest, PublicKeysKeepTheirEncoding) {
  for (const TestKey* test : {&TestRsa(), &TestP256(), &TestSm2()}) {
    for (const bool verified : {false, true}) {
      SCOPED_TRACE(std::to_string(test->curve) + (verified ? " verified" : ""));
      const DeviceHandle device =
          Load(StoredDevice{.keypairs = {StoredKeypair{.key = test}.Json()}}.File(),
               verified ? PIN : nullptr);
      PublicKey* raw = nullptr;
      const std::string& encoding = test->publicKey;
      ASSERT_EQ(DeviceImportPublicKey(nullptr, Raw(encoding), Len(encoding), &raw), 1);
      const PublicHandle imported(raw), own(DeviceGetPublicKeyFromKeypair(device->keypairs[0]));
      EXPECT_EQ(imported->curve, test->curve);
      EXPECT_EQ(own->curve, verified ? test->curve : 0);
      for (const PublicHandle& key : {std::cref(imported), std::cref(own)}) {
        EXPECT_EQ(Bytes(key->publicKey, key->publicKeyLen), encoding);
        EXPECT_TRUE(key->algorithm == test->algorithm && key->bits == test->bits);
        EXPECT_EQ(EVP_PKEY_eq(key->key, imported->key), 1);
      }
    }
  }
}
