// SM2's arithmetic, with the portable field operations and those for x86-64: numbers, judged by
// OpenSSL's BIGNUM, and multiples of points, judged by its EC_POINT_mul. VAKRO_LONG_TESTS=1 in the
// environment takes many more operands.
#include "device/owners.h"
#include "sm2/field_x86.h"
#include "sm2/inverse.h"
#include "sm2/multiply.h"
#include "sm2/multiply_paths.h"
#include "tests/support/device_file.h"

#include <gtest/gtest.h>

#include <pthread.h>
#include <array>
#include <functional>
#include <random>

using sm2::U256;
using Bytes32 = std::array<unsigned char, 32>;
using Point = std::array<unsigned char, 64>;

static const bool g_long = getenv("VAKRO_LONG_TESTS") != nullptr;

static std::mt19937_64 g_random(20240607);
static U256 RandomNumber() { return {{g_random(), g_random(), g_random(), g_random()}}; }

static U256 Small(uint64_t value) { return {{value, 0, 0, 0}}; }
static U256 Plus(const U256& a, const U256& b) {
  U256 r;
  Add(r, a, b);
  return r;
}
static U256 Minus(const U256& a, const U256& b) {
  U256 r;
  Subtract(r, a, b);
  return r;
}

static Bytes32 ToBytes(const U256& a) {
  Bytes32 bytes;
  StoreBigEndian(bytes.data(), a);
  return bytes;
}
static BigNum ToBigNum(const U256& a) { return BigNum(BN_bin2bn(ToBytes(a).data(), 32, nullptr)); }
static U256 ToNumber(const BIGNUM* a) {
  Bytes32 bytes;
  EXPECT_EQ(BN_bn2binpad(a, bytes.data(), 32), 32);
  return sm2::LoadBigEndian(bytes.data());
}
template <size_t N>
static std::string Text(const std::array<unsigned char, N>& bytes) {
  return Hex({reinterpret_cast<const char*>(bytes.data()), N});
}
static std::string Text(const U256& a) { return Text(ToBytes(a)); }

// Around 0 and m; single bits and runs of ones, so also at the borders of windows; and numbers that
// make carries run at every limb: each limb at one of its ends or at the modulus's.
static std::vector<U256> StructuredNumbers(const U256& m) {
  std::vector<U256> all;
  for (uint64_t i = 0; i <= 40; i++)
    for (const U256& base : {U256{}, m}) {
      all.push_back(Plus(base, Small(i)));
      all.push_back(Minus(base, Small(i + 1)));
    }
  for (int bit = 1; bit < 256; bit++) {
    U256 power{};
    power.limb[bit / 64] = uint64_t{1} << bit % 64;
    for (const U256& number : {power, Minus(power, Small(1)), Plus(power, Small(1)),
                               Minus(U256{}, power), Minus(m, power)})
      all.push_back(number);
  }
  const auto limb = [&](int i, int choice) {
    const uint64_t choices[] = {0, 1, ~uint64_t{0}, m.limb[i], m.limb[i] - 1, m.limb[i] + 1};
    return choices[choice % 6];
  };
  for (int i = 0; i < 6 * 6 * 6 * 6; i++)
    all.push_back({{limb(0, i), limb(1, i / 6), limb(2, i / 36), limb(3, i / 216)}});
  return all;
}

// --- Numbers -------------------------------------------------------------------------------------

namespace {

using Judge = int (*)(BIGNUM*, const BIGNUM*, const BIGNUM*, const BIGNUM*, BN_CTX*);

// What OpenSSL says of a and b, as text.
std::string Judged(Judge judge, const U256& a, const U256& b, const sm2::Modulus& M) {
  static const BnCtx ctx(BN_CTX_new());
  const BigNum r(BN_new());
  EXPECT_EQ(judge(r.get(), ToBigNum(a).get(), ToBigNum(b).get(), ToBigNum(M.m).get(), ctx.get()),
            1);
  return Text(ToNumber(r.get()));
}

// Products are Montgomery's: one with R^2 undoes the division by R. One factor may be any number.
template <class F>
void CheckField(const U256& any, const U256& b) {
  using sm2::P;
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
  SM2Scalar x, y;
  SM2ReadScalar(&y, ToBytes(b).data(), 32);
  const auto result = [&](auto compute) {
    EXPECT_EQ(SM2ReadScalar(&x, ToBytes(a).data(), 32), 1);
    compute(&x, &x, &y);
    Bytes32 bytes;
    SM2WriteScalar(bytes.data(), &x);
    return Text(bytes);
  };
  ASSERT_EQ(result(SM2AddScalars), Judged(BN_mod_add, a, b, sm2::N));
  ASSERT_EQ(result(SM2SubtractScalars), Judged(BN_mod_sub, a, b, sm2::N));
  ASSERT_EQ(result(SM2MultiplyScalars), Judged(BN_mod_mul, a, b, sm2::N));
}

}  // namespace

TEST(Sm2Numbers, AgreeWithOpenssl) {
  const size_t step = g_long ? 29 : 401;
  const auto check = [](const U256& a, const U256& b) {
    SCOPED_TRACE(Text(a) + ", " + Text(b));
    CheckField<sm2::PortableField>(a, Reduce(0, b, sm2::P));
#ifdef __x86_64__
    if (sm2::UseAdx()) CheckField<sm2::AdxField>(a, Reduce(0, b, sm2::P));
#endif
    CheckScalars(Reduce(0, a, sm2::N), Reduce(0, b, sm2::N));
  };
  for (const auto& m : {sm2::P.m, sm2::N.m}) {
    const std::vector<U256> all = StructuredNumbers(m);
    for (size_t i = 0; i < all.size() && !HasFailure(); i++)
      for (size_t j = i % step; j < all.size(); j += step) check(all[i], all[j]);
  }
  for (int i = 0; i < (g_long ? 200000 : 2000) && !HasFailure(); i++)
    check(RandomNumber(), RandomNumber());
}

TEST(Sm2Numbers, AnInverseTimesItsNumberIsOne) {
  for (const sm2::Modulus* M : {&sm2::P, &sm2::N})
    for (const U256& any : StructuredNumbers(M->m)) {
      const U256 a = Reduce(0, any, *M);
      const U256 want = Small(Text(a) == Text(U256{}) ? 0 : 1);
      ASSERT_EQ(Judged(BN_mod_mul, a, sm2::Invert(a, *M), *M), Text(want)) << Text(a);
    }
}

TEST(Sm2Numbers, ScalarsAreReadModN) {
  const BnCtx ctx(BN_CTX_new());
  const BigNum n = ToBigNum(sm2::N.m), r(BN_new());
  const auto check = [&](const unsigned char* bytes, int length) {
    const BigNum value(BN_bin2bn(bytes, length, nullptr));
    SM2Scalar a;
    EXPECT_EQ(SM2ReadScalar(&a, bytes, length), BN_cmp(value.get(), n.get()) < 0) << length;
    BN_nnmod(r.get(), value.get(), n.get(), ctx.get());
    Bytes32 written;
    SM2WriteScalar(written.data(), &a);
    EXPECT_EQ(Text(written), Text(ToNumber(r.get()))) << length;
  };
  for (const U256& a : StructuredNumbers(sm2::N.m)) check(ToBytes(a).data(), 32);
  for (const int zeros : {0, 1, 64, 130}) {
    unsigned char bytes[130] = {};
    std::generate(bytes + zeros, bytes + 130,
                  [] { return static_cast<unsigned char>(g_random()); });
    for (int length = 0; length <= 130; length++) check(bytes, length);
  }
}

// --- Points --------------------------------------------------------------------------------------

namespace {

struct Path {
  std::string what;
  int (*generator)(unsigned char*, const unsigned char*);
  int (*point)(unsigned char*, const unsigned char*, const unsigned char*);
  int (*sum)(unsigned char*, const unsigned char*, const unsigned char*, const unsigned char*);
};

template <class Field>
Path MakePath(const char* what) {
  return {what, sm2::MultiplyGenerator<Field>, sm2::MultiplyPoint<Field>,
          sm2::MultiplyPublic<Field>};
}

const std::vector<Path> PATHS = {
#ifdef __x86_64__
    sm2::UseAdx() ? MakePath<sm2::AdxField>("ADX") : MakePath<sm2::PortableField>("no ADX"),
#endif
    MakePath<sm2::PortableField>("portable"),
    {"exported", SM2MultiplyGenerator, SM2MultiplyPoint, SM2MultiplyPublic}};

const EC_GROUP* Group() {
  static const EcGroup group(EC_GROUP_new_by_curve_name(NID_sm2));
  return group.get();
}

EcPoint Multiple(const U256& k, const EC_POINT* point = EC_GROUP_get0_generator(Group())) {
  EcPoint p(EC_POINT_new(Group()));
  EXPECT_EQ(EC_POINT_mul(Group(), p.get(), nullptr, point, ToBigNum(k).get(), nullptr), 1);
  return p;
}

// Zeros for infinity.
Point Coordinates(const EcPoint& p) {
  std::array<unsigned char, 65> raw = {};
  EC_POINT_point2oct(Group(), p.get(), POINT_CONVERSION_UNCOMPRESSED, raw.data(), 65, nullptr);
  Point point;
  std::copy(raw.begin() + 1, raw.end(), point.begin());
  return point;
}

// Checks [s]G, [t]P, written in the place of P, and [s]G + [t]P.
void CheckMultiples(const U256& s, const EcPoint& point, const U256& t) {
  const Point p = Coordinates(point);
  SCOPED_TRACE("s = " + Text(s) + ", t = " + Text(t) + ", P = " + Text(p));
  const EcPoint sG = Multiple(s), tP = Multiple(t, point.get()), sum(EC_POINT_new(Group()));
  EC_POINT_add(Group(), sum.get(), sG.get(), tP.get(), nullptr);
  const Bytes32 sBytes = ToBytes(s), tBytes = ToBytes(t);
  for (const Path& path : PATHS) {
    Point out;
    const auto expect = [&](int result, const EcPoint& want) {
      ASSERT_EQ(Text(out), Text(Coordinates(want))) << path.what;
      ASSERT_NE(result, EC_POINT_is_at_infinity(Group(), want.get())) << path.what;
    };
    expect(path.generator(out.data(), sBytes.data()), sG);
    expect(path.sum(out.data(), sBytes.data(), p.data(), tBytes.data()), sum);
    out = p;
    expect(path.point(out.data(), tBytes.data(), out.data()), tP);
  }
}

}  // namespace

TEST(Sm2Points, MultiplesAgreeWithOpenssl) {
  const EcPoint p = Multiple(RandomNumber());
  const std::vector<U256> all = StructuredNumbers(sm2::N.m);
  for (size_t i = 0; i < all.size() && !HasFailure(); i += g_long || i < 170 ? 1 : 7)
    CheckMultiples(all[i], p, all[(i + 1) % all.size()]);
  for (int i = 0; i < (g_long ? 100000 : 200) && !HasFailure(); i++)
    CheckMultiples(RandomNumber(), Multiple(RandomNumber()), RandomNumber());
}

// The points of both tables meet themselves, their opposites and infinity here.
TEST(Sm2Points, SumsOfWhatIsEqualOppositeOrInfinite) {
  const U256 k = Reduce(0, RandomNumber(), sm2::N);
  std::vector<U256> scalars = {k, Minus(sm2::N.m, k)};
  for (const unsigned int i : {0u, 1u, 2u, 3u, 6u, 15u, 16u, 32u}) {
    scalars.push_back(Small(i));
    scalars.push_back(Minus(sm2::N.m, Small(i)));
  }
  for (const U256& j : {Small(1), Small(2), Small(16), Minus(sm2::N.m, Small(1))})
    for (const U256& s : scalars)
      for (const U256& t : scalars) CheckMultiples(s, Multiple(j), t);
}

TEST(Sm2Points, AreOnTheCurveOrNot) {
  const std::string g = Text(Coordinates(Multiple(Small(1)))), zero(64, '0'), p = Text(sm2::P.m);
  const std::string minusG = Text(Coordinates(Multiple(Minus(sm2::N.m, Small(1)))));
  const std::string rootOfB = "fd4511e81736a60f07e88a83d6cf5a167fae6d1a9c9330e76e232e00f5cdc154";
  for (const auto& [point, want] : {std::pair{g, 1},
                                    {minusG, 1},
                                    {zero + rootOfB, 1},
                                    {p + rootOfB, 0},
                                    {zero + zero, 0},
                                    {g.substr(0, 64) + p, 0},
                                    {g.substr(64) + g.substr(0, 64), 0}})
    EXPECT_EQ(SM2IsOnCurve(Raw(Unhex(point))), want) << point;
}

// Unoptimised code and the sanitizers keep copies of their own.
#if defined(__OPTIMIZE__) && !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)

// What `work` leaves on the stack of a thread, which was full of marks, below its own frame.
static std::string LeftOnStack(const std::function<void()>& work) {
  alignas(4096) static unsigned char memory[1 << 18];
  static const std::function<void()>* run;
  static long used;
  memset(memory, 0xa5, sizeof memory);
  run = &work;
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setstack(&attributes, memory, sizeof memory);
  const auto start = [](void*) -> void* {
    (*run)();
    unsigned char here;
    used = &here - memory - 256;
    return nullptr;
  };
  pthread_t thread;
  EXPECT_EQ(pthread_create(&thread, &attributes, start, nullptr), 0);
  pthread_join(thread, nullptr);
  pthread_attr_destroy(&attributes);
  return {memory, memory + used};
}

// What is left on the stack may not depend on the secret: then nothing of it is there.
TEST(Sm2Points, LeaveNothingOnTheStack) {
  static Bytes32 k;
  static Point point, out;
  static SM2Scalar a, r;
  point = Coordinates(Multiple(Small(7)));
  std::map<std::string, std::function<void()>> works = {
      {"reading", [] { SM2ReadScalar(&r, k.data(), 32); }},
      {"sum", [] { SM2AddScalars(&r, &a, &a); }},
      {"product", [] { SM2MultiplyScalars(&r, &a, &a); }},
      {"inverse", [] { SM2InvertScalar(&r, &a); }}};
  for (const Path& path : PATHS) {
    works[path.what + " [k]G"] = [&] { path.generator(out.data(), k.data()); };
    works[path.what + " [k]P"] = [&] { path.point(out.data(), k.data(), point.data()); };
  }
  for (const auto& [what, work] : works) {
    std::string left[3];
    for (std::string& stack : left) {
      k = ToBytes(RandomNumber());
      SM2ReadScalar(&a, k.data(), 32);
      stack = LeftOnStack(work);
    }
    EXPECT_TRUE(left[1] == left[2]) << what;  // the first call may settle things for good
    EXPECT_NE(left[1].find_first_not_of('\xa5'), std::string::npos) << what << " left no trace";
  }
}
#endif
