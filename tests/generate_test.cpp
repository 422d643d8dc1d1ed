// Generation and import: what is made, and what is refused without a trace.
#include "keypair/keypair.h"
#include "sm2/sm2.h"
#include "tests/support/world.h"

#include <openssl/obj_mac.h>

class GenerateTest : public ModuleTest {
 protected:
  // Generates with label "n" and type 9, or as given.
  static int Generate(Device* device, unsigned int algorithm, int bits, const void* params,
                      KeypairHandle* out, unsigned int type = 9, const std::string& label = "n") {
    Keypair* made = nullptr;
    const int result =
        DeviceGenerateKeypair(device, algorithm, bits, params, type, label.c_str(), &made);
    EXPECT_EQ(result == 1, made != nullptr);
    out->reset(made);
    return result;
  }
  static int Import(Device* device, const std::string& encoding, KeypairHandle* out,
                    unsigned int type = 9, const std::string& label = "n") {
    Keypair* made = nullptr;
    const int result =
        DeviceImportKeypair(device, Raw(encoding), Len(encoding), type, label.c_str(), &made);
    EXPECT_EQ(result == 1, made != nullptr);
    out->reset(made);
    return result;
  }
  static std::string Blob(const Keypair& k) {
    return Open(Bytes(k.encryptedPrivateKey, k.encryptedPrivateKeyLen), PIN,
                Bytes(k.salt, k.saltLen), Bytes(k.iv, k.ivLen));
  }
};

TEST_F(GenerateTest, AStoredKeypairIsUsableAtOnceAndAfterARescan) {
  const ECCKeypairParams p256 = {3, 0};
  const ECCKeypairParams sm2 = {7, 0};
  const RSAKeypairParams three = {Raw("\3"), 1, 0};
  const struct {
    const char* what;
    unsigned int algorithm;
    int bits;
    const void* params;
    int curve;
  } cases[] = {{"RSA, 65537", 1, 1024, nullptr, 0},
               {"RSA, 3", 1, 1024, &three, 0},
               {"P-256", 4, 256, &p256, 3},
               {"SM2", 4, 256, &sm2, 7}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const DeviceHandle device = Load();
    KeypairHandle made;
    const std::string label(63, 'l');
    ASSERT_EQ(Generate(device.get(), c.algorithm, c.bits, c.params, &made, 0xfffffff7, label), 1);
    EXPECT_EQ(made.get(), device->keypairs[1]);
    EXPECT_EQ(made->label, label);
    EXPECT_EQ(made->type, 0xfffffff7);
    EXPECT_EQ(made->algorithm, c.algorithm);
    EXPECT_EQ(made->bits, static_cast<unsigned int>(c.bits));
    EXPECT_EQ(made->curve, c.curve);
    EXPECT_EQ(made->isTemp, 0);
    EXPECT_EQ(made->device, device.get());
    EXPECT_EQ(EVP_PKEY_get_bits(made->privateKey), c.bits);
    EXPECT_EQ(Blob(*made).substr(0, 12), "_KEYPAIR" + Word(c.algorithm));
    const DeviceHandle again = Rescan(PIN);
    ASSERT_EQ(again->keypairCount, 2);
    EXPECT_EQ(again->keypairs[1]->type, 0xfffffff7);
    EXPECT_EQ(EVP_PKEY_eq(again->keypairs[1]->privateKey, made->privateKey), 1);
    if (c.algorithm != 1) continue;
    const RsaKey rsa(EVP_PKEY_get1_RSA(made->privateKey));
    EXPECT_EQ(BN_get_word(RSA_get0_e(rsa.get())), c.params == nullptr ? 65537u : 3u);
  }
}

TEST_F(GenerateTest, ATemporaryKeypairTouchesNothing) {
  const RSAKeypairParams rsa = {nullptr, 0, 1};
  const ECCKeypairParams p521 = {5, 1};
  const DeviceHandle device = Load(StoredDevice().File(), nullptr);  // no PIN needed
  const auto before = List();
  const std::string record = Describe(*device);
  for (const bool isRsa : {true, false}) {
    KeypairHandle made;
    ASSERT_EQ(isRsa ? Generate(device.get(), 1, 1024, &rsa, &made, 0)
                    : Generate(device.get(), 4, 521, &p521, &made, 0),
              1);
    EXPECT_EQ(made->isTemp, 1);
    EXPECT_EQ(made->device, nullptr);
    EXPECT_STREQ(made->label, "");
    EXPECT_EQ(made->saltLen + made->ivLen + made->encryptedPrivateKeyLen, 0);
    Refuses(0, device.get(), [&] { return DeviceDeleteKeypair(made.get()); });
    Refuses(0, device.get(), [&] { return DeviceAddCertificate(made.get(), Raw("c"), 1); });
    Refuses(0, device.get(), [&] { return DeviceDeleteCertificate(made.get(), 0); });
  }
  EXPECT_TRUE(List() == before);
  EXPECT_EQ(Describe(*device), record);
}

TEST_F(GenerateTest, AnImportedKeypairIsTheOneGiven) {
  for (const TestKey* key : {&TestRsa(), &TestP256(), &TestSm2()}) {
    SCOPED_TRACE(key->curve);
    const DeviceHandle device = Load();
    KeypairHandle made;
    ASSERT_EQ(Import(device.get(), key->pair, &made), 1);
    EXPECT_EQ(made->bits, static_cast<unsigned int>(key->bits));
    EXPECT_EQ(made->curve, key->curve);
    EXPECT_EQ(Bytes(made->publicKey, made->publicKeyLen), key->publicKey);
    EXPECT_EQ(Blob(*made), key->pair);
    EXPECT_EQ(device->refCount, 4u);
    made.reset();
    EXPECT_EQ(device->refCount, 3u);
    EXPECT_EQ(DeviceGetKeypairCount(Rescan(PIN).get()), 2);
  }
}

TEST_F(GenerateTest, ARefusalLeavesNoTrace) {
  const ECCKeypairParams p256 = {3, 0};
  const ECCKeypairParams p384 = {4, 0};
  const ECCKeypairParams six = {6, 0};
  const ECCKeypairParams sixTemp = {6, 1};
  const std::string& pair = TestP256().pair;
  const std::string& rsa = TestRsa().pair;
  const std::string d(32, '\1');
  std::string nine;
  for (int i = 0; i < 9; i++) nine += "020100";
  const std::string long63(63, 'x'), long64(64, 'x'), long999(999, 'x');
  KeypairHandle out;
  const DeviceHandle open = Load();
  Device* device = open.get();
  const auto generate = [&](int want, unsigned int algorithm, int bits, const void* params,
                            unsigned int type = 9, const std::string& label = "n") {
    SCOPED_TRACE(std::to_string(bits) + " bits, type " + std::to_string(type) + ", " + label);
    Refuses(want, device,
            [&] { return Generate(device, algorithm, bits, params, &out, type, label); });
  };
  generate(0, 4, 256, &p256, 9, long64);
  generate(0, 4, 256, &p256, 9, long999);
  generate(0, 4, 256, &p256, 0);  // the file can't hold type 0
  generate(0, 4, 192, &six);
  generate(0, 4, 192, &sixTemp);
  generate(0, 4, 384, &p256);
  generate(0, 4, 256, &p384);
  generate(0, 1, 10, nullptr);
  generate(0, 1, -1, nullptr);

  const struct {
    const char* what;
    std::string encoding;
    int want;
  } encodings[] = {
      {"nothing", "", 0},
      {"15 bytes", pair.substr(0, 15), 0},
      {"16 bytes", pair.substr(0, 16), 0},
      {"cut", pair.substr(0, pair.size() - 1), 0},
      {"a byte more", pair + "x", 0},
      {"RSA cut", rsa.substr(0, rsa.size() - 1), 0},
      {"RSA, a byte more", rsa + "x", 0},
      {"RSA, not DER", Flipped(rsa, 12), 0},
      {"RSA of nine zeros", "_KEYPAIR" + Word(1) + Unhex("301b" + nine), 0},
      {"a public key", TestP256().publicKey, 0},
      {"public-key magic", "_PUBKEY_" + pair.substr(8), 0},
      {"algorithm 2", pair.substr(0, 8) + Word(2) + pair.substr(12), -9},
      {"algorithm 0x01000004", pair.substr(0, 8) + Word(0x01000004) + pair.substr(12), -9},
      {"RSA body as a curve key", rsa.substr(0, 8) + Word(4) + rsa.substr(12), 0},
      {"curve body as RSA", pair.substr(0, 8) + Word(1) + pair.substr(12), 0},
      {"point off the curve", Flipped(pair, 60), 0},
      {"point of another curve", Flipped(pair, 15, 3 ^ 7), 0},
      {"x and y zero", EccPair(3, std::string(32, '\0'), std::string(32, '\0'), d), 0},
      {"no x", EccPair(3, "", std::string(32, '\0'), d), 0},
      {"curve 0", Flipped(pair, 15, 3), 0},
      {"curve 6", Flipped(pair, 15, 3 ^ 6), 0},
      {"curve -1", pair.substr(0, 12) + Word(0xffffffff) + pair.substr(16), 0},
      {"length of x one more", Flipped(pair, 19, 1), 0},
      {"length of x negative", Flipped(pair, 16, 0x80), 0},
      {"length of d one less", Flipped(pair, 91, 0x3f), 0},
  };
  for (const auto& c : encodings) {
    SCOPED_TRACE(c.what);
    Refuses(c.want, device, [&] { return Import(device, c.encoding, &out); });
  }
  Refuses(0, device, [&] { return Import(device, pair, &out, 9, long64); });
  Refuses(0, device, [&] { return Import(device, pair, &out, 0); });
  EXPECT_EQ(Import(device, pair, &out, 9, long63), 1);
  out.reset();
  EXPECT_EQ(Import(device, pair, &out, 2, "sign"), 1) << "same label, other type";
}

TEST_F(GenerateTest, The65thKeypairIsRefused) {
  StoredDevice stored = {.keypairs = {}};
  for (int i = 1; i <= 64; i++) stored.keypairs.push_back(StoredKeypair{.type = i}.Json());
  const DeviceHandle device = Load(stored.File());
  const ECCKeypairParams p256 = {3, 0};
  const ECCKeypairParams temporary = {3, 1};
  KeypairHandle out;
  Refuses(0, device.get(), [&] { return Generate(device.get(), 4, 256, &p256, &out, 99); });
  Refuses(0, device.get(), [&] { return Import(device.get(), TestP256().pair, &out, 99); });
  EXPECT_EQ(Generate(device.get(), 4, 256, &temporary, &out), 1);
  KeypairHandle last(DeviceGetKeypair(device.get(), 63));
  EXPECT_EQ(DeviceDeleteKeypair(last.get()), 1);
  EXPECT_EQ(Import(device.get(), TestP256().pair, &out, 99), 1);
}

// Keys of the odd curves are made and encoded; what is stored of them does not decode again.
TEST_F(GenerateTest, EveryCurveEncodesWithItsFieldSize) {
  const int sizes[] = {0, 24, 28, 32, 48, 66, 0, 32};
  for (const int curve : {1, 2, 3, 4, 5, 7}) {
    SCOPED_TRACE(curve);
    Keypair* raw = nullptr;
    ASSERT_EQ(GenerateTempECCKeypair(curve, GetECCBits(curve), 0, &raw), 1);
    const KeypairHandle made(raw);
    EXPECT_EQ(made->publicKeyLen, 12 + 4 + 2 * (4 + sizes[curve]));
    const EcKey ec(EVP_PKEY_get1_EC_KEY(made->privateKey));
    unsigned char* encoding = nullptr;
    int length = 0;
    ASSERT_EQ(EncodeECCKeypair(curve, ec.get(), &encoding, &length), 1);
    const LibBytes owned(encoding);
    EXPECT_EQ(length, 12 + 4 + 3 * (4 + sizes[curve]));
    int decoded = 0;
    int bits = 0;
    const EvpKey back(DecodeECCPair(encoding, length, &decoded));
    EXPECT_EQ(back != nullptr, sizes[curve] == 32);
    EXPECT_EQ(decoded, curve);
    const EvpKey pub(GetECCPublicKey(made->publicKey, made->publicKeyLen, &bits, &decoded));
    EXPECT_EQ(pub != nullptr, sizes[curve] == 32);
    if (pub) {
      EXPECT_EQ(EVP_PKEY_eq(pub.get(), made->privateKey), 1);
      EXPECT_EQ(bits, 256);
    }
  }
  Keypair* none = nullptr;
  EXPECT_EQ(GenerateTempECCKeypair(6, 192, 0, &none), 0);
}

TEST_F(GenerateTest, ShortNumbersArePaddedOnTheLeft) {
  const EcGroup group(EC_GROUP_new_by_curve_name(NID_X9_62_prime256v1));
  const EcKey key(EC_KEY_new_by_curve_name(NID_X9_62_prime256v1));
  const EcPoint point(EC_POINT_new(group.get()));
  const BigNum d(BN_new());
  ASSERT_EQ(BN_set_word(d.get(), 5), 1);
  ASSERT_EQ(EC_POINT_mul(group.get(), point.get(), d.get(), nullptr, nullptr, nullptr), 1);
  ASSERT_EQ(
      EC_KEY_set_private_key(key.get(), d.get()) & EC_KEY_set_public_key(key.get(), point.get()),
      1);
  unsigned char* encoding = nullptr;
  int length = 0;
  ASSERT_EQ(EncodeECCKeypair(3, key.get(), &encoding, &length), 1);
  EXPECT_EQ(Bytes(encoding + length - 36, 36), Word(32) + std::string(31, '\0') + '\5');
  // A coordinate whose leading zeros were dropped, and one with a zero too many.
  const std::string whole = Bytes(encoding, length);
  VakroPKICryptoFreeMemory(encoding);
  const std::string x = whole.substr(20, 32), y = whole.substr(56, 32);
  int curve = 0;
  for (const std::string& encoded :
       {EccPair(3, x, y, "\5"), EccPair(3, '\0' + x, y, "\5"), EccPair(3, x, '\0' + y, "\5")}) {
    const EvpKey back(DecodeECCPair(Raw(encoded), Len(encoded), &curve));
    ASSERT_NE(back, nullptr);
    const EcKey ec(EVP_PKEY_get1_EC_KEY(back.get()));
    EXPECT_EQ(EC_POINT_cmp(group.get(), EC_KEY_get0_public_key(ec.get()), point.get(), nullptr), 0);
  }
}
