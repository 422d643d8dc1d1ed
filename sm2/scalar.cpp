// Numbers modulo the order n.
#include "sm2/scalar.h"

#include "sm2/burn.h"
#include "sm2/inverse.h"

#include <string.h>

namespace sm2 {
// Compute sets `result` to what `value` returns and clears the stack behind it.
template <class Function>
static void Compute(U256& result, const Function& value) {
  CallAndBurn<2048>([&] { result = value(); });
}

// A block of 32 bytes mod n. Sets `reduced` when it was not below n.
static U256 ReadBlock(const unsigned char* bytes, uint64_t& reduced) {
  const U256 value = LoadBigEndian(bytes);
  U256 unused;
  reduced |= ~MaskOfBit(Subtract(unused, value, N.m));
  return Reduce(0, value, N);
}

// Takes whole blocks, after what is left over in front of them.
static U256 Read(const unsigned char* bytes, int length, uint64_t& reduced) {
  const int first = length % 32;
  U256 value{};
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

bool ReadScalar(U256& a, const unsigned char* bytes, int length) {
  uint64_t reduced = 0;
  Compute(a, [&] { return Read(bytes, length, reduced); });
  return reduced == 0;
}

void WriteScalar(unsigned char (&bytes)[32], const U256& a) { StoreBigEndian(bytes, a); }

bool IsZeroScalar(const U256& a) { return MaskOfZero(a) != 0; }

void AddScalars(U256& sum, const U256& a, const U256& b) {
  Compute(sum, [&] { return ModAdd(a, b, N); });
}

void SubtractScalars(U256& difference, const U256& a, const U256& b) {
  Compute(difference, [&] { return ModSubtract(a, b, N); });
}

void MultiplyScalars(U256& product, const U256& a, const U256& b) {
  Compute(product, [&] { return MontgomeryMultiply(MontgomeryMultiply(a, b, N), N.r2, N); });
}

bool InvertScalar(U256& inverse, const U256& a) {
  Compute(inverse, [&] { return Invert(a, N); });
  return !IsZeroScalar(inverse);
}

}  // namespace sm2
