// What key operations do beyond their answers: curves, lengths, work without the lock, and the
// signing factor that a record keeps.
#include "tests/support/operations.h"
#include "sm2/sm2.h"

#include <set>
#include <thread>

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

// --- Locks, and the key of the record ---

namespace {

class SigningLockTest : public OperationsTest {
 protected:
  // A key of another keypair, whose own handle is gone.
  EvpKey NewKey(PublicHandle& publicKey) {
    const ECCKeypairParams sm2 = {CURVE_SM2, 1};
    const KeypairHandle made = Generate(device_.get(), ALGORITHM_ECC, 256, &sm2);
    publicKey.reset(DeviceGetPublicKeyFromKeypair(made.get()));
    EVP_PKEY_up_ref(made->privateKey);
    return EvpKey(made->privateKey);
  }
  std::string SignSm2() { return Sign(sm2_, ALGORITHM_SM2_SIGN, message_); }

  const std::string message_ = std::string(32, 'm');
};

}  // namespace

// Threads that use private keys don't wait for each other: signing takes no module lock,
TEST_F(SigningLockTest, DoesNotWaitForTheModuleLock) {
  ASSERT_EQ(DeviceLockDevice(nullptr), 1);
  std::thread([&] {  // it would wait for good
    EXPECT_EQ(Sign(rsa_, ALGORITHM_RSA_PKCS1_SIGN, message_).size(), 256U);
    EXPECT_FALSE(Sign(p256_, ALGORITHM_ECDSA_SIGN, message_).starts_with("result"));
    EXPECT_FALSE(SignSm2().starts_with("result"));
  })
      .join();
  ASSERT_EQ(DeviceUnlockDevice(nullptr), 1);
}

// and decryption holds none while it computes.
TEST_F(SigningLockTest, IsFreeWhileADecryptionComputes) {
  const std::string rsaCipher = Encrypt(rsaPublic_.get(), 16, message_),
                    sm2Cipher = Encrypt(sm2Public_.get(), 64, message_);
  std::set<std::string_view> left = {"RSA_private_decrypt", "VakroPKICryptoNewHash"};
  const Hook hook{[&](const ImportCall& call) {
    if (left.erase(call.name) == 1) {
      EXPECT_EQ(DeviceUnlockDevice(nullptr), 0) << call.name;
    }
    return 0;
  }};
  EXPECT_EQ(Decrypt(rsa_, 16, rsaCipher) + Decrypt(sm2_, 64, sm2Cipher), message_ + message_);
  EXPECT_TRUE(left.empty());
}

// Signatures are by the key of the record, however it got there; the address of the one before may
// come back.
TEST_F(SigningLockTest, IsWithTheKeyOfTheRecord) {
  for (int i = 0; i < 8; i++) {
    EXPECT_EQ(Verify(sm2Public_.get(), ALGORITHM_SM2_SIGN, message_, SignSm2()), i == 0);
    PublicHandle publicKey;
    EvpKey other = NewKey(publicKey);
    switch (i % 3) {
      case 0:
        SetPrivateKey(sm2_, other.release(), CURVE_SM2);
        break;
      case 1:  // past the module
        EVP_PKEY_free(sm2_->privateKey);
        sm2_->privateKey = other.release();
        break;
      default:  // the same object, another scalar
        EC_KEY_set_private_key(const_cast<EC_KEY*>(EVP_PKEY_get0_EC_KEY(sm2_->privateKey)),
                               EC_KEY_get0_private_key(EVP_PKEY_get0_EC_KEY(other.get())));
    }
    for (int again = 0; again < 2; again++)
      EXPECT_EQ(Verify(publicKey.get(), ALGORITHM_SM2_SIGN, message_, SignSm2()), 1) << i;
  }
}

TEST_F(SigningLockTest, TheFactorIsMadeOnceAndGoesWithItsKey) {
  const auto isKept = [&] { return Bytes(sm2_->signingFactor.inverse, 32) != std::string(32, 0); };
  EXPECT_FALSE(isKept());
  SignSm2();
  EXPECT_TRUE(isKept());
  PublicHandle publicKey;
  SetPrivateKey(sm2_, NewKey(publicKey).release(), CURVE_SM2);
  EXPECT_FALSE(isKept());
  EXPECT_EQ(Bytes(sm2_->signingFactor.scalar, 32), std::string(32, 0));
}
