// SM2 at the edges of its inputs: empty digests, scalars longer than the order, keys in part.
#include "sm2/sm2.h"
#include "tests/support/world.h"

namespace {

class Sm2InputsTest : public ModuleTest {
 protected:
  std::string Sign(const unsigned char* e, int eLen) const {
    unsigned char* signature = nullptr;
    int length = 0;
    if (SM2Sign(key_.get(), e, eLen, &signature, &length) != 1) return "";
    const LibBytes owned(signature);
    return Bytes(signature, length);
  }
  int Verify(const unsigned char* e, int eLen, const std::string& signature) const {
    return SM2Verify(key_.get(), e, eLen, Raw(signature), Len(signature));
  }
  EC_KEY* Ec() const { return const_cast<EC_KEY*>(EVP_PKEY_get0_EC_KEY(key_.get())); }

  int curve_ = 0;
  EvpKey key_{DecodeECCPair(Raw(TestSm2().pair), Len(TestSm2().pair), &curve_)};
  const std::string zeros_ = std::string(32, '\0'), e_ = std::string(32, 'e');
};

}  // namespace

TEST_F(Sm2InputsTest, AnEmptyDigestIsTheNumberZero) {
  const unsigned char* const none = nullptr;
  for (const unsigned char* empty : {none, Raw(e_)}) {
    EXPECT_EQ(Verify(Raw(zeros_), 32, Sign(empty, 0)), 1);
    EXPECT_EQ(Verify(empty, 0, Sign(Raw(zeros_), 32)), 1);
    EXPECT_EQ(Verify(empty, 0, Sign(Raw(e_), 32)), 0);
  }
  EXPECT_EQ(Sign(none, 1), "");
  EXPECT_EQ(Sign(Raw(e_), -1), "");
  EXPECT_EQ(Verify(none, 1, Sign(none, 0)), 0);
}

TEST_F(Sm2InputsTest, APrivateScalarCountsModuloTheOrder) {
  const BigNum d(BN_dup(EC_KEY_get0_private_key(Ec())));
  unsigned char secret[1 + SM2_CIPHER_OVERHEAD], text[1];
  ASSERT_EQ(SM2Encrypt(key_.get(), Raw(e_), 1, secret), 1);
  for (const int shift : {0, 8, 256}) {  // of 32 or 33, of 33 or 34, and of 64 bytes
    SCOPED_TRACE(shift);
    const BigNum longer(BN_new());
    BN_lshift(longer.get(), g_sm2->order, shift);
    BN_add(longer.get(), longer.get(), d.get());
    ASSERT_EQ(EC_KEY_set_private_key(Ec(), longer.get()), 1);
    EXPECT_EQ(Verify(Raw(e_), 32, Sign(Raw(e_), 32)), 1);
    text[0] = 0;
    EXPECT_EQ(SM2Decrypt(key_.get(), secret, sizeof(secret), text), 1);
    EXPECT_EQ(text[0], 'e');
  }
}

TEST_F(Sm2InputsTest, WithoutAPublicPointNothingIsDecoded) {
  const std::string signature = Sign(Raw(e_), 32);
  const EcKey bare(EC_KEY_new());
  EC_KEY_set_group(bare.get(), g_sm2->group);
  key_.reset(EVP_PKEY_new());
  EVP_PKEY_set1_EC_KEY(key_.get(), bare.get());
  Fault decoding = {"VakroPKICryptoDecodeECCSignature", 0};
  const Hook hook{std::ref(decoding)};
  EXPECT_EQ(Verify(Raw(e_), 32, signature), 0);
  EXPECT_EQ(decoding.calls, 0);
}
