// Private keys at rest: the blob against OpenSSL's own PBKDF2 and AES-GCM, and every way it must
// not open.
#include "keypair/keypair.h"
#include "tests/support/world.h"

class ProtectionTest : public ModuleTest {
 protected:
  static EvpKey Decrypt(const Keypair* keypair, const char* pin, int* curve = nullptr) {
    int unused = 0;
    return EvpKey(
        DecryptKeyPair(keypair->algorithm, keypair, pin, curve == nullptr ? &unused : curve));
  }
};

TEST_F(ProtectionTest, EncryptedHereOpensThereAndBack) {
  for (const TestKey* key : {&TestRsa(), &TestP256(), &TestSm2()}) {
    for (const std::string pin : {"a good PIN", "",
                                  "\xff\xfe long "
                                  "0123456789012345678901234567890123456789"}) {
      SCOPED_TRACE(std::to_string(key->curve) + " PIN " + pin);
      const DeviceHandle device =
          Load(StoredDevice{.keypairs = {StoredKeypair{.key = key, .pin = pin}.Json()}}.File(),
               pin.c_str());
      int curve = -5;
      const EvpKey back = Decrypt(device->keypairs[0], pin.c_str(), &curve);
      EXPECT_EQ(curve, key->algorithm == 1 ? -5 : key->curve);
      std::string blobs[2];
      for (std::string& blob : blobs) {
        const OwnedKeypair fresh(NewKeypair());
        fresh->privateKey = EVP_PKEY_up_ref(back.get()) == 1 ? back.get() : nullptr;
        fresh->curve = key->curve;
        ASSERT_EQ((key->algorithm == 1 ? EncryptRSAKeypair : EncryptECCKeypair)(device.get(),
                                                                                fresh.get()),
                  1);
        EXPECT_EQ(fresh->saltLen, 32);
        EXPECT_EQ(fresh->ivLen, 16);
        blob = Bytes(fresh->encryptedPrivateKey, fresh->encryptedPrivateKeyLen);
        EXPECT_EQ(Open(blob, pin, Bytes(fresh->salt, 32), Bytes(fresh->iv, 16)), key->pair);
      }
      EXPECT_NE(blobs[0], blobs[1]);
    }
  }
}

TEST_F(ProtectionTest, NothingChangedEverOpens) {
  const DeviceHandle device = Load();
  Keypair* keypair = device->keypairs[0];
  EXPECT_EQ(Decrypt(keypair, "other"), nullptr);
  EXPECT_EQ(Decrypt(keypair, ""), nullptr);
  const std::pair<unsigned char*, int> fields[] = {
      {keypair->salt, keypair->saltLen},
      {keypair->iv, keypair->ivLen},
      {keypair->encryptedPrivateKey, keypair->encryptedPrivateKeyLen}};
  for (const auto& [bytes, length] : fields) {
    for (int i = 0; i<length; i += length> 40 ? 9 : 5) {
      bytes[i] ^= 1;
      EXPECT_EQ(Decrypt(keypair, PIN), nullptr) << "byte " << i << " of " << length;
      bytes[i] ^= 1;
    }
  }
  for (int* length : {&keypair->saltLen, &keypair->ivLen, &keypair->encryptedPrivateKeyLen}) {
    for (const int shorter : {0, 1, *length - 1}) {
      const int whole = std::exchange(*length, shorter);
      EXPECT_EQ(Decrypt(keypair, PIN), nullptr) << shorter << " of " << whole;
      *length = whole;
    }
  }
  device->fileTag++;
  EXPECT_EQ(Decrypt(keypair, PIN), nullptr);
  device->fileTag--;
  EXPECT_NE(Decrypt(keypair, PIN), nullptr);
}

TEST_F(ProtectionTest, TheNonceHasRoomFor56BytesOfIv) {
  for (const size_t n : {1u, 16u, 56u, 57u, 200u, 60000u}) {
    SCOPED_TRACE(n);
    // Sealed with the first 56 bytes, so that a cut iv would open it.
    StoredKeypair stored = {.iv = std::string(std::min<size_t>(n, 56), 'v')};
    std::string text = StoredDevice{.keypairs = {stored.Json()}}.File();
    if (n > 56) text = Swapped(text, Hex(stored.iv), Hex(std::string(n, 'v')));
    const DeviceHandle device = Load(text, nullptr);
    EXPECT_EQ(device->keypairs[0]->ivLen, static_cast<int>(n));
    EXPECT_EQ(DeviceVerifyPwd(device.get(), 1, PIN, nullptr), n <= 56 ? 1 : -5);
  }
}

// What import refuses (generate_test.cpp) is refused here too: it is the same decoder.
TEST_F(ProtectionTest, OnlyTheWholeKeyDecodes) {
  int curve = 0;
  const auto decodes = [&](unsigned int algorithm, const std::string& encoding) {
    return EvpKey(DecodePair(algorithm, Raw(encoding), Len(encoding), &curve)) != nullptr;
  };
  EXPECT_TRUE(decodes(1, TestRsa().pair));
  EXPECT_TRUE(decodes(4, TestSm2().pair));
  EXPECT_FALSE(decodes(4, TestRsa().pair));
  EXPECT_FALSE(decodes(1, TestSm2().pair));
  EXPECT_FALSE(decodes(2, TestSm2().pair));
  EXPECT_FALSE(decodes(4, ""));
  const std::string der = TestRsa().pair.substr(12);
  EXPECT_NE(EvpKey(DecodeRSAPair(Raw(der), Len(der))), nullptr);
  EXPECT_EQ(EvpKey(DecodeRSAPair(Raw(der + "x"), Len(der) + 1)), nullptr);
  EXPECT_EQ(EvpKey(DecodeRSAPair(Raw(der), Len(der) - 1)), nullptr);
}

TEST_F(ProtectionTest, AFailedEncryptionLeavesTheFieldsEmpty) {
  const DeviceHandle device = Load();
  const OwnedKeypair fresh(NewKeypair());
  EVP_PKEY_up_ref(fresh->privateKey = device->keypairs[0]->privateKey);
  fresh->curve = 3;
  for (long n = 1;; n++) {
    const long live = LiveAllocations();
    const int done =
        WithFault({.nth = n}, [&] { return EncryptECCKeypair(device.get(), fresh.get()); });
    if (done == 1) break;
    SCOPED_TRACE(FaultHit());
    EXPECT_EQ(done, 0);
    EXPECT_TRUE(fresh->salt == nullptr && fresh->iv == nullptr &&
                fresh->encryptedPrivateKey == nullptr);
    EXPECT_EQ(fresh->saltLen + fresh->ivLen + fresh->encryptedPrivateKeyLen, 0);
    EXPECT_EQ(LiveAllocations(), live);
    ASSERT_LT(n, 100);
  }
}
