// Every one-byte change and every truncation of valid bytes is refused and changes nothing or,
// where nothing guards the byte, loads and behaves. What the digest guards is also changed with the
// digest made right again.
#include "keypair/keypair.h"
#include "store/store.h"
#include "tests/support/operations.h"

namespace {
// From 1 on by such steps are the bits to flip: all, 0x01, 0x80 and 0xff, or the lowest.
constexpr unsigned int ALL = 1, FEW = 127, ONE = 255;

// `good` is told the changed bytes, and where; at the length for what is cut or longer.
template <class Good>
void EachChange(const std::string& bytes, unsigned int step, Good good) {
  for (size_t at = 0; at < bytes.size(); at++) {
    for (unsigned int bits = 1; bits < 256; bits += step)
      ASSERT_TRUE(good(Flipped(bytes, at, static_cast<unsigned char>(bits)), at))
          << "byte " << at << " flipped by " << bits;
    ASSERT_TRUE(good(bytes.substr(0, at), bytes.size())) << "cut to " << at << " bytes";
  }
  EXPECT_TRUE(good(bytes + '\0', bytes.size())) << "one byte more";
}

// --- Encodings and signatures ---

using HostileBytes = OperationsTest;

TEST_F(HostileBytes, PublicKeys) {
  const auto accepts = [](const std::string& encoding) {
    PublicKey* key = nullptr;
    const int result = DeviceImportPublicKey(nullptr, Raw(encoding), Len(encoding), &key);
    const PublicHandle owned(key);
    EXPECT_EQ(result, key ? 1 : 0);
    if (!key) return false;
    unsigned char* der = nullptr;
    const int length = i2d_PublicKey(key->key, &der);
    const OpensslBytes ownedDer(der);
    EXPECT_EQ(Bytes(der, length), encoding.substr(12)) << "no other key than the encoded one";
    return true;
  };
  EachChange(TestRsa().publicKey, FEW, [&](const std::string& encoding, size_t) {
    accepts(encoding);
    return !HasFailure();
  });
  for (const TestKey* key : {&TestP256(), &TestSm2()})
    EachChange(key->publicKey, ALL,
               [&](const std::string& encoding, size_t) { return !accepts(encoding); });
  EXPECT_FALSE(accepts("_PUBKEY_" + Word(4) + Word(3) + Word(0) + Word(0)));
}

// What has been accepted must be what was given, and must not lock anyone out.
TEST_F(HostileBytes, Keypairs) {
  const std::string empty = StoredDevice{.keypairs = {}}.File();
  DeviceHandle device = Load(empty);
  const auto accepts = [&](const std::string& encoding) {
    Keypair* keypair = nullptr;
    const int result =
        DeviceImportKeypair(device.get(), Raw(encoding), Len(encoding), 1, "key", &keypair);
    const KeypairHandle owned(keypair);
    EXPECT_TRUE(result == 1 || (!keypair && device->keypairCount == 0 && Read("dev") == empty));
    if (result != 1) return false;
    EXPECT_TRUE(IsSealed(*keypair, encoding));
    EXPECT_EQ(Rescan(PIN)->keypairCount, 1);
    device = Load(empty);
    return true;
  };
  for (const TestKey* key : {&TestRsa(), &TestP256(), &TestSm2()})
    EachChange(key->pair, key->curve == 0 ? ONE : FEW, [&](const std::string& encoding, size_t at) {
      if (key->curve != 0 || at % 37 == 0) accepts(encoding);
      return !HasFailure();
    });
  const std::string &p256 = TestP256().pair, &rsa = TestRsa().pair;
  const std::string zeros(32, '\0'),
      nines = "020100020100020100020100020100020100020100020100020100";
  for (const std::string& bad :
       {"_KEYPAIR" + Word(1) + Unhex("301b" + nines), EccPair(3, zeros, zeros, zeros),
        EccPair(3, "", zeros, zeros), Flipped(p256, 15, 3 ^ 7), Flipped(p256, 15, 3 ^ 6),
        p256.substr(0, 8) + Word(1) + p256.substr(12), rsa.substr(0, 8) + Word(4) + rsa.substr(12)})
    EXPECT_FALSE(accepts(bad)) << Hex(bad);
  EXPECT_EQ(DecodeRSAPair(Raw(rsa) + 12, Len(rsa) - 11), nullptr) << "a byte is left over";
}

TEST_F(HostileBytes, SignaturesAndCiphertexts) {
  const std::string digest(32, 'e');
  for (const auto& [keypair, key, algorithm] : {std::tuple(rsa_, rsaPublic_.get(), 256u),
                                                {p256_, p256Public_.get(), 2048u},
                                                {sm2_, sm2Public_.get(), 4096u}}) {
    const std::string signature = Sign(keypair, algorithm, digest);
    ASSERT_EQ(Verify(key, algorithm, digest, signature), 1);
    EachChange(signature, FEW,
               [&, verifier = key, by = algorithm](const std::string& changed, size_t) {
                 return Verify(verifier, by, digest, changed) == 0;
               });
  }
  const std::string ciphertext = Encrypt(sm2Public_.get(), 64, "text");
  ASSERT_EQ(Decrypt(sm2_, 64, ciphertext), "text");
  EachChange(ciphertext, FEW, [&](const std::string& changed, size_t) {
    return Decrypt(sm2_, 64, changed) == "result 0";
  });
}

// --- Device files ---

class HostileFiles : public ModuleTest {
 protected:
  // Scans, opens, uses and, if asked, changes the device: says whether the PIN opens it.
  bool Opens(const std::string& file, bool andChange) {
    Write("dev", file);
    const SetHandle set(DeviceGetAllDevices());
    const DeviceHandle device(DeviceGetDevice(set.get(), 0));
    const int verified = device ? DeviceVerifyPwd(device.get(), 1, PIN, nullptr) : -5;
    EXPECT_TRUE(verified == 1 || verified == -5);
    const KeypairHandle keypair(DeviceGetKeypair(device.get(), 0));
    EXPECT_TRUE(!keypair || (keypair->privateKey != nullptr) == (verified == 1));
    EXPECT_TRUE(List().size() == 1 && Read("dev") == file);
    if (!keypair || verified != 1) return false;
    EXPECT_TRUE(IsSealed(*keypair, TestP256().pair));
    unsigned char signature[80];
    int length = 0;
    EXPECT_EQ(DeviceSign(keypair.get(), 2048, nullptr, signature, 32, signature, 80, &length), 1);
    if (andChange && DeviceAddCertificate(keypair.get(), Raw("another"), 7) == 1) {
      EXPECT_EQ(Rescan(PIN)->keypairs[0]->certCount, keypair->certCount);
    } else {
      EXPECT_EQ(Read("dev"), file);
    }
    return true;
  }

  const StoredDevice stored_{.keypairs = {StoredKeypair{.certs = {"one"}}.Json()},
                             .more = {Array({StoredData(1, "abc")})}};
};

TEST_F(HostileFiles, ContainersAreRefusedButForTheirTag) {
  const std::string file = stored_.File();
  const auto verifies = [&](const std::string& changed) {
    Write("dev", changed);
    unsigned char* image = nullptr;
    unsigned int size = 0;
    const int result = VerifyDeviceFile(Path("dev").c_str(), &image, &size);
    const UtilBytes owned(image);
    EXPECT_TRUE(result == 1 ? Bytes(image, size) == changed : result == 0 && !image);
    return result == 1;
  };
  EachChange(file, FEW, [&](const std::string& changed, size_t at) {
    return verifies(changed) == (at < 4) && !HasFailure();
  });
  for (size_t at = 0; at < 4; at++) EXPECT_FALSE(Opens(Flipped(file, at), false)) << "bound to it";
  EXPECT_TRUE(verifies(Container(1, "")));
  for (const std::string& wrapping :
       {Word(1) + Word(0xffffffff) + std::string(63, 'x'), Word(1) + Word(0xffffffc0),
        Word(1) + Word(0) + Digest("SHA512", "") + " ", '\0' + file})
    EXPECT_FALSE(verifies(wrapping)) << Hex(wrapping);
}

TEST_F(HostileFiles, TextsWithARightDigest) {
  const std::string text = stored_.Json();
  ASSERT_TRUE(Opens(Container(TAG, text), true));
  EachChange(text, FEW, [&](const std::string& changed, size_t at) {
    // One of the flips goes on to change the device.
    const bool andChange = at < text.size() && (changed[at] ^ text[at]) == 1;
    const bool opens = Opens(Container(TAG, changed), andChange);
    return !HasFailure() && !(opens && at == text.size());
  });
}
}  // namespace
