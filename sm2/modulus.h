// Arithmetic modulo p and n in portable C++: the reference for every other path. Numbers below
// the modulus, all operations in constant time. Products are Montgomery's, with R = 2^256.
#ifndef VAKRO_SM2_MODULUS_H
#define VAKRO_SM2_MODULUS_H

#include "sm2/limbs.h"
#include "sm2/parameters.h"

namespace sm2 {

struct Modulus {
  U256 m;
  uint64_t minusInverse;  // -1/m mod 2^64
  U256 r1, r2, r3;        // R, R^2, R^3 mod m
};

// Reduce returns carry * 2^256 + a less m where that is not negative; the value is below 2m.
constexpr U256 Reduce(uint64_t carry, const U256& a, const Modulus& M) {
  U256 reduced{};
  const uint64_t borrow = Subtract(reduced, a, M.m);
  return Select(MaskOfBit(borrow & (carry ^ 1)), a, reduced);
}

constexpr U256 ModAdd(const U256& a, const U256& b, const Modulus& M) {
  U256 sum{};
  const uint64_t carry = Add(sum, a, b);
  return Reduce(carry, sum, M);
}

constexpr U256 ModSubtract(const U256& a, const U256& b, const Modulus& M) {
  U256 r{};
  const uint64_t borrow = Subtract(r, a, b);
  Add(r, r, And(M.m, MaskOfBit(borrow)));
  return r;
}

// MontgomeryMultiply returns a b / R mod m. One factor may be any number of 256 bits. This is
// algorithm 14.36 of the Handbook of Applied Cryptography.
constexpr U256 MontgomeryMultiply(const U256& a, const U256& b, const Modulus& M) {
  uint64_t t[6] = {};
  for (int i = 0; i < 4; i++) {
    uint128 at = 0;
    for (int j = 0; j < 4; j++) {
      at = uint128{a.limb[j]} * b.limb[i] + t[j] + High(at);
      t[j] = Low(at);
    }
    at = uint128{t[4]} + High(at);
    t[4] = Low(at);
    t[5] = High(at);
    const uint64_t q = t[0] * M.minusInverse;
    at = uint128{q} * M.m.limb[0] + t[0];
    for (int j = 1; j < 4; j++) {
      at = uint128{q} * M.m.limb[j] + t[j] + High(at);
      t[j - 1] = Low(at);
    }
    at = uint128{t[4]} + High(at);
    t[3] = Low(at);
    t[4] = t[5] + High(at);
  }
  return Reduce(t[4], {{t[0], t[1], t[2], t[3]}}, M);
}

// MakeModulus derives the constants of an odd modulus above 2^255.
constexpr Modulus MakeModulus(const unsigned char* bytes) {
  Modulus M{};
  M.m = LoadBigEndian(bytes);
  uint64_t inverse = 1;  // of m mod 2; each Newton step doubles the bits that are right
  for (int bits = 1; bits < 64; bits *= 2) inverse *= 2 - M.m.limb[0] * inverse;
  M.minusInverse = uint64_t{0} - inverse;
  Subtract(M.r1, U256{}, M.m);
  M.r2 = M.r1;
  for (int i = 0; i < 256; i++) M.r2 = ModAdd(M.r2, M.r2, M);
  M.r3 = MontgomeryMultiply(M.r2, M.r2, M);
  return M;
}

inline constexpr Modulus P = MakeModulus(SM2_CURVE.p);  // of the field
inline constexpr Modulus N = MakeModulus(SM2_CURVE.n);  // the order of the group

}  // namespace sm2
#endif
