// What key operations do beyond their answers: curves, lengths, and work without the lock.
#include "tests/support/operations.h"
#include "sm2/sm2.h"

#include <set>

// Keys of the odd curves sign, and are encoded; what is stored of them does not decode again.
TEST_F(OperationsTest, OpensslVerifiesSignaturesOfEveryCurve) {
  for (const int curve : {1, 2, 3, 4, 5, 7}) {
    SCOPED_TRACE(curve);
    const ECCKeypairParams stored = {curve, 0};
    const int bits = GetECCBits(curve), size = (bits + 7) / 8;
    const KeypairHandle k = Generate(device_.get(), 4, bits, &stored, std::to_string(curve));
    ASSERT_NE(k, nullptr);
    EXPECT_EQ(k->publicKeyLen, 12 + 4 + 2 * (4 + size));
    EXPECT_EQ(k->encryptedPrivateKeyLen, 12 + 4 + 3 * (4 + size) + 16);
    const PublicHandle key(DeviceGetPublicKeyFromKeypair(k.get()));
    EXPECT_EQ(key != nullptr, bits == 256);
    const EcKey judge(EVP_PKEY_get1_EC_KEY(k->privateKey));
    for (const std::string& digest : {Digest("SHA256", "m"), Digest("SHA512", "m")}) {
      const std::string by = Sign(k.get(), 2048, digest);
      EXPECT_EQ(ECDSA_verify(0, Raw(digest), Len(digest), Raw(by), Len(by), judge.get()), 1);
      EXPECT_TRUE(!key || Verify(key.get(), 2048, digest, by) == 1);
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

// So threads that use private keys don't wait for each other.
TEST_F(OperationsTest, PrivateKeysWorkWithoutTheLock) {
  const std::string text(32, 'm'), rsaCipher = Encrypt(rsaPublic_.get(), 16, text),
                                   sm2Cipher = Encrypt(sm2Public_.get(), 64, text);
  std::set<std::string_view> left = {"RSA_private_encrypt", "RSA_private_decrypt", "ECDSA_sign",
                                     "BN_rand_range", "VakroPKICryptoNewHash"};
  const Hook hook{[&](const ImportCall& call) {
    if (left.erase(call.name) == 1) {
      EXPECT_EQ(DeviceUnlockDevice(nullptr), 0) << call.name;
    }
    return 0;
  }};
  for (const auto& [keypair, algorithm] : {std::pair(rsa_, 256u), {p256_, 2048u}, {sm2_, 4096u}})
    EXPECT_FALSE(Sign(keypair, algorithm, text).starts_with("result"));
  EXPECT_EQ(Decrypt(rsa_, 16, rsaCipher) + Decrypt(sm2_, 64, sm2Cipher), text + text);
  EXPECT_TRUE(left.empty());
}
