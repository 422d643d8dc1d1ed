// Signing takes no module lock, and always signs with the key that the record has.
#include "tests/support/operations.h"

#include <openssl/rsa.h>
#include <thread>

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

// However the key got there; the address of the one before may come back.
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
