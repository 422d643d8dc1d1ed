// Encryption with public keys and decryption with private ones: what the calls answer.
#include "keypair/keypair.h"
#include "tests/support/answers.h"

#include <limits.h>

class EncryptionTest : public AnswersTest {
 protected:
  int EncryptTo(PublicKey* key, unsigned int algorithm, const unsigned char* text, int length) {
    return DevicePublicKeyEncrypt(key, algorithm, nullptr, text, length, out_, 600, &n_);
  }
  int DecryptTo(Keypair* keypair, unsigned int algorithm, const unsigned char* secret, int length) {
    return DevicePrivateKeyDecrypt(keypair, algorithm, nullptr, secret, length, out_, 600, &n_);
  }
  // The size alone.
  int EncryptNowhere(PublicKey* key, unsigned int id, const unsigned char* text, int length) {
    return DevicePublicKeyEncrypt(key, id, nullptr, text, length, nullptr, 0, &n_);
  }
  int DecryptNowhere(Keypair* keypair, unsigned int id, const unsigned char* secret, int length) {
    return DevicePrivateKeyDecrypt(keypair, id, nullptr, secret, length, nullptr, 0, &n_);
  }
  std::string EncryptAll(int needed, PublicKey* key, unsigned int algorithm,
                         std::string_view text) {
    return Output(needed, [&](auto... out) {
      return DevicePublicKeyEncrypt(key, algorithm, nullptr, Raw(text), Len(text), out...);
    });
  }

  const std::string text_ = std::string(32, 'e');
  const std::string block_ = '\0' + std::string(255, 'b'), ones_ = std::string(256, '\xff');
};

TEST_F(EncryptionTest, WithRsa) {
  PublicKey* const key = rsaPublic_.get();
  EXPECT_REFUSED(0, EncryptTo(nullptr, 16, Raw(text_), 32));
  EXPECT_EQ(Decrypt(rsa_, 16, EncryptAll(256, key, 16, text_)), text_);
  const std::string raw = EncryptAll(256, key, 48, block_);
  EXPECT_EQ(Hex(raw.substr(0, 16)), "14fe6a45598ce729d97350d2842ef356");  // openssl's, too
  EXPECT_EQ(Decrypt(rsa_, 48, raw), block_);
  const std::string longest = ones_.substr(11);
  EXPECT_EQ(Decrypt(rsa_, 16, Encrypt(key, 16, longest)), longest);
  EXPECT_DONE(EncryptTo(key, 16, nullptr, 0));
  const std::string empty = Bytes(out_, n_);
  EXPECT_DONE(DecryptTo(rsa_, 16, Raw(empty), 256));
  EXPECT_EQ(n_, 0);
  EXPECT_EQ(out_[0], '.');

  EXPECT_REFUSED_AND_TOLD(0, 256, EncryptTo(key, 16, nullptr, 32));
  EXPECT_REFUSED_AND_TOLD(0, 256, EncryptTo(key, 16, Raw(text_), -1));
  EXPECT_REFUSED_AND_TOLD(0, 256, EncryptTo(key, 16, Raw(block_), 246));
  EXPECT_REFUSED_AND_TOLD(0, 256, EncryptTo(key, 48, Raw(block_), 255));
  EXPECT_REFUSED_AND_TOLD(0, 256, EncryptTo(key, 48, Raw(ones_), 256));
}

// The size that is told is that of the modulus; a buffer need only have room for the text.
TEST_F(EncryptionTest, AndBackWithRsa) {
  const std::string made = ReadVector("keys.txt", "rsa2048_cipher");
  const unsigned char* const secret = Raw(made);
  const auto decrypt = [&](unsigned char* out, int size, int* length) {
    return DevicePrivateKeyDecrypt(rsa_, 16, nullptr, secret, 256, out, size, length);
  };
  EXPECT_REFUSED(-2, DecryptTo(nullptr, 16, secret, 256));
  EXPECT_REFUSED(-8, DecryptTo(closed_->keypairs[1], 999, secret, 256));
  EXPECT_DONE(decrypt(nullptr, 0, &n_));
  EXPECT_EQ(n_, 256);
  EXPECT_DONE(decrypt(out_, 32, &n_));
  EXPECT_EQ(Bytes(out_, n_ + 1), text_ + '.');
  for (const int size : {31, -1}) EXPECT_REFUSED_AND_TOLD(-4, 32, decrypt(out_, size, &n_));
  EXPECT_REFUSED(0, decrypt(nullptr, 0, nullptr));
  EXPECT_DONE(DecryptNowhere(rsa_, 256, secret, 256));
  EXPECT_EQ(n_, 256) << "before the algorithm is looked at";
  EXPECT_REFUSED(0, DecryptTo(rsa_, 256, secret, 256));
  EXPECT_REFUSED(0, DecryptNowhere(rsa_, 16, secret, 255));
  EXPECT_REFUSED(0, DecryptNowhere(rsa_, 16, secret, 257));
  EXPECT_REFUSED(0, DecryptTo(rsa_, 16, nullptr, 256));
  EXPECT_REFUSED(0, DecryptTo(rsa_, 16, Raw(block_), 256));
  EXPECT_EQ(Bytes(out_, 256), std::string(256, '.')) << "part of a text that is none";
}

TEST_F(EncryptionTest, WithSm2) {
  PublicKey* const key = sm2Public_.get();
  const PublicHandle unknown(DeviceGetPublicKeyFromKeypair(closed_->keypairs[2]));
  const std::string made = EncryptAll(129, key, 64, text_);
  EXPECT_REFUSED(0, EncryptTo(unknown.get(), 64, Raw(text_), 32));  // its curve is not known
  EXPECT_REFUSED(0, EncryptNowhere(key, 64, nullptr, 32));
  for (const int length : {0, -1, INT_MAX})
    EXPECT_REFUSED(0, EncryptNowhere(key, 64, Raw(text_), length));
  EXPECT_REFUSED(0, EncryptNowhere(p256Public_.get(), 64, Raw(text_), 32));

  EXPECT_EQ(Output(32,
                   [&](auto... out) {
                     return DevicePrivateKeyDecrypt(sm2_, 64, nullptr, Raw(made), 129, out...);
                   }),
            text_);
  EXPECT_REFUSED_AND_TOLD(0, 31, DecryptTo(sm2_, 64, Raw(made), 128));
  EXPECT_EQ(Bytes(out_, 32), std::string(31, '\0').append(".")) << "wiped";
  EXPECT_REFUSED(0, DecryptNowhere(sm2_, 64, Raw(made), 97));
  EXPECT_REFUSED(0, DecryptNowhere(sm2_, 64, nullptr, 129));
}

// Every algorithm with every key: what belongs to another kind of key, or to none, is refused.
TEST_F(EncryptionTest, AKeyHasItsAlgorithms) {
  const std::string made = Encrypt(sm2Public_.get(), 64, text_);
  for (const unsigned int algorithm : ALGORITHMS) {
    SCOPED_TRACE(algorithm);
    EXPECT_REFUSED(0, EncryptTo(p256Public_.get(), algorithm, Raw(text_), 32));
    EXPECT_REFUSED(0, DecryptTo(p256_, algorithm, Raw(made), 129));
    if (algorithm != 16 && algorithm != 48) {
      EXPECT_REFUSED(0, EncryptTo(rsaPublic_.get(), algorithm, Raw(text_), 32));
    }
    if (algorithm != 64) {
      EXPECT_REFUSED(0, EncryptTo(sm2Public_.get(), algorithm, Raw(text_), 32));
      EXPECT_REFUSED(0, DecryptTo(sm2_, algorithm, Raw(made), 129));
    }
  }
}
