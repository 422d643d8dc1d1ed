// Points in and out as bytes, and the choice between the two types of field operations.
#include "sm2/multiply.h"

#include "sm2/burn.h"
#include "sm2/field_x86.h"
#include "sm2/multiply_paths.h"
#include "sm2/scalar_multiply.h"

#include <atomic>

#ifdef __x86_64__
#include <cpuid.h>
#endif

namespace sm2 {
static constexpr size_t STACK_USED = 8192;  // at most, by a multiplication

static U256 LoadScalar(const unsigned char* bytes) { return Reduce(0, LoadBigEndian(bytes), N); }

template <class Field>
static AffinePoint LoadPoint(const unsigned char* bytes) {
  return {Field::Multiply(LoadBigEndian(bytes), P.r2),
          Field::Multiply(LoadBigEndian(bytes + 32), P.r2)};
}

template <class Field>
static int StorePoint(unsigned char* out, const XyzzPoint& p) {
  const FieldElement one = {{1, 0, 0, 0}};
  const AffinePoint affine = ToAffine<Field>(p);
  StoreBigEndian(out, Field::Multiply(affine.x, one));
  StoreBigEndian(out + 32, Field::Multiply(affine.y, one));
  return MaskOfZero(p.zz) == 0;
}

#ifdef __x86_64__
// BMI2, ADX and AVX2, and a system that keeps the AVX registers.
static bool HasAdx() {
  unsigned a, b, c, d;
  constexpr unsigned OSXSAVE = 1u << 27, AVX2 = 1u << 5, BMI2 = 1u << 8, ADX = 1u << 19;
  if (!__get_cpuid(1, &a, &b, &c, &d) || (c & OSXSAVE) == 0) return false;
  if (!__get_cpuid_count(7, 0, &a, &b, &c, &d)) return false;
  unsigned enabled, high;
  __asm__("xgetbv" : "=a"(enabled), "=d"(high) : "c"(0));
  return (b & AVX2) != 0 && (b & BMI2) != 0 && (b & ADX) != 0 && (enabled & 6) == 6;
}

// CPUID is slow, under a hypervisor above all: asked once. Two threads may both ask.
bool UseAdx() {
  static std::atomic<int> answer{-1};
  int known = answer.load(std::memory_order_relaxed);
  if (known < 0) {
    known = HasAdx();
    answer.store(known, std::memory_order_relaxed);
  }
  return known != 0;
}
#else
bool UseAdx() { return false; }
#endif

template <class Field>
int MultiplyGenerator(unsigned char* out, const unsigned char* k) {
  int result = 0;
  CallAndBurn<STACK_USED>(
      [&] { result = StorePoint<Field>(out, GeneratorMultiple<Field>(LoadScalar(k))); });
  return result;
}

template <class Field>
int MultiplyPoint(unsigned char* out, const unsigned char* k, const unsigned char* point) {
  int result = 0;
  CallAndBurn<STACK_USED>([&] {
    const JacobianPoint p = PointMultiple<Field>(LoadScalar(k), LoadPoint<Field>(point));
    result = StorePoint<Field>(out, ToXyzz<Field>(p));
  });
  return result;
}

template <class Field>
int MultiplyPublic(unsigned char* out, const unsigned char* s, const unsigned char* point,
                   const unsigned char* t) {
  JacobianPoint sum = PublicPointMultiple<Field>(LoadScalar(t), LoadPoint<Field>(point));
  const JacobianPoint sG = ToJacobian<Field>(GeneratorMultiple<Field>(LoadScalar(s)));
  AddPublic<Field>(sum, ToAddend<Field>(sG));
  return StorePoint<Field>(out, ToXyzz<Field>(sum));
}

template int MultiplyGenerator<PortableField>(unsigned char*, const unsigned char*);
template int MultiplyPoint<PortableField>(unsigned char*, const unsigned char*,
                                          const unsigned char*);
template int MultiplyPublic<PortableField>(unsigned char*, const unsigned char*,
                                           const unsigned char*, const unsigned char*);
#ifdef __x86_64__
template int MultiplyGenerator<AdxField>(unsigned char*, const unsigned char*);
template int MultiplyPoint<AdxField>(unsigned char*, const unsigned char*, const unsigned char*);
template int MultiplyPublic<AdxField>(unsigned char*, const unsigned char*, const unsigned char*,
                                      const unsigned char*);
#endif

}  // namespace sm2

// OnBestPath calls `work` with the fastest field operations that the processor has.
template <class Work>
static int OnBestPath(const Work& work) {
#ifdef __x86_64__
  if (sm2::UseAdx()) return work(sm2::AdxField{});
#endif
  return work(sm2::PortableField{});
}

int SM2MultiplyGenerator(unsigned char out[64], const unsigned char k[32]) {
  return OnBestPath([&](auto field) { return sm2::MultiplyGenerator<decltype(field)>(out, k); });
}

int SM2MultiplyPoint(unsigned char out[64], const unsigned char k[32],
                     const unsigned char point[64]) {
  return OnBestPath([&](auto field) { return sm2::MultiplyPoint<decltype(field)>(out, k, point); });
}

int SM2MultiplyPublic(unsigned char out[64], const unsigned char s[32],
                      const unsigned char point[64], const unsigned char t[32]) {
  return OnBestPath(
      [&](auto field) { return sm2::MultiplyPublic<decltype(field)>(out, s, point, t); });
}

int SM2IsOnCurve(const unsigned char point[64]) {
  using sm2::P;
  using F = sm2::PortableField;
  const sm2::U256 x = sm2::LoadBigEndian(point), y = sm2::LoadBigEndian(point + 32);
  sm2::U256 unused;
  if (Subtract(unused, x, P.m) == 0 || Subtract(unused, y, P.m) == 0) return 0;
  const sm2::FieldElement mx = F::Multiply(x, P.r2), my = F::Multiply(y, P.r2);
  const sm2::FieldElement a = F::Multiply(sm2::LoadBigEndian(SM2_CURVE.a), P.r2);
  const sm2::FieldElement b = F::Multiply(sm2::LoadBigEndian(SM2_CURVE.b), P.r2);
  const sm2::FieldElement right = F::Add(F::Multiply(F::Add(F::Square(mx), a), mx), b);
  return sm2::MaskOfZero(F::Subtract(F::Square(my), right)) != 0;
}
