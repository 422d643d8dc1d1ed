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

// An operation on numbers below the modulus.
struct Operation {
  std::string what;
  const sm2::Modulus& M;
  U256 (*is)(const U256& a, const U256& b);
  Judge judge;
  bool any = false;  // a may be any number
};

int Square(BIGNUM* r, const BIGNUM* a, const BIGNUM*, const BIGNUM* m, BN_CTX* ctx) {
  return BN_mod_sqr(r, a, m, ctx);
}
int Same(BIGNUM* r, const BIGNUM* a, const BIGNUM*, const BIGNUM*, BN_CTX*) {
  return BN_copy(r, a) != nullptr;
}
int Inverse(BIGNUM* r, const BIGNUM* a, const BIGNUM*, const BIGNUM* m, BN_CTX* ctx) {
  return BN_is_zero(a) ? BN_zero(r), 1 : BN_mod_inverse(r, a, m, ctx) != nullptr;
}

U256 Checked(const U256& r) {
  EXPECT_EQ(Text(Reduce(0, r, sm2::P)), Text(r)) << "not below p";
  return r;
}

// Products are Montgomery's: one with R^2 undoes the division by R.
template <class F>
void AddField(std::vector<Operation>* all, const std::string& path) {
  using sm2::P;
  for (const Operation& operation : std::initializer_list<Operation>{
           {"product", P,
            [](auto&a, auto&b) { return F::Multiply(Checked(F::Multiply(a, b)), P.r2); },
            BN_mod_mul, true},
           {"product turned round", P,
            [](auto&a, auto&b) { return F::Multiply(P.r2, F::Multiply(b, a)); }, BN_mod_mul, true},
           {"square", P, [](auto&a, auto&) { return F::Multiply(Checked(F::Square(a)), P.r2); },
            Square},
           {"sum", P, [](auto&a, auto&b) { return F::Add(a, b); }, BN_mod_add},
           {"difference", P, [](auto&a, auto&b) { return F::Subtract(a, b); }, BN_mod_sub},
           {"twice the half", P,
            [](auto&a, auto&) { return sm2::ModAdd(Checked(F::Halve(a)), F::Halve(a), P); },
            Same}}) {
    all->push_back(operation);
    all->back().what += path;
  }
}

// A result may be an operand.
template <auto Compute>
U256 OnScalars(const U256& a, const U256& b) {
  SM2Scalar x, y;
  EXPECT_EQ(SM2ReadScalar(&x, ToBytes(a).data(), 32) & SM2ReadScalar(&y, ToBytes(b).data(), 32), 1);
  Compute(&x, &x, &y);
  Bytes32 bytes;
  SM2WriteScalar(bytes.data(), &x);
  return sm2::LoadBigEndian(bytes.data());
}

void InvertScalar(SM2Scalar* r, const SM2Scalar* a, const SM2Scalar*) {
  const int want = !SM2IsZeroScalar(a);
  EXPECT_EQ(SM2InvertScalar(r, a), want);
}

std::vector<Operation> Operations() {
  using sm2::N, sm2::P;
  std::vector<Operation> all = {
      {"sum of scalars", N, OnScalars<SM2AddScalars>, BN_mod_add},
      {"difference of scalars", N, OnScalars<SM2SubtractScalars>, BN_mod_sub},
      {"product of scalars", N, OnScalars<SM2MultiplyScalars>, BN_mod_mul},
      {"inverse of a scalar", N, OnScalars<InvertScalar>, Inverse},
      {"inverse", P, [](auto& a, auto&) { return sm2::Invert(a, P); }, Inverse}};
  AddField<sm2::PortableField>(&all, ", portable");
#ifdef __x86_64__
  if (sm2::UseAdx()) AddField<sm2::AdxField>(&all, ", ADX");
#endif
  return all;
}

}  // namespace

TEST(Sm2Numbers, AgreeWithOpenssl) {
  const size_t step = g_long ? 29 : 401;
  const BnCtx ctx(BN_CTX_new());
  const BigNum r(BN_new());
  for (const Operation& op : Operations()) {
    SCOPED_TRACE(op.what);
    const auto check = [&](const U256& any, const U256& b) {
      const U256 a = op.any ? any : Reduce(0, any, op.M), below = Reduce(0, b, op.M);
      ASSERT_EQ(op.judge(r.get(), ToBigNum(a).get(), ToBigNum(below).get(), ToBigNum(op.M.m).get(),
                         ctx.get()),
                1);
      ASSERT_EQ(Text(op.is(a, below)), Text(ToNumber(r.get()))) << Text(a) << ", " << Text(below);
    };
    const std::vector<U256> all = StructuredNumbers(op.M.m);
    for (size_t i = 0; i < all.size() && !HasFailure(); i++)
      for (size_t j = i % step; j < all.size(); j += step) check(all[i], all[j]);
    for (int i = 0; i < (g_long ? 200000 : 2000) && !HasFailure(); i++)
      check(RandomNumber(), RandomNumber());
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
  for (int length = 0; length <= 130; length++) {
    unsigned char bytes[130];
    for (const int zeros : {0, 1, length - 32, length}) {
      for (int i = 0; i < length; i++)
        bytes[i] = i < zeros ? 0 : static_cast<unsigned char>(g_random());
      check(bytes, length);
    }
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
  for (size_t i = 0; i < 64; i++)
    EXPECT_EQ(SM2IsOnCurve(Raw(Flipped(Unhex(g), i))), 0) << "byte " << i;
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)

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
