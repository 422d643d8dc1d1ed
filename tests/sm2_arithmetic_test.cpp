// SM2's arithmetic, with the portable field operations and those for x86-64: numbers, judged by
// OpenSSL's BIGNUM, and multiples of points, judged by its EC_POINT_mul. VAKRO_LONG_TESTS=1 in the
// environment takes many more operands.
#include "core/openssl_owners.h"
#include "sm2/field.h"
#include "sm2/field_x86.h"
#include "sm2/inverse.h"
#include "sm2/multiply.h"
#include "sm2/multiply_paths.h"
#include "sm2/scalar.h"
#include "tests/support/device_file.h"

#include <gtest/gtest.h>

#include <array>
#include <random>

using namespace sm2;

namespace {

using Point = std::array<unsigned char, 64>;

const bool LONG = getenv("VAKRO_LONG_TESTS") != nullptr;

std::mt19937_64 g_random(20240607);
U256 RandomNumber() { return {{g_random(), g_random(), g_random(), g_random()}}; }

U256 Minus(const U256& a, const U256& b) {
  U256 r;
  Subtract(r, a, b);
  return r;
}
// Also those below 0, mod 2^256.
U256 Small(int value) {
  const U256 size = {{static_cast<uint64_t>(abs(value)), 0, 0, 0}};
  return value < 0 ? Minus({}, size) : size;
}

std::string ToBytes(const U256& a) {
  unsigned char bytes[32];
  StoreBigEndian(bytes, a);
  return {bytes, bytes + 32};
}
std::string Text(const U256& a) { return Hex(ToBytes(a)); }
BigNum ToBigNum(const U256& a) { return BigNum(BN_bin2bn(Raw(ToBytes(a)), 32, nullptr)); }

// Around 0 and m; single bits and runs of ones, so also at the borders of windows; and numbers that
// make carries run at every limb: each limb at one of its ends or at the modulus's.
std::vector<U256> StructuredNumbers(const U256& m) {
  std::vector<U256> all;
  for (int i = -40; i <= 40; i++) all.insert(all.end(), {Small(i), Minus(m, Small(i))});
  for (int bit = 1; bit < 256; bit++) {
    U256 power{};
    power.limb[bit / 64] = uint64_t{1} << bit % 64;
    all.insert(all.end(), {power, Minus(power, Small(1)), Minus(power, Small(-1)), Minus({}, power),
                           Minus(m, power)});
  }
  const auto limb = [&](int i, int choice) {
    const uint64_t choices[] = {0, 1, ~uint64_t{0}, m.limb[i], m.limb[i] - 1, m.limb[i] + 1};
    return choices[choice % 6];
  };
  for (int i = 0; i < 6 * 6 * 6 * 6; i++)
    all.push_back({{limb(0, i), limb(1, i / 6), limb(2, i / 36), limb(3, i / 216)}});
  return all;
}

// Gives `work` an object of each type of field operations that runs here.
template <class Work>
void OnEachPath(const Work& work) {
  work(PortableField{});
#ifdef __x86_64__
  if (UseAdx()) work(AdxField{});
#endif
}

// --- Numbers -------------------------------------------------------------------------------------

using Judge = int (*)(BIGNUM*, const BIGNUM*, const BIGNUM*, const BIGNUM*, BN_CTX*);

// What OpenSSL says of a and b, as text.
std::string Judged(Judge judge, const U256& a, const U256& b, const Modulus& M) {
  static const BnCtx ctx(BN_CTX_new());
  const BigNum r(BN_new());
  judge(r.get(), ToBigNum(a).get(), ToBigNum(b).get(), ToBigNum(M.m).get(), ctx.get());
  unsigned char bytes[32];
  BN_bn2binpad(r.get(), bytes, 32);
  return Text(LoadBigEndian(bytes));
}

// Products are Montgomery's: one with R^2 undoes the division by R. One factor may be any number.
template <class F>
void CheckField(F /*field*/, const U256& any, const U256& b) {
  const U256 a = Reduce(0, any, P), product = F::Multiply(any, b), half = F::Halve(a);
  ASSERT_EQ(Text(F::Multiply(product, P.r2)), Judged(BN_mod_mul, any, b, P));
  ASSERT_EQ(Text(Reduce(0, product, P)), Text(product)) << "not below p";
  ASSERT_EQ(Text(F::Multiply(b, any)), Text(product));
  ASSERT_EQ(Text(F::Square(a)), Text(F::Multiply(a, a)));
  ASSERT_EQ(Text(F::Add(a, b)), Judged(BN_mod_add, a, b, P));
  ASSERT_EQ(Text(F::Subtract(a, b)), Judged(BN_mod_sub, a, b, P));
  ASSERT_EQ(Text(Reduce(0, half, P)), Text(half)) << "not below p";
  ASSERT_EQ(Judged(BN_mod_add, half, half, P), Text(a));
}

// A result may be an operand.
void CheckScalars(const U256& a, const U256& b) {
  const auto result = [&](auto compute) {
    U256 x = a;
    compute(x, x, b);
    return Text(x);
  };
  ASSERT_EQ(result(AddScalars), Judged(BN_mod_add, a, b, N));
  ASSERT_EQ(result(SubtractScalars), Judged(BN_mod_sub, a, b, N));
  ASSERT_EQ(result(MultiplyScalars), Judged(BN_mod_mul, a, b, N));
}

}  // namespace

TEST(Sm2Numbers, AgreeWithOpenssl) {
  const size_t step = LONG ? 29 : 401;
  const auto check = [](const U256& a, const U256& b) {
    SCOPED_TRACE(Text(a) + ", " + Text(b));
    OnEachPath([&](auto field) { CheckField(field, a, Reduce(0, b, P)); });
    CheckScalars(Reduce(0, a, N), Reduce(0, b, N));
  };
  for (const Modulus* M : {&P, &N}) {
    const std::vector<U256> all = StructuredNumbers(M->m);
    for (size_t i = 0; i < all.size() && !HasFailure(); i++) {
      for (size_t j = i % step; j < all.size(); j += step) check(all[i], all[j]);
      const U256 a = Reduce(0, all[i], *M), inverse = Invert(a, *M);
      const int want = Text(a) == Text(Small(0)) ? 0 : 1;
      EXPECT_EQ(Judged(BN_mod_mul, a, inverse, *M), Text(Small(want))) << "inverse of " << Text(a);
    }
  }
  for (int i = 0; i < (LONG ? 200000 : 2000) && !HasFailure(); i++)
    check(RandomNumber(), RandomNumber());
}

// --- Points --------------------------------------------------------------------------------------

namespace {

const EC_GROUP* Group() {
  static const EcGroup group(EC_GROUP_new_by_curve_name(NID_sm2));
  return group.get();
}

// [s]G + [t]P by OpenSSL; without a point, [s]G.
EcPoint Sum(const U256& s, const EC_POINT* point, const U256& t) {
  EcPoint sum(EC_POINT_new(Group()));
  EC_POINT_mul(Group(), sum.get(), ToBigNum(s).get(), point, ToBigNum(t).get(), nullptr);
  return sum;
}
EcPoint Multiple(const U256& s) { return Sum(s, nullptr, {}); }

// The coordinates, zeros for infinity.
Point Coordinates(const EcPoint& p) {
  unsigned char raw[65] = {};
  EC_POINT_point2oct(Group(), p.get(), POINT_CONVERSION_UNCOMPRESSED, raw, sizeof(raw), nullptr);
  Point point;
  std::copy(raw + 1, std::end(raw), point.begin());
  return point;
}

// Checks [s]G, [t]P, written in the place of P, and [s]G + [t]P.
void CheckMultiples(const U256& s, const EcPoint& p, const U256& t) {
  SCOPED_TRACE("s = " + Text(s) + ", t = " + Text(t));
  const EcPoint sG = Multiple(s), tP = Sum({}, p.get(), t), sum = Sum(s, p.get(), t);
  const std::string sBytes = ToBytes(s), tBytes = ToBytes(t);
  OnEachPath([&](auto field) {
    using F = decltype(field);
    const Point point = Coordinates(p);
    Point out = point;
    const auto expect = [&](const EcPoint& want, int result) {
      ASSERT_EQ(out, Coordinates(want));
      ASSERT_NE(result, EC_POINT_is_at_infinity(Group(), want.get()));
    };
    expect(tP, MultiplyPoint<F>(out.data(), Raw(tBytes), out.data()));
    expect(sG, MultiplyGenerator<F>(out.data(), Raw(sBytes)));
    expect(sum, MultiplyPublic<F>(out.data(), Raw(sBytes), point.data(), Raw(tBytes)));
  });
}

}  // namespace

TEST(Sm2Points, MultiplesAgreeWithOpenssl) {
  const EcPoint p = Multiple(RandomNumber());
  const std::vector<U256> all = StructuredNumbers(N.m);
  for (size_t i = 0; i < all.size() && !HasFailure(); i += LONG || i < 170 ? 1 : 7)
    CheckMultiples(all[i], p, all[(i + 1) % all.size()]);
  for (int i = 0; i < (LONG ? 100000 : 200) && !HasFailure(); i++)
    CheckMultiples(RandomNumber(), Multiple(RandomNumber()), RandomNumber());
}

// The points of both tables meet themselves, their opposites and infinity here.
TEST(Sm2Points, SumsOfWhatIsEqualOppositeOrInfinite) {
  const U256 k = Reduce(0, RandomNumber(), N);
  std::vector<U256> scalars = {k, Minus(N.m, k)};
  for (const int i : {0, 1, 2, 3, 6, 15, 16, 32})
    scalars.insert(scalars.end(), {Small(i), Minus(N.m, Small(i))});
  for (const U256& j : {Small(1), Small(2), Small(16), Minus(N.m, Small(1))})
    for (const U256& s : scalars)
      for (const U256& t : scalars) CheckMultiples(s, Multiple(j), t);
}
