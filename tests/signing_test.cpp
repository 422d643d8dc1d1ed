// Signatures: what DeviceSign and DeviceVerify answer, key by key and algorithm by algorithm.
#include "keypair/keypair.h"
#include "tests/support/answers.h"

class SigningTest : public AnswersTest {
 protected:
  int SignWith(Keypair* keypair, unsigned int algorithm, const unsigned char* data, int dataLen) {
    return DeviceSign(keypair, algorithm, nullptr, data, dataLen, out_, 600, &n_);
  }
  // What a signature of an RSA key is, as `openssl` makes it, too.
  std::string Output256(unsigned int algorithm, std::string_view data) {
    return Output(256, [&](auto... out) {
      return DeviceSign(rsa_, algorithm, nullptr, Raw(data), Len(data), out...);
    });
  }
  static int VerifyBytes(PublicKey* key, unsigned int algorithm, const unsigned char* data,
                         int dataLen, const unsigned char* signature, int signatureLen) {
    return DeviceVerify(key, algorithm, nullptr, data, dataLen, signature, signatureLen);
  }

  const std::string digest_ = std::string(32, 'e');
  const std::string block_ = '\0' + std::string(255, 'b'), ones_ = std::string(256, '\xff');
};

TEST_F(SigningTest, OfRsa) {
  EXPECT_REFUSED(-2, SignWith(nullptr, 256, Raw(digest_), 32));
  EXPECT_REFUSED(-8, SignWith(closed_->keypairs[1], 999, Raw(digest_), 32));
  const struct {
    unsigned int algorithm;
    std::string data, want;
  } rows[] = {{256, digest_, "c91953278c74c1933c2b4d9794b00477"},
              {256, block_.substr(0, 245), "759d1dba91df1b73cbbb449373d09771"},
              {768, block_, "13df313d48fb9138fb6b99015382f8bb"}};
  for (const auto& [algorithm, data, want] : rows) {
    const std::string signature = Output256(algorithm, data);
    EXPECT_EQ(Hex(signature.substr(0, 16)), want);
    EXPECT_EQ(Verify(rsaPublic_.get(), algorithm, data, signature), 1);
    EXPECT_REFUSED(0, Verify(rsaPublic_.get(), algorithm, data.substr(1), signature));
    EXPECT_REFUSED(0, Verify(rsaPublic_.get(), algorithm, data + 'e', signature));
    EXPECT_REFUSED(0, Verify(rsaPublic_.get(), 256 ^ 768 ^ algorithm, data, signature));
  }
  // Data that does not fit is refused behind the question for the size.
  EXPECT_REFUSED_AND_TOLD(0, 256, SignWith(rsa_, 256, nullptr, 32));
  EXPECT_REFUSED_AND_TOLD(0, 256, SignWith(rsa_, 256, Raw(digest_), -1));
  EXPECT_REFUSED_AND_TOLD(0, 256, SignWith(rsa_, 256, Raw(block_), 246));
  EXPECT_REFUSED_AND_TOLD(0, 256, SignWith(rsa_, 768, Raw(block_), 255));
  EXPECT_REFUSED_AND_TOLD(0, 256, SignWith(rsa_, 768, Raw(ones_), 256));
}

TEST_F(SigningTest, OfNothing) {
  EXPECT_DONE(SignWith(rsa_, 256, nullptr, 0));
  const std::string signature = Bytes(out_, n_);
  EXPECT_EQ(VerifyBytes(rsaPublic_.get(), 256, nullptr, 0, Raw(signature), 256), 1);
  const std::string other = Sign(rsa_, 256, digest_);
  EXPECT_EQ(VerifyBytes(rsaPublic_.get(), 256, nullptr, 0, Raw(other), 256), 0);
  EXPECT_EQ(VerifyBytes(rsaPublic_.get(), 256, nullptr, 32, Raw(other), 256), 0);
  EXPECT_DONE(SignWith(p256_, 2048, nullptr, 0));
}

// The length of a signature on a curve is known when it has been made.
TEST_F(SigningTest, OfEllipticCurves) {
  EXPECT_DONE(DeviceSign(p256_, 2048, nullptr, Raw(digest_), 32, nullptr, 0, &n_));
  EXPECT_EQ(n_, 72);
  EXPECT_REFUSED(0, DeviceSign(p256_, 2048, nullptr, Raw(digest_), 32, out_, 600, nullptr));
  EXPECT_REFUSED(0, SignWith(p256_, 2048, nullptr, 32));
  EXPECT_DONE(DeviceSign(sm2_, 4096, nullptr, Raw(digest_), 32, nullptr, 0, &n_));
  EXPECT_EQ(n_, 80);
  for (const int length : {31, 33}) {
    const std::string data(static_cast<size_t>(length), 'e');
    EXPECT_REFUSED(0, DeviceSign(sm2_, 4096, nullptr, Raw(data), length, nullptr, 0, &n_));
  }
  EXPECT_REFUSED(0, SignWith(sm2_, 4096, nullptr, 32));
}

TEST_F(SigningTest, VerificationOfSm2NeedsAllThatItIsMadeOf) {
  const std::string signature = Sign(sm2_, 4096, digest_);
  const unsigned char* const digest = Raw(digest_);
  const unsigned char* const s = Raw(signature);
  const int length = Len(signature);
  // The curve of this one isn't known, since no PIN has opened its keypair.
  const PublicHandle unknown(DeviceGetPublicKeyFromKeypair(closed_->keypairs[2]));
  PublicKey* const key = sm2Public_.get();
  EXPECT_EQ(VerifyBytes(key, 4096, digest, 32, s, length), 1);
  EXPECT_REFUSED(0, VerifyBytes(nullptr, 4096, digest, 32, s, length));
  EXPECT_REFUSED(0, VerifyBytes(unknown.get(), 4096, digest, 32, s, length));
  EXPECT_REFUSED(0, VerifyBytes(key, 4096, nullptr, 32, s, length));
  EXPECT_REFUSED(0, VerifyBytes(key, 4096, digest, 31, s, length));
  EXPECT_REFUSED(0, VerifyBytes(key, 4096, digest, -1, s, length));
  EXPECT_REFUSED(0, VerifyBytes(key, 4096, digest, 32, nullptr, length));
  EXPECT_REFUSED(0, VerifyBytes(key, 4096, digest, 32, s, -1));
  EXPECT_REFUSED(0, VerifyBytes(p256Public_.get(), 4096, digest, 32, s, length));
  EXPECT_REFUSED(0, VerifyBytes(rsaPublic_.get(), 4096, digest, 32, s, length));
}

// Every algorithm with every key: what belongs to another kind of key, or to none, is refused.
TEST_F(SigningTest, AKeyHasItsAlgorithms) {
  const struct {
    Keypair* keypair;
    PublicKey* key;
    std::vector<unsigned int> algorithms;
  } rows[] = {{rsa_, rsaPublic_.get(), {256, 768}},
              {p256_, p256Public_.get(), {2048}},
              {sm2_, sm2Public_.get(), {4096, 2048}}};
  for (const auto& row : rows) {
    const std::string signature = Sign(row.keypair, row.algorithms[0], digest_);
    EXPECT_REFUSED(0, Verify(row.key, row.algorithms[0], digest_, ones_));
    for (const unsigned int algorithm : ALGORITHMS) {
      SCOPED_TRACE(algorithm);
      const auto& own = row.algorithms;
      if (std::find(own.begin(), own.end(), algorithm) == own.end()) {
        EXPECT_REFUSED(0, SignWith(row.keypair, algorithm, Raw(digest_), 32));
      }
      EXPECT_EQ(Verify(row.key, algorithm, digest_, signature), algorithm == own[0]);
    }
  }
}
