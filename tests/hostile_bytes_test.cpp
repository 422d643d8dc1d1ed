// Every one-byte change and every truncation of valid bytes: each is refused as documented and
// changes nothing or, where nothing guards the byte, loads and behaves. What the digest guards is
// also changed with the digest made right again.
#include "keypair/keypair.h"
#include "store/store.h"
#include "tests/support/world.h"

#include <algorithm>

namespace {

// A stretch of bytes, and what may come of a change to any of them.
struct Region {
  const char* what;
  size_t length;
  std::vector<int> want;
};

// Bits to flip: a few for what is slow to check, all where it is quick.
const std::vector<unsigned char> FEW = {0x01, 0x80, 0xff};
const std::vector<unsigned char> ALL = [] {
  std::vector<unsigned char> bits;
  for (int i = 1; i < 256; i++) bits.push_back(static_cast<unsigned char>(i));
  return bits;
}();

// Checks every change of one byte; the regions stand for all of `bytes`, in order.
template <class Check>
void EachChange(const std::string& bytes, const std::vector<Region>& regions,
                const std::vector<unsigned char>& flips, Check check) {
  size_t at = 0;
  for (const Region& region : regions) {
    for (const size_t end = at + region.length; at < end; at++) {
      for (const unsigned char bits : flips) {
        const int result = check(Flipped(bytes, at, bits));
        EXPECT_NE(std::find(region.want.begin(), region.want.end(), result), region.want.end())
            << region.what << ": byte " << at << " flipped by " << int{bits} << " gives " << result;
        if (testing::Test::HasFailure()) return;
      }
    }
  }
  EXPECT_EQ(at, bytes.size());
}

template <class Check>
void EachTruncation(const std::string& bytes, int want, Check check) {
  for (size_t length = 0; length < bytes.size(); length++)
    EXPECT_EQ(check(bytes.substr(0, length)), want) << length << " bytes";
  EXPECT_EQ(check(bytes + '\0'), want) << "one byte more";
}

// Regions of a DER SEQUENCE of INTEGERs behind `before`. The first bytes of a number hold its sign,
// or the zero that keeps it positive and must be needed for that.
std::vector<Region> DerRegions(std::string_view bytes, std::vector<Region> before,
                               const std::vector<int>& number, const std::vector<int>& first) {
  size_t at = 0;
  for (const Region& region : before) at += region.length;
  const auto header = [&](const char* what) {
    const auto length = static_cast<unsigned char>(bytes[at + 1]);
    const size_t more = length < 0x80 ? 0 : length & 0x7fu;
    size_t content = more == 0 ? length : 0;
    for (size_t i = 0; i < more; i++)
      content = content << 8 | static_cast<unsigned char>(bytes[at + 2 + i]);
    before.push_back({what, 2 + more, {0}});
    at += 2 + more;
    return content;
  };
  header("SEQUENCE");
  while (at < bytes.size()) {
    const size_t content = header("INTEGER");
    const size_t signedLen = std::min<size_t>(content, 2);
    before.push_back({"first bytes of a number", signedLen, first});
    before.push_back({"number", content - signedLen, number});
    at += content;
  }
  return before;
}

class HostileBytes : public ModuleTest {
 protected:
  void SetUp() override {
    ModuleTest::SetUp();
    device_ = Load(empty_);
  }
  void TearDown() override {
    device_.reset();
    ModuleTest::TearDown();
  }

  // Imports into the device without keypairs. What has been accepted must not lock anyone out.
  int Import(const std::string& encoding) {
    Keypair* keypair = nullptr;
    const int result =
        DeviceImportKeypair(device_.get(), Raw(encoding), Len(encoding), 1, "key", &keypair);
    const KeypairHandle owned(keypair);
    if (result == 1) {
      Rescan(PIN);
      device_ = Load(empty_);
    } else {
      EXPECT_TRUE(keypair == nullptr && device_->keypairCount == 0 && Read("dev") == empty_);
    }
    return result;
  }

  KeypairHandle Imported(const TestKey& key) {
    Keypair* keypair = nullptr;
    EXPECT_EQ(DeviceImportKeypair(device_.get(), Raw(key.pair), Len(key.pair), 1, "key", &keypair),
              1);
    return KeypairHandle(keypair);
  }

  const std::string empty_ = StoredDevice{.keypairs = {}}.File();
  DeviceHandle device_;
};

int Decode(const std::string& encoding) {
  const auto algorithm = encoding.size() < 12 ? 0 : be2int(Raw(encoding) + 8);
  int curve = 0;
  const EvpKey key(DecodePair(algorithm, Raw(encoding), Len(encoding), &curve));
  return key ? 1 : 0;
}

int ImportPublic(const std::string& encoding) {
  PublicKey* key = nullptr;
  const int result = DeviceImportPublicKey(nullptr, Raw(encoding), Len(encoding), &key);
  const PublicHandle owned(key);
  EXPECT_EQ(key != nullptr, result == 1);
  return result;
}

std::vector<Region> EccRegions(const std::vector<int>& algorithm) {
  return {{"magic", 8, {0}},
          {"algorithm", 4, algorithm},
          {"curve", 4, {0}},
          {"x", 4 + 32, {0}},
          {"y", 4 + 32, {0}}};
}

TEST_F(HostileBytes, EccKeypairEncodings) {
  for (const TestKey* key : {&TestP256(), &TestSm2()}) {
    // The scalar is not checked against the point.
    std::vector<Region> regions = EccRegions({0, VAKRO_NOT_SUPPORTED});
    regions.push_back({"length of d", 4, {0}});
    regions.push_back({"d", 32, {1}});
    EachChange(key->pair, regions, ALL, Decode);
    EachTruncation(key->pair, 0, Decode);
    EachChange(key->pair, regions, FEW, [&](const std::string& e) { return Import(e); });
    EachTruncation(key->pair, 0, [&](const std::string& e) { return Import(e); });
  }
}

TEST_F(HostileBytes, RsaKeypairEncodings) {
  const TestKey& key = TestRsa();
  const std::vector<Region> header = {{"magic", 8, {0}},
                                      {"algorithm", 4, {0, VAKRO_NOT_SUPPORTED}}};
  // The numbers are not checked against each other; the first one is the version.
  const std::vector<Region> regions = DerRegions(key.pair, header, {1}, {0, 1});
  EachChange(key.pair, regions, FEW, Decode);
  EachTruncation(key.pair, 0, Decode);
  EachTruncation(key.pair, 0, [&](const std::string& e) { return Import(e); });
  // What decodes is stored, at the price of some milliseconds: every 37th byte will do.
  for (size_t at = 0; at < key.pair.size(); at += 37) {
    const std::string changed = Flipped(key.pair, at, 0x40);
    const int result = Import(changed);
    EXPECT_TRUE(result == Decode(changed) || result == VAKRO_NOT_SUPPORTED) << at;
  }
}

TEST_F(HostileBytes, PublicKeyEncodings) {
  for (const TestKey* key : {&TestP256(), &TestSm2()}) {
    EachChange(key->publicKey, EccRegions({0}), ALL, ImportPublic);
    EachTruncation(key->publicKey, 0, ImportPublic);
  }
  const std::string& rsa = TestRsa().publicKey;
  EachChange(rsa, DerRegions(rsa, {{"magic", 8, {0}}, {"algorithm", 4, {0}}}, {1}, {0, 1}), ALL,
             ImportPublic);
  EachTruncation(rsa, 0, ImportPublic);
}

TEST_F(HostileBytes, Signatures) {
  const struct {
    const TestKey& key;
    unsigned int algorithm;
    const std::vector<unsigned char>& flips;
  } cases[] = {{TestP256(), ALGORITHM_ECDSA_SIGN, ALL},
               {TestSm2(), ALGORITHM_SM2_SIGN, FEW},
               {TestRsa(), ALGORITHM_RSA_PKCS1_SIGN, FEW}};
  const std::string digest(32, 'e');
  for (const auto& c : cases) {
    SCOPED_TRACE(c.algorithm);
    device_ = Load(empty_);
    const KeypairHandle keypair = Imported(c.key);
    const PublicHandle key(DeviceGetPublicKeyFromKeypair(keypair.get()));
    unsigned char buffer[512];
    int length = 0;
    ASSERT_EQ(DeviceSign(keypair.get(), c.algorithm, nullptr, Raw(digest), 32, buffer,
                         sizeof(buffer), &length),
              1);
    const auto verify = [&](const std::string& signature) {
      return DeviceVerify(key.get(), c.algorithm, nullptr, Raw(digest), 32, Raw(signature),
                          Len(signature));
    };
    const std::string signature = Bytes(buffer, length);
    EXPECT_EQ(verify(signature), 1);
    EachChange(signature, {{"signature", signature.size(), {0}}}, c.flips, verify);
    EachTruncation(signature, 0, verify);
  }
}

TEST_F(HostileBytes, Ciphertexts) {
  const std::string plaintext = "a secret of some length, longer than a digest";
  for (const TestKey* testKey : {&TestSm2(), &TestRsa()}) {
    const bool sm2 = testKey == &TestSm2();
    const unsigned int algorithm = sm2 ? ALGORITHM_SM2_ENCRYPT : ALGORITHM_RSA_PKCS1_ENCRYPT;
    device_ = Load(empty_);
    const KeypairHandle keypair = Imported(*testKey);
    const PublicHandle key(DeviceGetPublicKeyFromKeypair(keypair.get()));
    unsigned char buffer[512];
    int length = 0;
    ASSERT_EQ(DevicePublicKeyEncrypt(key.get(), algorithm, nullptr, Raw(plaintext), Len(plaintext),
                                     buffer, sizeof(buffer), &length),
              1);
    // A changed RSA block may by chance be padded well; it is never the plaintext again. An output
    // without a plaintext is of zeros, or untouched if nothing was written.
    const auto decrypt = [&](const std::string& ciphertext) {
      std::string out(512, '\xa5');
      int outLen = 0;
      const int result = DevicePrivateKeyDecrypt(
          keypair.get(), algorithm, nullptr, Raw(ciphertext), Len(ciphertext),
          reinterpret_cast<unsigned char*>(out.data()), Len(out), &outLen);
      if (result == 1) return out.substr(0, static_cast<size_t>(outLen)) == plaintext ? 1 : 0;
      if (outLen > 0) {
        EXPECT_EQ(out.substr(0, static_cast<size_t>(outLen)),
                  std::string(static_cast<size_t>(outLen), '\0'));
      }
      EXPECT_EQ(out.back(), '\xa5');
      return result;
    };
    const std::string ciphertext = Bytes(buffer, length);
    EXPECT_EQ(decrypt(ciphertext), 1);
    EachChange(ciphertext, {{"ciphertext", ciphertext.size(), {0}}}, FEW, decrypt);
    EachTruncation(ciphertext, 0, decrypt);
  }
}

// --- Device files --------------------------------------------------------------------------------

enum Outcome { NO_DEVICE, NO_KEYPAIR, WRONG_PIN, OPENS };

class HostileFiles : public ModuleTest {
 protected:
  // Scans and opens the file, which stays as it is.
  Outcome Try(const std::string& file, bool andChange) {
    Write("dev", file);
    const Outcome outcome = Open(andChange);
    if (!changed_) {
      EXPECT_TRUE(List().size() == 1 && Read("dev") == file);
    }
    return outcome;
  }

  Outcome Open(bool andChange) {
    changed_ = false;
    const SetHandle set(DeviceGetAllDevices());
    const DeviceHandle device(DeviceGetDevice(set.get(), 0));
    if (!device) return NO_DEVICE;
    const int verified = DeviceVerifyPwd(device.get(), PIN_TYPE_USER, PIN, nullptr);
    EXPECT_TRUE(verified == VAKRO_OK || verified == VAKRO_WRONG_PIN);
    const KeypairHandle keypair(DeviceGetKeypair(device.get(), 0));
    if (!keypair) return NO_KEYPAIR;
    EXPECT_EQ(keypair->privateKey != nullptr, verified == VAKRO_OK);
    if (verified == VAKRO_WRONG_PIN) return WRONG_PIN;
    unsigned char signature[80];
    int length = 0;
    EXPECT_EQ(DeviceSign(keypair.get(), ALGORITHM_ECDSA_SIGN, nullptr, signature, 32, signature,
                         sizeof(signature), &length),
              1);
    if (andChange) AddCertificate(keypair.get());
    return OPENS;
  }

  // Either the certificate is in the file, or the file is as it was.
  void AddCertificate(Keypair* keypair) {
    static const unsigned char cert[] = "a certificate";
    changed_ = DeviceAddCertificate(keypair, cert, sizeof(cert)) == 1;
    if (!changed_) return;
    const DeviceHandle again = Rescan(PIN);
    ASSERT_NE(again, nullptr);
    EXPECT_EQ(again->keypairs[0]->certCount, keypair->certCount);
  }

  bool changed_ = false;
};

TEST_F(HostileFiles, ContainersAreRefusedButForTheirTag) {
  const std::string file = StoredDevice{.more = {Array({StoredData(1, "abc")})}}.File();
  const auto verify = [&](const std::string& changed) {
    Write("dev", changed);
    unsigned char* image = nullptr;
    unsigned int size = 0;
    const int result = VerifyDeviceFile(Path("dev").c_str(), &image, &size);
    const UtilBytes owned(image);
    EXPECT_EQ(image != nullptr, result == 1);
    return result;
  };
  const size_t text = file.size() - HEADER_SIZE - DIGEST_SIZE;
  EachChange(file.substr(0, 8), {{"tag", 4, {1}}, {"length", 4, {0}}}, ALL,
             [&](const std::string& header) { return verify(header + file.substr(8)); });
  EachChange(file, {{"tag", 4, {1}}, {"length", 4, {0}}, {"text", text, {0}}, {"digest", 64, {0}}},
             FEW, verify);
  EachTruncation(file, 0, verify);
  // The private keys are bound to the tag.
  EachChange(file.substr(0, 4), {{"tag", 4, {WRONG_PIN}}}, FEW,
             [&](const std::string& tag) { return Try(tag + file.substr(4), false); });
}

TEST_F(HostileFiles, TextsWithARightDigest) {
  const StoredKeypair keypair{.certs = {"one"}};
  const std::string publicKey = Hex(keypair.key->publicKey);
  const std::string blob = Hex(Seal(keypair.key->pair, PIN, keypair.salt, keypair.iv, keypair.tag));
  // The text in pieces, and what may come of a change inside each.
  const struct {
    std::string text;
    std::vector<int> want;
  } pieces[] = {
      {"[\"", {NO_DEVICE}},
      {"0123456789", {OPENS}},
      {"\",\"", {NO_DEVICE}},
      {"abc", {OPENS}},
      {"\",[[\"", {NO_DEVICE}},
      {"sign", {OPENS}},
      {"\",", {NO_DEVICE}},
      {"1", {OPENS, NO_DEVICE}},  // the type
      {",", {NO_DEVICE, NO_KEYPAIR}},
      {"4", {WRONG_PIN, NO_DEVICE}},  // the algorithm
      {",", {NO_DEVICE, NO_KEYPAIR}},
      {"256", {OPENS, NO_DEVICE}},
      {",\"", {NO_DEVICE}},
      {Hex(keypair.salt), {WRONG_PIN, NO_KEYPAIR}},
      {"\",\"", {NO_DEVICE}},
      {Hex(keypair.iv), {WRONG_PIN, NO_KEYPAIR}},
      {"\",\"", {NO_DEVICE}},
      {publicKey, {OPENS, NO_KEYPAIR}},
      {"\",\"", {NO_DEVICE}},
      {blob, {WRONG_PIN, NO_KEYPAIR}},
      {"\",[\"", {NO_DEVICE}},
      {Base64("one"), {OPENS}},
      {"\"]]],[[", {NO_DEVICE}},
      {"1", {OPENS, NO_DEVICE}},  // the data object: looked at only when it is asked for
      {",", {NO_DEVICE}},
      {"3", {OPENS, NO_DEVICE}},
      {",0,0,\"", {OPENS, NO_DEVICE}},
      {Hex("abc"), {OPENS}},
      {"\"]]]", {NO_DEVICE}},
  };
  std::string text;
  std::vector<Region> regions;
  for (const auto& piece : pieces) {
    text += piece.text;
    regions.push_back({piece.text.c_str(), piece.text.size(), piece.want});
  }
  const StoredDevice device{.keypairs = {keypair.Json()}, .more = {Array({StoredData(1, "abc")})}};
  ASSERT_EQ(text, device.Json());

  ASSERT_EQ(Try(Container(TAG, text), true), OPENS);
  EXPECT_TRUE(changed_);
  // One of the flips goes on to change the device.
  for (const unsigned char bits : FEW)
    EachChange(text, regions, {bits}, [&](const std::string& changed) {
      return Try(Container(TAG, changed), bits == 0x01);
    });
  EachTruncation(text, NO_DEVICE,
                 [&](const std::string& changed) { return Try(Container(TAG, changed), false); });
}

}  // namespace
