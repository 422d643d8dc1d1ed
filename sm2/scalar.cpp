// Numbers modulo the order n.
#include "sm2/burn.h"
#include "sm2/inverse.h"
#include "sm2/multiply.h"

#include <string.h>

static sm2::U256 Value(const SM2Scalar* a) {
  return {{a->limb[0], a->limb[1], a->limb[2], a->limb[3]}};
}

static void Set(SM2Scalar* a, const sm2::U256& value) {
  memcpy(a->limb, value.limb, sizeof a->limb);
}

// Compute sets `result` to what `value` returns and clears the stack behind it.
template <class Function>
static void Compute(SM2Scalar* result, const Function& value) {
  sm2::CallAndBurn<2048>([&] { Set(result, value()); });
}

// Takes whole blocks of 32 bytes, after what is left over in front of them.
static sm2::U256 Read(const unsigned char* bytes, int length, uint64_t& reduced) {
  using sm2::N;
  sm2::U256 value{}, unused;
  for (int at = 0; at < length;) {
    const int size = (length - at) % 32 == 0 ? 32 : (length - at) % 32;
    unsigned char block[32] = {};
    memcpy(block + 32 - size, bytes + at, static_cast<size_t>(size));
    const sm2::U256 low = sm2::LoadBigEndian(block);
    reduced |= ~MaskOfZero(value) | ~sm2::MaskOfBit(Subtract(unused, low, N.m));
    value = ModAdd(MontgomeryMultiply(value, N.r2, N), Reduce(0, low, N), N);  // value 2^256 + low
    at += size;
  }
  return value;
}

int SM2ReadScalar(SM2Scalar* a, const unsigned char* bytes, int length) {
  uint64_t reduced = 0;
  Compute(a, [&] { return Read(bytes, length, reduced); });
  return reduced == 0;
}

void SM2WriteScalar(unsigned char bytes[32], const SM2Scalar* a) {
  sm2::StoreBigEndian(bytes, Value(a));
}

int SM2IsZeroScalar(const SM2Scalar* a) { return MaskOfZero(Value(a)) != 0; }

void SM2AddScalars(SM2Scalar* sum, const SM2Scalar* a, const SM2Scalar* b) {
  Compute(sum, [&] { return ModAdd(Value(a), Value(b), sm2::N); });
}

void SM2SubtractScalars(SM2Scalar* difference, const SM2Scalar* a, const SM2Scalar* b) {
  Compute(difference, [&] { return ModSubtract(Value(a), Value(b), sm2::N); });
}

void SM2MultiplyScalars(SM2Scalar* product, const SM2Scalar* a, const SM2Scalar* b) {
  using sm2::N;
  Compute(product,
          [&] { return MontgomeryMultiply(MontgomeryMultiply(Value(a), Value(b), N), N.r2, N); });
}

int SM2InvertScalar(SM2Scalar* inverse, const SM2Scalar* a) {
  Compute(inverse, [&] { return sm2::Invert(Value(a), sm2::N); });
  return !SM2IsZeroScalar(inverse);
}
