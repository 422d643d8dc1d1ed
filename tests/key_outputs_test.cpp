// A function of the crypto library that fails may have written to its outputs: nothing of that is
// kept, used or released.
#include "tests/support/operations.h"

namespace {

class KeyOutputsTest : public OperationsTest {
 protected:
  // A new keypair: a temporary one, one on the device, or one that comes from outside.
  int Make(const RSAKeypairParams& params) {
    Keypair* made = nullptr;
    return DeviceGenerateKeypair(device_.get(), ALGORITHM_RSA, 1024, &params, 1, "new", &made);
  }
  int Make(const ECCKeypairParams& params) {
    Keypair* made = nullptr;
    return DeviceGenerateKeypair(device_.get(), ALGORITHM_ECC, 256, &params, 1, "new", &made);
  }
  int Make(const TestKey& key) {
    Keypair* made = nullptr;
    return DeviceImportKeypair(device_.get(), Raw(key.pair), Len(key.pair), 1, "new", &made);
  }

  int UsePublic(const TestKey& key) {
    PublicKey* made = nullptr;
    return DeviceImportPublicKey(device_.get(), Raw(key.publicKey), Len(key.publicKey), &made);
  }

  const std::string digest_ = std::string(32, 'e');
  const std::string signature_ = Sign(sm2_, ALGORITHM_SM2_SIGN, digest_);
  const std::string secret_ = Encrypt(sm2Public_.get(), ALGORITHM_SM2_ENCRYPT, digest_);
};

}  // namespace

TEST_F(KeyOutputsTest, OfAFailedCallAreNotUsed) {
  struct {
    const char* what;
    const char* function;  // without "VakroPKICrypto"
    std::function<int()> call;
  } const rows[] = {
      {"RSA, temporary", "RSAPubKeyFromDER",
       [&] {
         return Make(RSAKeypairParams{nullptr, 0, 1});
       }},
      {"RSA", "RSAPubKeyFromDER", [&] { return Make(RSAKeypairParams{}); }},
      {"RSA", "RSAPrivKeyFromDER", [&] { return Make(RSAKeypairParams{}); }},
      {"P-256, temporary", "EncodeECCPubKey",
       [&] {
         return Make({CURVE_P256, 1});
       }},
      {"P-256", "EncodeECCPubKey",
       [&] {
         return Make({CURVE_P256, 0});
       }},
      {"P-256", "EncodeECCKeyPair",
       [&] {
         return Make({CURVE_P256, 0});
       }},
      {"SM2, temporary", "EncodeECCPubKey",
       [&] {
         return Make({CURVE_SM2, 1});
       }},
      {"SM2", "EncodeECCKeyPair",
       [&] {
         return Make({CURVE_SM2, 0});
       }},
      {"RSA, import", "RSAPrivKeyToDER", [&] { return Make(TestRsa()); }},
      {"RSA, import", "RSAPubKeyFromDER", [&] { return Make(TestRsa()); }},
      {"RSA, import", "RSAPrivKeyFromDER", [&] { return Make(TestRsa()); }},
      {"SM2, import", "DecodeECCKeyPair", [&] { return Make(TestSm2()); }},
      {"SM2, import", "EncodeECCPubKey", [&] { return Make(TestSm2()); }},
      {"SM2, import", "EncodeECCKeyPair", [&] { return Make(TestSm2()); }},
      {"RSA, public", "DecodeRSAPubKey", [&] { return UsePublic(TestRsa()); }},
      {"SM2, public", "DecodeECCPubKey", [&] { return UsePublic(TestSm2()); }},
      {"signature", "EncodeECCSignature",
       [&] { return Sign(sm2_, ALGORITHM_SM2_SIGN, digest_) == "result 0" ? 0 : 1; }},
      {"verification", "DecodeECCSignature",
       [&] { return Verify(sm2Public_.get(), ALGORITHM_SM2_SIGN, digest_, signature_); }},
      {"decryption", "HashFinal",
       [&] { return Decrypt(sm2_, ALGORITHM_SM2_ENCRYPT, secret_) == "result 0" ? 0 : 1; }},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(std::string(row.what) + ": " + row.function);
    Fault fault = {.name = std::string("VakroPKICrypto") + row.function, .writesFirst = true};
    Refuses(0, device_.get(), [&] {
      const Hook hook{std::ref(fault)};
      return row.call();
    });
    EXPECT_EQ(fault.calls, 1);
  }
}
