// Keypairs and public keys: what generation and import make, its encodings, and the private key at
// rest, against OpenSSL's own PBKDF2 and AES-GCM. What they refuse is keypairs_test.cpp's and
// the fuzz targets'.
#include "keypair/keypair.h"
#include "tests/support/world.h"

#include <set>

using KeysTest = ModuleTest;

// As OpenSSL seals it, with fresh salt and nonce.
TEST_F(KeysTest, APrivateKeyIsSealedUnderPinSaltAndTag) {
  std::set<std::string> fresh;
  for (const auto& [key, pin] : {std::pair(&TestRsa(), PIN),
                                 {&TestP256(), ""},
                                 {&TestSm2(), "\xff\xfe 0123456789012345678901234567890123456"}}) {
    SCOPED_TRACE(pin);
    const DeviceHandle device =
        Load(StoredDevice{.keypairs = {StoredKeypair{.pin = pin}.Json()}}.File(), pin);
    const KeypairHandle made = Import(device.get(), key->pair);
    ASSERT_NE(made, nullptr);
    EXPECT_EQ(Bytes(made->publicKey, made->publicKeyLen), key->publicKey);
    for (const char* now : {pin, "another"}) {
      EXPECT_TRUE(now == pin || DeviceChangePwd(device.get(), 1, pin, now, nullptr) == 1);
      const std::string salt = Bytes(made->salt, made->saltLen), iv = Bytes(made->iv, made->ivLen);
      EXPECT_TRUE(fresh.insert(salt).second && salt.size() == 32);
      EXPECT_TRUE(fresh.insert(iv).second && iv.size() == 16);
      EXPECT_EQ(Bytes(made->encryptedPrivateKey, made->encryptedPrivateKeyLen),
                Seal(key->pair, now, salt, iv));
    }
  }
}

TEST_F(KeysTest, SaltAndIvMayBeEmpty) {
  Write("dev", StoredDevice{.keypairs = {StoredKeypair{.salt = "", .iv = ""}.Json()}}.File());
  EXPECT_NE(Rescan(PIN), nullptr);
  const DeviceHandle device = Rescan();
  for (unsigned char** bytes : {&device->keypairs[0]->salt, &device->keypairs[0]->iv})
    vakro_free(std::exchange(*bytes, nullptr));  // as a decoder may hand out no bytes
  EXPECT_EQ(DeviceVerifyPwd(device.get(), 1, PIN, nullptr), 1);
}

TEST_F(KeysTest, The65thKeypairIsIgnoredAndRefused) {
  StoredDevice stored = {.keypairs = {}};
  for (int i = 11; i <= 80; i++) stored.keypairs.push_back(StoredKeypair{.type = i}.Json());
  const DeviceHandle device = Load(stored.File());
  EXPECT_TRUE(device->keypairCount == 64 && device->refCount == 65);
  Refuses(0, device.get(), [&] { return Import(device.get(), TestP256().pair, 0) ? 1 : 0; });
  EXPECT_EQ(DeviceDeleteKeypair(KeypairHandle(DeviceGetKeypair(device.get(), 63)).get()), 1);
  Refuses(0, device.get(), [&] { return Import(device.get(), TestP256().pair, 0) ? 1 : 0; });
  EXPECT_EQ(Rescan(PIN)->keypairCount, 64);
}

TEST_F(KeysTest, GeneratedRsaKeysHaveTheirExponent) {
  const RSAKeypairParams three = {Raw("\3"), 1, 0};
  const DeviceHandle device = Load();
  const std::pair<const void*, BN_ULONG> rows[] = {{nullptr, 65537}, {&three, 3}};
  for (const auto& [params, exponent] : rows) {
    const KeypairHandle k = Generate(device.get(), 1, 1024, params, std::to_string(exponent));
    ASSERT_NE(k, nullptr);
    const RsaKey rsa(EVP_PKEY_get1_RSA(k->privateKey));
    EXPECT_EQ(BN_get_word(RSA_get0_e(rsa.get())), exponent);
  }
  EXPECT_EQ(Describe(*Rescan(PIN), false), Describe(*device, false));
}
