// Public keys: from keypairs, from encodings, and back.
#include "tests/support/world.h"

class PublicKeyTest : public ModuleTest {
 protected:
  static std::string Export(PublicKey* key) {
    unsigned char buffer[600];
    int length = 0;
    EXPECT_EQ(DeviceExportPublicKey(key, buffer, sizeof(buffer), &length), 1);
    return Bytes(buffer, length);
  }
  static int Import(const std::string& encoding, PublicHandle* out) {
    PublicKey* key = nullptr;
    const int result = DeviceImportPublicKey(nullptr, Raw(encoding), Len(encoding), &key);
    EXPECT_EQ(result == 1, key != nullptr);
    out->reset(key);
    return result;
  }
};

TEST_F(PublicKeyTest, ExportAndImportKeepTheEncoding) {
  for (const TestKey* key : {&TestRsa(), &TestP256(), &TestSm2()}) {
    for (const bool verified : {false, true}) {
      SCOPED_TRACE(std::to_string(key->curve) + (verified ? " verified" : ""));
      const DeviceHandle device =
          Load(StoredDevice{.keypairs = {StoredKeypair{.key = key}.Json()}}.File(),
               verified ? PIN : nullptr);
      const PublicHandle own(DeviceGetPublicKeyFromKeypair(device->keypairs[0]));
      ASSERT_NE(own, nullptr);
      EXPECT_EQ(Export(own.get()), key->publicKey);
      EXPECT_EQ(own->curve, verified ? key->curve : 0);
      PublicHandle imported;
      ASSERT_EQ(Import(Export(own.get()), &imported), 1);
      EXPECT_EQ(Export(imported.get()), key->publicKey);
      EXPECT_EQ(imported->curve, key->curve);
      for (PublicKey* handle : {own.get(), imported.get()}) {
        EXPECT_EQ(DeviceGetPublicKeyAlgorithm(handle), key->algorithm);
        EXPECT_EQ(DeviceGetPublicKeyBits(handle), key->bits);
      }
    }
  }
}

TEST_F(PublicKeyTest, ABadEncodingIsRefused) {
  const std::string& p256 = TestP256().publicKey;
  const std::string& rsa = TestRsa().publicKey;
  const struct {
    const char* what;
    std::string encoding;
  } cases[] = {
      {"nothing", ""},
      {"11 bytes", p256.substr(0, 11)},
      {"header alone", p256.substr(0, 12)},
      {"cut", p256.substr(0, p256.size() - 1)},
      {"a byte more", p256 + "x"},
      {"keypair magic", "_KEYPAIR" + p256.substr(8)},
      {"a keypair", TestP256().pair},
      {"algorithm 2", Flipped(p256, 11, 4 ^ 2)},
      {"a curve key as RSA", Flipped(p256, 11, 4 ^ 1)},
      {"RSA as a curve key", Flipped(rsa, 11, 4 ^ 1)},
      {"RSA cut", rsa.substr(0, rsa.size() - 1)},
      {"RSA, a byte more", rsa + "x"},
      {"off the curve", Flipped(p256, p256.size() - 1)},
      {"point of another curve", Flipped(p256, 15, 3 ^ 7)},
      {"curve 6", Flipped(p256, 15, 3 ^ 6)},
      {"curve 9", Flipped(p256, 15, 3 ^ 9)},
      {"no coordinates", EccPublic(3, "", "")},
      {"length of y lies", Flipped(p256, 55, 0x40)},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    PublicHandle out;
    Refuses(0, nullptr, [&] { return Import(c.encoding, &out); });
  }
}

TEST_F(PublicKeyTest, AKeypairWhosePublicKeyDoesNotDecodeGivesNone) {
  const ECCKeypairParams p384 = {4, 1};
  Keypair* made = nullptr;
  ASSERT_EQ(DeviceGenerateKeypair(Load().get(), 4, 384, &p384, 1, "", &made), 1);
  const KeypairHandle owned(made);
  const long live = LiveAllocations();
  EXPECT_EQ(DeviceGetPublicKeyFromKeypair(made), nullptr);
  EXPECT_EQ(LiveAllocations(), live);
}
