// Integers of 256 bits in four limbs, and the masks that constant-time code selects with. Knows
// nothing of any modulus.
#ifndef VAKRO_SM2_LIMBS_H
#define VAKRO_SM2_LIMBS_H

#include <stdint.h>
#include <type_traits>

namespace sm2 {

__extension__ typedef unsigned __int128 uint128;
__extension__ typedef __int128 int128;

struct U256 {
  uint64_t limb[4];  // least significant first
};

// Opaque hides a value's origin from the compiler, which otherwise knows that a mask is all ones
// or all zeros and may turn a masked selection into a branch.
constexpr uint64_t Opaque(uint64_t value) {
  if (!std::is_constant_evaluated()) __asm__("" : "+r"(value));
  return value;
}

// Masks: all ones for yes, zero for no.
constexpr uint64_t MaskOfBit(uint64_t bit) { return Opaque(uint64_t{0} - bit); }
constexpr uint64_t MaskOfZero(uint64_t value) {
  return MaskOfBit(((value | (uint64_t{0} - value)) >> 63) ^ 1);
}
constexpr uint64_t MaskOfZero(const U256& a) {
  return MaskOfZero(a.limb[0] | a.limb[1] | a.limb[2] | a.limb[3]);
}
constexpr uint64_t MaskOfEqual(uint64_t a, uint64_t b) { return MaskOfZero(a ^ b); }

constexpr uint64_t Low(uint128 value) { return static_cast<uint64_t>(value); }
constexpr uint64_t High(uint128 value) { return static_cast<uint64_t>(value >> 64); }

// Add and Subtract hand out the carry or borrow, 0 or 1; `r` may be an operand.
constexpr uint64_t Add(U256& r, const U256& a, const U256& b) {
  uint64_t carry = 0;
  for (int i = 0; i < 4; i++) {
    const uint128 sum = uint128{a.limb[i]} + b.limb[i] + carry;
    r.limb[i] = Low(sum);
    carry = High(sum);
  }
  return carry;
}

constexpr uint64_t Subtract(U256& r, const U256& a, const U256& b) {
  uint64_t borrow = 0;
  for (int i = 0; i < 4; i++) {
    const uint128 difference = uint128{a.limb[i]} - b.limb[i] - borrow;
    r.limb[i] = Low(difference);
    borrow = High(difference) & 1;
  }
  return borrow;
}

constexpr U256 And(const U256& a, uint64_t mask) {
  return {{a.limb[0] & mask, a.limb[1] & mask, a.limb[2] & mask, a.limb[3] & mask}};
}

constexpr uint64_t Select(uint64_t mask, uint64_t a, uint64_t b) { return b ^ (mask & (a ^ b)); }

// Select returns `a` under a mask of ones, `b` under zero.
constexpr U256 Select(uint64_t mask, const U256& a, const U256& b) {
  return {{Select(mask, a.limb[0], b.limb[0]), Select(mask, a.limb[1], b.limb[1]),
           Select(mask, a.limb[2], b.limb[2]), Select(mask, a.limb[3], b.limb[3])}};
}

// These two are written out, so that compilers see one access and a swap of bytes.
constexpr uint64_t LoadLimb(const unsigned char* b) {
  return uint64_t{b[0]} << 56 | uint64_t{b[1]} << 48 | uint64_t{b[2]} << 40 | uint64_t{b[3]} << 32 |
         uint64_t{b[4]} << 24 | uint64_t{b[5]} << 16 | uint64_t{b[6]} << 8 | uint64_t{b[7]};
}

constexpr U256 LoadBigEndian(const unsigned char* bytes) {
  return {{LoadLimb(bytes + 24), LoadLimb(bytes + 16), LoadLimb(bytes + 8), LoadLimb(bytes)}};
}

constexpr void StoreLimb(unsigned char* b, uint64_t limb) {
  b[0] = static_cast<unsigned char>(limb >> 56);
  b[1] = static_cast<unsigned char>(limb >> 48);
  b[2] = static_cast<unsigned char>(limb >> 40);
  b[3] = static_cast<unsigned char>(limb >> 32);
  b[4] = static_cast<unsigned char>(limb >> 24);
  b[5] = static_cast<unsigned char>(limb >> 16);
  b[6] = static_cast<unsigned char>(limb >> 8);
  b[7] = static_cast<unsigned char>(limb);
}

constexpr void StoreBigEndian(unsigned char* bytes, const U256& a) {
  for (int i = 0; i < 4; i++) StoreLimb(bytes + 8 * i, a.limb[3 - i]);
}

}  // namespace sm2
#endif
