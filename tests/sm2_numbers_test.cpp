// SM2's numbers: the constants derived from the curve, the field on every path, inversion, and
// scalars mod n. OpenSSL's big numbers are the judge.
#include "tests/sm2_numbers.h"

#include "sm2/inverse.h"
#include "sm2/multiply.h"
#include "sm2/scalar_multiply.h"
#include "sm2/sm2.h"

using sm2::U256;

static BN_CTX* Context() {
  static const BnCtx context(BN_CTX_new());
  return context.get();
}

// `op` is one of OpenSSL's BN_mod_*.
template <class Op>
static U256 Expect(Op op, const U256& a, const U256& b, const sm2::Modulus& M) {
  BigNum r(BN_new());
  EXPECT_EQ(op(r.get(), ToBigNum(a).get(), ToBigNum(b).get(), ToBigNum(M.m).get(), Context()), 1);
  return ToNumber(r);
}

static void ExpectSame(const char* what, const U256& is, const U256& want, const U256& a,
                       const U256& b) {
  EXPECT_EQ(Hex(is), Hex(want)) << what << " of " << Hex(a) << " and " << Hex(b);
}

TEST(Sm2Constants, AreThoseOfTheGroup) {
  const EcGroup group(EC_GROUP_new_by_curve_name(NID_sm2));
  const BigNum p(BN_new()), a(BN_new()), b(BN_new());
  ASSERT_EQ(EC_GROUP_get_curve(group.get(), p.get(), a.get(), b.get(), Context()), 1);
  EXPECT_EQ(ToBytes(ToNumber(a)), std::to_array(SM2_CURVE.a));
  EXPECT_EQ(ToBytes(ToNumber(b)), std::to_array(SM2_CURVE.b));
  BigNum order(BN_dup(EC_GROUP_get0_order(group.get())));
  const struct {
    const sm2::Modulus& M;
    const BigNum& want;
  } cases[] = {{sm2::P, p}, {sm2::N, order}};
  for (const auto& c : cases) {
    EXPECT_EQ(Hex(c.M.m), Hex(ToNumber(c.want)));
    EXPECT_EQ(c.M.minusInverse * c.M.m.limb[0], ~uint64_t{0});
    BigNum power(BN_new());
    int bit = 0;
    for (const U256* r : {&c.M.r1, &c.M.r2, &c.M.r3}) {
      BN_zero(power.get());
      BN_set_bit(power.get(), bit += 256);
      BN_nnmod(power.get(), power.get(), c.want.get(), Context());
      EXPECT_EQ(Hex(*r), Hex(ToNumber(power)));
    }
  }
}

static std::vector<U256> BelowModulus(const sm2::Modulus& M) {
  std::vector<U256> all;
  for (const U256& a : StructuredNumbers(M.m)) {
    U256 unused;
    if (Subtract(unused, a, M.m) == 1) all.push_back(a);
  }
  return all;
}

template <class Field>
class Sm2Field : public ByPath<Field> {
 protected:
  static void Check(const U256& a, const U256& b) {
    // Multiplied by R to undo Montgomery's division by R.
    const auto timesR = [](const U256& x) { return Expect(BN_mod_mul, x, sm2::P.r1, sm2::P); };
    ExpectSame("product", timesR(Field::Multiply(a, b)), Expect(BN_mod_mul, a, b, sm2::P), a, b);
    ExpectSame("square", timesR(Field::Square(a)), Expect(BN_mod_mul, a, a, sm2::P), a, a);
    ExpectSame("sum", Field::Add(a, b), Expect(BN_mod_add, a, b, sm2::P), a, b);
    ExpectSame("difference", Field::Subtract(a, b), Expect(BN_mod_sub, a, b, sm2::P), a, b);
    const U256 half = Field::Halve(a);
    ExpectSame("half", Expect(BN_mod_add, half, half, sm2::P), a, a, a);
    U256 unused;
    for (const U256& r : {Field::Multiply(a, b), Field::Square(a), half}) {
      EXPECT_EQ(Subtract(unused, r, sm2::P.m), 1u) << Hex(r) << " is not below p";
    }
  }
};
TYPED_TEST_SUITE(Sm2Field, Paths, PathName);

TYPED_TEST(Sm2Field, AgreesOnStructuredOperands) {
  const std::vector<U256> all = BelowModulus(sm2::P);
  for (size_t i = 0; i < all.size(); i++) {
    this->Check(all[i], all[i]);
    for (size_t j = LongTests() ? 0 : i % 41; j < all.size(); j += LongTests() ? 1 : 41) {
      this->Check(all[i], all[j]);
    }
    if (this->HasFailure()) return;
  }
}

TYPED_TEST(Sm2Field, AgreesOnRandomOperands) {
  for (int i = 0; i < (LongTests() ? 200000 : 2000) && !this->HasFailure(); i++) {
    this->Check(Reduce(0, RandomNumber(), sm2::P), Reduce(0, RandomNumber(), sm2::P));
  }
}

TYPED_TEST(Sm2Field, MultipliesOneNumberThatIsNotReduced) {
  const U256 factors[] = {
      {{1, 0, 0, 0}},
      sm2::P.r2,
      {{sm2::P.m.limb[0] - 1, sm2::P.m.limb[1], sm2::P.m.limb[2], sm2::P.m.limb[3]}}};
  for (const U256& a : StructuredNumbers(sm2::P.m)) {
    for (const U256& b : factors) {
      const U256 want = TypeParam::Multiply(Reduce(0, a, sm2::P), b);
      ExpectSame("product", TypeParam::Multiply(a, b), want, a, b);
      ExpectSame("product", TypeParam::Multiply(b, a), want, a, b);
    }
  }
}

TYPED_TEST(Sm2Field, FindsEveryRow) {
  sm2::Addend addends[8];
  for (auto& a : addends) a = {RandomNumber(), RandomNumber(), RandomNumber(), RandomNumber(), {}};
  for (uint64_t i = 0; i < sm2::GENERATOR_ROWS; i++) {
    for (const auto& table : sm2::GENERATOR_TABLE) {
      const sm2::AffinePoint found = sm2::LookUp<TypeParam>(table, i);
      ASSERT_EQ(memcmp(&found, &table[i], sizeof found), 0) << i;
    }
    const sm2::Addend found = sm2::LookUp<TypeParam>(addends, i % 8);
    ASSERT_EQ(memcmp(&found, &addends[i % 8], sizeof found), 0) << i;
  }
}

TEST(Sm2Inverse, AgreesForBothModuli) {
  for (const sm2::Modulus* M : {&sm2::P, &sm2::N}) {
    std::vector<U256> all = BelowModulus(*M);
    for (int bit = 0; bit < 255; bit++) {
      U256 power{};
      power.limb[bit / 64] = uint64_t{1} << bit % 64;
      all.push_back(power);
      Subtract(power, M->m, power);
      all.push_back(power);
    }
    for (int i = 0; i < (LongTests() ? 300000 : 1000); i++)
      all.push_back(Reduce(0, RandomNumber(), *M));
    for (const U256& a : all) {
      if (MaskOfZero(a) != 0) continue;
      const BigNum want(
          BN_mod_inverse(nullptr, ToBigNum(a).get(), ToBigNum(M->m).get(), Context()));
      ASSERT_EQ(Hex(sm2::Invert(a, *M)), Hex(ToNumber(want))) << "1 / " << Hex(a);
    }
    EXPECT_EQ(Hex(sm2::Invert(U256{}, *M)), Hex(U256{}));
  }
}

static U256 Number(const SM2Scalar& a) {
  Bytes32 bytes;
  SM2WriteScalar(bytes.data(), &a);
  return sm2::LoadBigEndian(bytes.data());
}

TEST(Sm2Scalar, ReadsAnyLengthModN) {
  for (int length = 0; length <= 130; length++) {
    for (int i = 0; i < 20; i++) {
      std::vector<unsigned char> bytes(static_cast<size_t>(length));
      for (auto& byte : bytes) byte = i == 0 ? 0xff : static_cast<unsigned char>(Random()());
      // Zeros in front: a long number that is below n after all.
      for (int j = 0; i > 9 && j < length - 32; j++) bytes[static_cast<size_t>(j)] = 0;
      const BigNum value(BN_bin2bn(bytes.data(), length, nullptr)), n = ToBigNum(sm2::N.m);
      SM2Scalar a;
      EXPECT_EQ(SM2ReadScalar(&a, bytes.data(), length), BN_cmp(value.get(), n.get()) < 0);
      const BigNum want(BN_new());
      BN_nnmod(want.get(), value.get(), n.get(), Context());
      EXPECT_EQ(Hex(Number(a)), Hex(ToNumber(want))) << length;
    }
  }
}

TEST(Sm2Scalar, ReadsTheBordersOfN) {
  for (uint64_t delta = 0; delta < 3; delta++) {
    U256 value;
    Subtract(value, sm2::N.m, {{1, 0, 0, 0}});
    Add(value, value, {{delta, 0, 0, 0}});
    SM2Scalar a;
    EXPECT_EQ(SM2ReadScalar(&a, ToBytes(value).data(), 32), delta == 0);
    EXPECT_EQ(SM2IsZeroScalar(&a), delta == 1);
    EXPECT_EQ(SM2InvertScalar(&a, &a), delta != 1);
  }
}

TEST(Sm2Scalar, AgreesOnArithmetic) {
  std::vector<U256> all = BelowModulus(sm2::N);
  for (int i = 0; i < (LongTests() ? 200000 : 2000); i++)
    all.push_back(Reduce(0, RandomNumber(), sm2::N));
  for (const U256& x : all) {
    const U256& y = all[Random()() % all.size()];
    SM2Scalar a, b, r;
    EXPECT_EQ(SM2ReadScalar(&a, ToBytes(x).data(), 32), 1);
    EXPECT_EQ(SM2ReadScalar(&b, ToBytes(y).data(), 32), 1);
    SM2AddScalars(&r, &a, &b);
    ExpectSame("sum", Number(r), Expect(BN_mod_add, x, y, sm2::N), x, y);
    SM2SubtractScalars(&r, &a, &b);
    ExpectSame("difference", Number(r), Expect(BN_mod_sub, x, y, sm2::N), x, y);
    SM2MultiplyScalars(&a, &a, &b);  // a result may be an operand
    ExpectSame("product", Number(a), Expect(BN_mod_mul, x, y, sm2::N), x, y);
  }
}
