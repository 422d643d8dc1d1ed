// Multiples of points on both paths; OpenSSL's EC_POINT_mul is the judge.
#include "sm2/multiply.h"
#include "sm2/sm2.h"
#include "tests/sm2_numbers.h"

#include <pthread.h>

#include <algorithm>
#include <optional>

using sm2::U256;
using Point = std::array<unsigned char, 64>;

namespace {

const EC_GROUP* Group() {
  static const EcGroup group(EC_GROUP_new_by_curve_name(NID_sm2));
  return group.get();
}

EcPoint ToEcPoint(const Point& point) {
  unsigned char raw[65] = {4};
  memcpy(raw + 1, point.data(), 64);
  EcPoint p(EC_POINT_new(Group()));
  EXPECT_EQ(EC_POINT_oct2point(Group(), p.get(), raw, sizeof raw, nullptr), 1);
  return p;
}

// [s]G + [t]P, either part NULL for none; no value for infinity.
std::optional<Point> Expected(const U256* s, const Point* point, const U256* t) {
  const EcPoint sum(EC_POINT_new(Group()));
  const BigNum sNumber = s != nullptr ? ToBigNum(*s) : nullptr;
  const BigNum tNumber = t != nullptr ? ToBigNum(*t) : nullptr;
  const EcPoint p = point != nullptr ? ToEcPoint(*point) : nullptr;
  EXPECT_EQ(EC_POINT_mul(Group(), sum.get(), sNumber.get(), p.get(), tNumber.get(), nullptr), 1);
  unsigned char raw[65];
  if (EC_POINT_point2oct(Group(), sum.get(), POINT_CONVERSION_UNCOMPRESSED, raw, sizeof raw,
                         nullptr) != sizeof raw)
    return std::nullopt;
  Point bytes;
  memcpy(bytes.data(), raw + 1, sizeof bytes);
  return bytes;
}

U256 Small(uint64_t value) { return {{value, 0, 0, 0}}; }

U256 Minus(const U256& a, const U256& b) {
  U256 r;
  Subtract(r, a, b);
  return r;
}

U256 Plus(const U256& a, const U256& b) {
  U256 r;
  Add(r, a, b);
  return r;
}

Point MultipleOfG(const U256& k) { return *Expected(&k, nullptr, nullptr); }

// Around 0 and n, single bits and runs of ones, so also at the borders of windows; patterns.
std::vector<U256> StructuredScalars() {
  std::vector<U256> all;
  for (uint64_t i = 0; i <= 40; i++) {
    all.push_back(Small(i));
    all.push_back(Minus(sm2::N.m, Small(i)));
    all.push_back(Plus(sm2::N.m, Small(i)));
    all.push_back(Minus(U256{}, Small(i + 1)));  // 2^256 - 1 and below
  }
  for (int bit = 1; bit < 256; bit += LongTests() ? 1 : 4) {
    U256 power{};
    power.limb[bit / 64] = uint64_t{1} << bit % 64;
    for (const U256& k : {power, Minus(power, Small(1)), Plus(power, Small(1)),
                          Minus(U256{}, power), Minus(sm2::N.m, power)})
      all.push_back(k);
  }
  for (uint64_t pattern : {0x5555555555555555u, 0x8102040810204081u, 0x7efdfbf7efdfbf7eu})
    all.push_back({{pattern, pattern, pattern, pattern}});
  return all;
}

template <class Field>
class Sm2Multiply : public ByPath<Field> {
 protected:
  // The results and what OpenSSL says, as text.
  static std::string Text(const std::optional<Point>& p) {
    if (!p) return "infinity";
    return Hex(sm2::LoadBigEndian(p->data())) + " " + Hex(sm2::LoadBigEndian(p->data() + 32));
  }
  static std::string Text(int result, const Point& out) {
    return Text(result == 1 ? std::optional(out) : std::nullopt);
  }
  static void CheckGenerator(const U256& k) {
    Point out;
    const int result = sm2::MultiplyGenerator<Field>(out.data(), ToBytes(k).data());
    ASSERT_EQ(Text(result, out), Text(Expected(&k, nullptr, nullptr))) << "k = " << Hex(k);
  }
  static void CheckPoint(const U256& k, const Point& p) {
    Point out = p;  // in place
    const int result = sm2::MultiplyPoint<Field>(out.data(), ToBytes(k).data(), out.data());
    ASSERT_EQ(Text(result, out), Text(Expected(nullptr, &p, &k))) << "k = " << Hex(k);
  }
  static void CheckPublic(const U256& s, const Point& p, const U256& t) {
    Point out;
    const int result =
        sm2::MultiplyPublic<Field>(out.data(), ToBytes(s).data(), p.data(), ToBytes(t).data());
    ASSERT_EQ(Text(result, out), Text(Expected(&s, &p, &t)))
        << "s = " << Hex(s) << ", t = " << Hex(t) << ", P = " << Text(p);
  }
};
TYPED_TEST_SUITE(Sm2Multiply, Paths, PathName);

}  // namespace

TYPED_TEST(Sm2Multiply, AgreesOnStructuredScalars) {
  const Point p = MultipleOfG(RandomNumber());
  for (const U256& k : StructuredScalars()) {
    ASSERT_NO_FATAL_FAILURE(this->CheckGenerator(k));
    ASSERT_NO_FATAL_FAILURE(this->CheckPoint(k, p));
    ASSERT_NO_FATAL_FAILURE(this->CheckPublic(RandomNumber(), p, k));
  }
}

TYPED_TEST(Sm2Multiply, AgreesOnRandomScalars) {
  for (int i = 0; i < (LongTests() ? 100000 : 100); i++) {
    const Point p = MultipleOfG(RandomNumber());
    ASSERT_NO_FATAL_FAILURE(this->CheckGenerator(RandomNumber()));
    ASSERT_NO_FATAL_FAILURE(this->CheckPoint(RandomNumber(), p));
    ASSERT_NO_FATAL_FAILURE(this->CheckPublic(RandomNumber(), p, RandomNumber()));
  }
}

// The points of both tables meet themselves, their opposites and infinity here.
TYPED_TEST(Sm2Multiply, AddsWhatIsEqualOppositeOrInfinite) {
  std::vector<U256> scalars;
  for (uint64_t i : {0, 1, 2, 3, 5, 6, 15, 16, 17, 32}) {
    scalars.push_back(Small(i));
    scalars.push_back(Minus(sm2::N.m, Small(i)));
  }
  scalars.push_back(RandomNumber());
  scalars.push_back(Minus(sm2::N.m, Reduce(0, scalars.back(), sm2::N)));
  for (uint64_t multiple : {1, 2, 3, 15, 16}) {
    for (const U256& j : {Small(multiple), Minus(sm2::N.m, Small(multiple))}) {
      const Point p = MultipleOfG(j);
      for (const U256& t : scalars) {
        ASSERT_NO_FATAL_FAILURE(this->CheckPoint(t, p));
        for (const U256& s : scalars) ASSERT_NO_FATAL_FAILURE(this->CheckPublic(s, p, t));
      }
    }
  }
}

TEST(Sm2Exported, SeesWhetherAPointIsOnTheCurve) {
  const Point g = MultipleOfG(Small(1));
  const auto with = [&](size_t at, const U256& coordinate) {
    Point p = g;
    StoreBigEndian(p.data() + at, coordinate);
    return p;
  };
  const U256 x = sm2::LoadBigEndian(g.data()), y = sm2::LoadBigEndian(g.data() + 32);
  // The point with the smallest x there is, whose x + p has 256 bits as well.
  const EcPoint small(EC_POINT_new(Group()));
  const BigNum smallX(BN_new());
  for (BN_ULONG i = 0;; i++) {
    BN_set_word(smallX.get(), i);
    if (EC_POINT_set_compressed_coordinates(Group(), small.get(), smallX.get(), 0, nullptr) == 1)
      break;
  }
  unsigned char raw[65];
  EC_POINT_point2oct(Group(), small.get(), POINT_CONVERSION_UNCOMPRESSED, raw, 65, nullptr);
  Point low, high;
  memcpy(low.data(), raw + 1, 64);
  high = low;
  StoreBigEndian(high.data(), Plus(ToNumber(smallX), sm2::P.m));
  const struct {
    const char* what;
    Point point;
    int want;
  } cases[] = {
      {"G", g, 1},
      {"-G", with(32, Minus(sm2::P.m, y)), 1},
      {"x off by one", with(0, Plus(x, Small(1))), 0},
      {"y off by one", with(32, Plus(y, Small(1))), 0},
      {"(0, 0)", Point{}, 0},
      {"a small x", low, 1},
      {"the same x and p", high, 0},
      {"y = p", with(32, sm2::P.m), 0},
  };
  for (const auto& c : cases) EXPECT_EQ(SM2IsOnCurve(c.point.data()), c.want) << c.what;
}

TEST(Sm2Exported, ExportsThePath) {
  const Point p = MultipleOfG(Small(7));
  const U256 k = RandomNumber(), t = RandomNumber();
  const Bytes32 kBytes = ToBytes(k), tBytes = ToBytes(t), zero = ToBytes(sm2::N.m);
  Point out;
  EXPECT_EQ(SM2MultiplyGenerator(out.data(), kBytes.data()), 1);
  EXPECT_EQ(out, *Expected(&k, nullptr, nullptr));
  EXPECT_EQ(SM2MultiplyPoint(out.data(), kBytes.data(), p.data()), 1);
  EXPECT_EQ(out, *Expected(nullptr, &p, &k));
  EXPECT_EQ(SM2MultiplyPublic(out.data(), kBytes.data(), p.data(), tBytes.data()), 1);
  EXPECT_EQ(out, *Expected(&k, &p, &t));
  EXPECT_EQ(SM2MultiplyGenerator(out.data(), zero.data()), 0);
  EXPECT_EQ(out, Point{}) << "infinity is written as zeros";
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)

namespace {

Bytes32 g_k;
Point g_point, g_out;
SM2Scalar g_a, g_result;

template <class Field>
void MultiplyG() {
  sm2::MultiplyGenerator<Field>(g_out.data(), g_k.data());
}
template <class Field>
void MultiplyP() {
  sm2::MultiplyPoint<Field>(g_out.data(), g_k.data(), g_point.data());
}
void ReadScalar() { SM2ReadScalar(&g_result, g_k.data(), 32); }
void AddScalars() { SM2AddScalars(&g_result, &g_a, &g_a); }
void MultiplyScalars() { SM2MultiplyScalars(&g_result, &g_a, &g_a); }
void InvertScalar() { SM2InvertScalar(&g_result, &g_a); }

// A thread with a stack that can be looked at afterwards.
struct Stack {
  static constexpr size_t SIZE = 1 << 18;
  unsigned char* memory = nullptr;
  void (*work)() = nullptr;
  size_t used = 0;  // from the lower end up to the frame that called `work`
};

void* Run(void* argument) {
  Stack& stack = *static_cast<Stack*>(argument);
  stack.work();
  unsigned char here;
  stack.used = static_cast<size_t>(&here - stack.memory) - 256;
  return nullptr;
}

// What `work` leaves below its caller when it works on `secret`.
std::vector<unsigned char> LeftOnStack(void (*work)(), const U256& secret) {
  alignas(4096) static unsigned char memory[Stack::SIZE];
  memset(memory, 0xa5, sizeof memory);
  g_k = ToBytes(secret);
  SM2ReadScalar(&g_a, g_k.data(), 32);
  Stack stack{memory, work};
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setstack(&attributes, memory, sizeof memory);
  pthread_t thread;
  EXPECT_EQ(pthread_create(&thread, &attributes, Run, &stack), 0);
  pthread_join(thread, nullptr);
  pthread_attr_destroy(&attributes);
  return {memory, memory + stack.used};
}

}  // namespace

// What is left on the stack may not depend on the secret: then nothing of it is there.
TEST(Sm2Exported, LeavesNothingOnTheStack) {
  const struct {
    const char* what;
    void (*work)();
  } cases[] = {
      {"[k]G, portable", MultiplyG<sm2::PortableField>},
      {"[k]P, portable", MultiplyP<sm2::PortableField>},
#ifdef __x86_64__
      {"[k]G, ADX", sm2::UseAdx() ? MultiplyG<sm2::AdxField> : nullptr},
      {"[k]P, ADX", sm2::UseAdx() ? MultiplyP<sm2::AdxField> : nullptr},
#endif
      {"reading", ReadScalar},
      {"sum", AddScalars},
      {"product", MultiplyScalars},
      {"inverse", InvertScalar},
  };
  g_point = MultipleOfG(Small(7));
  for (const auto& c : cases) {
    if (c.work == nullptr) continue;
    LeftOnStack(c.work, Small(1));  // the first call may settle things for good
    const std::vector<unsigned char> some = LeftOnStack(c.work, RandomNumber());
    const std::vector<unsigned char> other = LeftOnStack(c.work, RandomNumber());
    size_t differences = 0;
    for (size_t i = 0; i < some.size(); i++) differences += some[i] != other[i];
    const auto touched = std::find_if(some.begin(), some.end(), [](int b) { return b != 0xa5; });
    EXPECT_EQ(differences, 0u) << c.what << " used " << some.end() - touched << " bytes";
    EXPECT_LT(touched - some.begin(), static_cast<long>(some.size())) << c.what << " left no trace";
  }
}
#endif
