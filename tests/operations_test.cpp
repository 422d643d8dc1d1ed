// RSA and ECDSA through the device, against OpenSSL's EVP both ways; the dispatch and its sizes.
#include "tests/support/operations.h"

#include <openssl/rsa.h>

TEST_F(OperationsTest, RsaSignaturesAreThoseOfEvp) {
  const std::string info = Unhex("3031300d060960864801650304020105000420") + Digest("SHA256", "m");
  const std::string block = '\0' + std::string(255, 'b');
  const struct {
    unsigned int algorithm;
    int padding;
    std::string data;
  } cases[] = {{256, RSA_PKCS1_PADDING, info},
               {256, RSA_PKCS1_PADDING, "x"},
               {256, RSA_PKCS1_PADDING, std::string(245, 'x')},
               {768, RSA_NO_PADDING, block}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.data.size());
    const std::string signature = EvpSign(TestRsa().key, c.data, c.padding);
    EXPECT_EQ(Hex(Sign(rsa_, c.algorithm, c.data)), Hex(signature));
    PublicKey* key = rsaPublic_.get();
    EXPECT_EQ(Verify(key, c.algorithm, c.data, signature), 1);
    EXPECT_EQ(Verify(key, c.algorithm, Flipped(c.data, c.data.size() - 1), signature), 0);
    EXPECT_EQ(Verify(key, c.algorithm, c.data + "x", signature), 0);
    EXPECT_EQ(Verify(key, c.algorithm, c.data.substr(1), signature), 0);
    EXPECT_EQ(Verify(key, c.algorithm, c.data, Flipped(signature, 200)), 0);
    EXPECT_EQ(Verify(key, c.algorithm, c.data, signature.substr(0, 255)), 0);
    EXPECT_EQ(Verify(key, c.algorithm, c.data, signature + '\0'), 0);
    EXPECT_EQ(Verify(key, c.algorithm ^ 256 ^ 768, c.data, signature), 0);
    EXPECT_EQ(Verify(key, 2048, c.data, signature), 0);
    EXPECT_EQ(Verify(p256Public_.get(), c.algorithm, c.data, signature), 0);
  }
  EXPECT_EQ(Sign(rsa_, 256, std::string(246, 'x')), "result 0");
  EXPECT_EQ(Sign(rsa_, 768, block.substr(1)), "result 0");
  EXPECT_EQ(Sign(rsa_, 768, std::string(256, '\xff')), "result 0") << "not below the modulus";
}

TEST_F(OperationsTest, RsaEncryptionIsThatOfEvp) {
  for (const std::string& text : {std::string("x"), std::string(245, 'x'), std::string()}) {
    SCOPED_TRACE(text.size());
    const std::string cipher = Encrypt(rsaPublic_.get(), 16, text);
    EXPECT_EQ(cipher.size(), 256u);
    EXPECT_EQ(EvpDecrypt(TestRsa().key, cipher, RSA_PKCS1_PADDING), text);
    EXPECT_EQ(Decrypt(rsa_, 16, cipher), text);
    EXPECT_EQ(Decrypt(rsa_, 16, EvpEncrypt(TestRsa().key, text, RSA_PKCS1_PADDING)), text);
    if (text.size() > 1) {
      EXPECT_EQ(Decrypt(rsa_, 16, cipher, 244), "result -4");
    }
  }
  const std::string block = '\0' + std::string(255, 'b');
  EXPECT_EQ(Hex(Encrypt(rsaPublic_.get(), 48, block)),
            Hex(EvpEncrypt(TestRsa().key, block, RSA_NO_PADDING)));
  EXPECT_EQ(Decrypt(rsa_, 48, Encrypt(rsaPublic_.get(), 48, block)), block);
  EXPECT_EQ(Encrypt(rsaPublic_.get(), 16, std::string(246, 'x')), "result 0");
  EXPECT_EQ(Encrypt(rsaPublic_.get(), 48, block.substr(1)), "result 0");
  EXPECT_EQ(Encrypt(rsaPublic_.get(), 48, std::string(256, '\xff')), "result 0");
  for (const size_t n : {0u, 255u, 257u})
    EXPECT_EQ(Decrypt(rsa_, 16, std::string(n, '\1')), "result 0") << n;
}

TEST_F(OperationsTest, EcdsaSignaturesVerifyBothWays) {
  for (const std::string& digest :
       {Digest("SHA256", "m"), Digest("SHA512", "m"), std::string("x")}) {
    SCOPED_TRACE(digest.size());
    const std::string here = Sign(p256_, 2048, digest);
    EXPECT_TRUE(EvpVerify(TestP256().key, digest, here));
    const std::string there = EvpSign(TestP256().key, digest);
    PublicKey* key = p256Public_.get();
    EXPECT_EQ(Verify(key, 2048, digest, there), 1);
    EXPECT_EQ(Verify(key, 2048, digest, here), 1);
    EXPECT_EQ(Verify(key, 2048, Flipped(digest, 0), there), 0);
    EXPECT_EQ(Verify(key, 2048, digest, Flipped(there, 10)), 0);
    EXPECT_EQ(Verify(key, 2048, digest, there.substr(0, there.size() - 1)), 0);
    EXPECT_EQ(Verify(key, 2048, digest, ""), 0);
    EXPECT_EQ(Verify(rsaPublic_.get(), 2048, digest, there), 0);
  }
}

TEST_F(OperationsTest, AnEcdsaBufferIsMeasuredAgainstTheTrueLength) {
  const std::string digest = Digest("SHA256", "m");
  int shortOnes = 0;
  for (int i = 0; i < 40; i++) {
    const std::string signature = Sign(p256_, 2048, digest, 71);
    if (signature == "result -4") continue;
    shortOnes++;
    EXPECT_LE(signature.size(), 71u);
    EXPECT_EQ(Verify(p256Public_.get(), 2048, digest, signature), 1);
  }
  EXPECT_GT(shortOnes, 0);  // three in four are shorter than the 72 that the query answers
}

// Every algorithm with every key: what is not in the list is refused.
TEST_F(OperationsTest, AlgorithmAndKeyMustBelongTogether) {
  const std::string data = '\0' + std::string(255, 'b');
  const std::string e = data.substr(1, 32);
  for (const unsigned int algorithm :
       {0u, 1u, 4u, 16u, 48u, 64u, 256u, 768u, 2048u, 4096u, 0x80000100u}) {
    SCOPED_TRACE(algorithm);
    const bool raw = algorithm == 768 || algorithm == 48;
    const auto signs = [&](Keypair* k) {
      return Sign(k, algorithm, raw ? data : e).substr(0, 6) != "result";
    };
    EXPECT_EQ(signs(rsa_), algorithm == 256 || algorithm == 768);
    EXPECT_EQ(signs(p256_), algorithm == 2048);
    EXPECT_EQ(signs(sm2_), algorithm == 2048 || algorithm == 4096);
    const auto encrypts = [&](const PublicHandle& k) {
      return Encrypt(k.get(), algorithm, raw ? data : e).substr(0, 6) != "result";
    };
    EXPECT_EQ(encrypts(rsaPublic_), algorithm == 16 || algorithm == 48);
    EXPECT_EQ(encrypts(p256Public_), false);
    EXPECT_EQ(encrypts(sm2Public_), algorithm == 64);
  }
  // An SM2 public key whose curve is not known yet can do nothing of SM2.
  const DeviceHandle again = Rescan();
  const PublicHandle unknown(DeviceGetPublicKeyFromKeypair(again->keypairs[2]));
  EXPECT_EQ(Encrypt(unknown.get(), 64, e), "result 0");
  EXPECT_EQ(Verify(unknown.get(), 4096, e, Sign(sm2_, 4096, e)), 0);
  for (const size_t n : {0u, 20u, 31u, 33u})
    EXPECT_EQ(Sign(sm2_, 4096, std::string(n, 'e')), "result 0") << n;
}
