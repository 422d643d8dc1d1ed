// RSA and ECDSA through the device, against OpenSSL's EVP both ways. What is refused is in the
// table of results and in hostile_bytes_test.cpp; SM2 is in sm2_test.cpp.
#include "tests/support/operations.h"
#include "sm2/sm2.h"

#include <set>

TEST_F(OperationsTest, RsaSignaturesAreThoseOfEvp) {
  const std::string info = Unhex("3031300d060960864801650304020105000420") + Digest("SHA256", "m");
  const struct {
    unsigned int algorithm;
    int padding;
    std::string data;
  } cases[] = {{256, RSA_PKCS1_PADDING, info},
               {256, RSA_PKCS1_PADDING, "x"},
               {256, RSA_PKCS1_PADDING, std::string(245, 'x')},
               {768, RSA_NO_PADDING, '\0' + std::string(255, 'b')}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.data.size());
    const std::string signature = EvpSign(TestRsa().key, c.data, c.padding);
    EXPECT_EQ(Hex(Sign(rsa_, c.algorithm, c.data)), Hex(signature));
    EXPECT_EQ(Verify(rsaPublic_.get(), c.algorithm, c.data, signature), 1);
    EXPECT_EQ(Verify(rsaPublic_.get(), c.algorithm, c.data + "x", signature), 0);
    EXPECT_EQ(Verify(rsaPublic_.get(), c.algorithm ^ 256 ^ 768, c.data, signature), 0);
  }
}

TEST_F(OperationsTest, RsaEncryptionIsThatOfEvp) {
  for (const std::string& text : {std::string("x"), std::string(245, 'x'), std::string()}) {
    SCOPED_TRACE(text.size());
    const std::string cipher = Encrypt(rsaPublic_.get(), 16, text);
    EXPECT_EQ(EvpDecrypt(TestRsa().key, cipher, RSA_PKCS1_PADDING), text);
    EXPECT_EQ(Decrypt(rsa_, 16, EvpEncrypt(TestRsa().key, text, RSA_PKCS1_PADDING)), text);
  }
  const std::string block = '\0' + std::string(255, 'b');
  const std::string raw = EvpEncrypt(TestRsa().key, block, RSA_NO_PADDING);
  EXPECT_EQ(Hex(Encrypt(rsaPublic_.get(), 48, block)), Hex(raw));
  EXPECT_EQ(Decrypt(rsa_, 48, raw), block);
}

// Keys of the odd curves sign, and are encoded; what is stored of them does not decode again.
TEST_F(OperationsTest, EcdsaSignaturesVerifyBothWaysOnEveryCurve) {
  const int sizes[] = {0, 24, 28, 32, 48, 66, 24, 32};
  for (const int curve : {1, 2, 3, 4, 5, 7}) {
    SCOPED_TRACE(curve);
    const ECCKeypairParams stored = {curve, 0};
    Keypair* k = nullptr;
    ASSERT_EQ(DeviceGenerateKeypair(device_.get(), 4, GetECCBits(curve), &stored, 9,
                                    std::to_string(curve).c_str(), &k),
              1);
    const KeypairHandle owned(k);
    EXPECT_EQ(k->publicKeyLen, 12 + 4 + 2 * (4 + sizes[curve]));
    EXPECT_EQ(k->encryptedPrivateKeyLen, 12 + 4 + 3 * (4 + sizes[curve]) + 16);
    const PublicHandle key(DeviceGetPublicKeyFromKeypair(k));
    EXPECT_EQ(key != nullptr, sizes[curve] == 32);
    for (const std::string& digest : {Digest("SHA256", "m"), Digest("SHA512", "m")}) {
      const std::string here = Sign(k, 2048, digest);
      const bool isSm2 = curve == 7;  // for which OpenSSL's EVP makes another kind of signature
      const std::string there = isSm2 ? here : EvpSign(k->privateKey, digest);
      EXPECT_TRUE(isSm2 || EvpVerify(k->privateKey, digest, here));
      EXPECT_TRUE(!key || Verify(key.get(), 2048, digest, there) == 1);
    }
  }
}

TEST_F(OperationsTest, AnEcdsaBufferIsMeasuredAgainstTheTrueLength) {
  const std::string digest = Digest("SHA256", "m");
  unsigned char out[72];
  int fitting = 0, length = 0;
  for (int i = 0; i < 40; i++)
    if (DeviceSign(p256_, 2048, nullptr, Raw(digest), 32, out, 71, &length) == 1) fitting++;
  EXPECT_GT(fitting, 0);  // three in four are shorter than the 72 that the query answers
}

TEST_F(OperationsTest, AnSm2KeyOfUnknownCurveCanDoNothingOfSm2) {
  const std::string e(32, 'e');
  const DeviceHandle again = Rescan();
  const PublicHandle unknown(DeviceGetPublicKeyFromKeypair(again->keypairs[2]));
  EXPECT_EQ(Encrypt(unknown.get(), 64, e), "result 0");
  EXPECT_EQ(Verify(unknown.get(), 4096, e, Sign(sm2_, 4096, e)), 0);
}

// So threads that use private keys don't wait for each other.
TEST_F(OperationsTest, PrivateKeysWorkWithoutTheLock) {
  static std::set<std::string> begun;
  const std::string text(32, 'm'), rsaCipher = Encrypt(rsaPublic_.get(), 16, text),
                                   sm2Cipher = Encrypt(sm2Public_.get(), 64, text);
  HookCalls([](const ImportCall& call) {
    static const std::set<std::string> arithmetic = {"RSA_private_encrypt", "RSA_private_decrypt",
                                                     "ECDSA_sign", "BN_rand_range",
                                                     "VakroPKICryptoNewHash"};
    if (!arithmetic.contains(call.name)) return 0;
    begun.insert(call.name);
    EXPECT_EQ(DeviceUnlockDevice(nullptr), 0) << call.name;
    return 0;
  });
  for (const auto& [keypair, algorithm] : {std::pair(rsa_, 256u), {p256_, 2048u}, {sm2_, 4096u}})
    EXPECT_FALSE(Sign(keypair, algorithm, text).starts_with("result"));
  EXPECT_EQ(Decrypt(rsa_, 16, rsaCipher) + Decrypt(sm2_, 64, sm2Cipher), text + text);
  HookCalls(nullptr);
  EXPECT_EQ(begun.size(), 5U);
}
