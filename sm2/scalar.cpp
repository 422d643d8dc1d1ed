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

// A block of 32 bytes mod n. Sets `reduced` when it was not below n.
static sm2::U256 ReadBlock(const unsigned char* bytes, uint64_t& reduced) {
  const sm2::U256 value = sm2::LoadBigEndian(bytes);
  sm2::U256 unused;
  reduced |= ~sm2::MaskOfBit(Subtract(unused, value, sm2::N.m));
  return Reduce(0, value, sm2::N);
}

// Takes whole blocks, after what is left over in front of them.
static sm2::U256 Read(const unsigned char* bytes, int length, uint64_t& reduced) {
  using sm2::N;
  const int first = length % 32;
  sm2::U256 value{};
  if (first > 0) {
    unsigned char block[32] = {};
    memcpy(block + 32 - first, bytes, static_cast<size_t>(first));
    value = ReadBlock(block, reduced);
  }
  for (int at = first; at < length; at += 32) {
    reduced |= ~MaskOfZero(value);
    if (at > 0) value = MontgomeryMultiply(value, N.r2, N);  // value 2^256
    value = ModAdd(value, ReadBlock(bytes + at, reduced), N);
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
