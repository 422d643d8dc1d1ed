// SM2 keys are made by EC_KEY_generate_key with the module's own multiplication: the scalar is from
// the range of the standard, the point is the one that OpenSSL finds, and the key that comes out is
// an ordinary one.
#include "sm2/sm2.h"
#include "tests/support/world.h"

namespace {

using Sm2GenerationTest = ModuleTest;

KeypairHandle MakeSm2() {
  Keypair* made = nullptr;
  EXPECT_EQ(GenerateTempECCKeypair(CURVE_SM2, 256, 1, &made), 1);
  return KeypairHandle(made);
}

const EC_KEY* KeyOf(const KeypairHandle& keypair) {
  return EVP_PKEY_get0_EC_KEY(keypair->privateKey);
}

std::string OrderLess(unsigned int less) {
  const BigNum number(BN_dup(g_sm2->order));
  BN_sub_word(number.get(), less);
  unsigned char bytes[32];
  BN_bn2binpad(number.get(), bytes, sizeof(bytes));
  return Bytes(bytes, sizeof(bytes));
}

}  // namespace

TEST_F(Sm2GenerationTest, TheScalarIsFrom1ToNLess2AndThePointBelongsToIt) {
  const std::string zero(32, '\0'), one = zero.substr(1) + '\1';
  for (const auto& [drawn, want] : {std::pair(one, one),
                                    {zero + one, one},
                                    {OrderLess(2), OrderLess(2)},
                                    {OrderLess(1) + OrderLess(0) + OrderLess(2), OrderLess(2)}}) {
    SCOPED_TRACE(Hex(drawn));
    FixRandom(drawn);
    const KeypairHandle made = MakeSm2();
    const BIGNUM* d = EC_KEY_get0_private_key(KeyOf(made));
    EXPECT_EQ(BN_cmp(d, BigNum(BN_bin2bn(Raw(want), 32, nullptr)).get()), 0);
    const EcPoint point(EC_POINT_new(g_sm2->group));
    EC_POINT_mul(g_sm2->group, point.get(), d, nullptr, nullptr, nullptr);
    EXPECT_EQ(EC_POINT_cmp(g_sm2->group, point.get(), EC_KEY_get0_public_key(KeyOf(made)), nullptr),
              0);
    EXPECT_EQ(EC_KEY_check_key(KeyOf(made)), 1);
  }
}

// Nothing of the module is called through a key that outlives it.
TEST_F(Sm2GenerationTest, TheKeyHasOpensslsMethod) {
  EXPECT_EQ(EC_KEY_get_method(KeyOf(MakeSm2())), EC_KEY_OpenSSL());
}
