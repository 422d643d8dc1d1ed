// The three multiplications, for any type of field operations: [k]G and [k]P in constant time,
// [s]G + [t]P in variable time. Scalars are below n, points are in Montgomery form.
//
// The secret scalars are recoded into odd signed digits (Joye and Tunstall, "Exponent recoding and
// regular exponentiation algorithms", 2009): every digit calls for one addition, no digit is zero,
// and no sum but the last can be infinity.
#ifndef VAKRO_SM2_SCALAR_MULTIPLY_H
#define VAKRO_SM2_SCALAR_MULTIPLY_H

#include "sm2/generator_table.h"

namespace sm2 {

// An odd number up to n, equal to the scalar or, where `negative` is a mask of ones, to n less it.
struct OddScalar {
  U256 value;
  uint64_t negative;
};

inline OddScalar MakeOdd(const U256& k) {
  U256 opposite;
  Subtract(opposite, N.m, k);
  const uint64_t even = MaskOfBit(~k.limb[0] & 1);
  return {Select(even, opposite, k), even};
}

// Bits returns `width` bits of k from bit `from` on. Below 64 bits wide.
inline uint64_t Bits(const U256& k, int from, int width) {
  const int word = from / 64, shift = from % 64;
  uint64_t bits = k.limb[word] >> shift;
  if (shift + width > 64 && word < 3) bits |= k.limb[word + 1] << (64 - shift);
  return bits & ((uint64_t{1} << width) - 1);
}

// A digit is 2 row + 1, or the opposite under a mask of ones.
struct Digit {
  uint64_t row;
  uint64_t negative;
};

// DigitAt recodes an odd k: with k_i = (k >> width i) | 1, digit i is k_i - 2^width k_(i+1), which
// is odd and smaller than 2^width in size. The highest digit is k_i itself.
inline Digit DigitAt(const U256& k, int i, int width) {
  const uint64_t bits = Bits(k, i * width + 1, width);
  const uint64_t negative = MaskOfBit((bits >> (width - 1)) ^ 1);
  return {(bits ^ negative) & ((uint64_t{1} << (width - 1)) - 1), negative};
}

inline uint64_t TopRow(const U256& k, int i, int width) { return Bits(k, i * width, width) >> 1; }

// NeverDoubles says that adding digit by digit, highest first, never adds a point to itself. The
// sum before digit i is 2^width k_(i+1) P, so it would take k_i = 2 digit_i mod n. One of the two
// is odd, so they differ, and for i > 0 they are too small to differ by n. For i = 0 it would take
// k = n + 2 digit_0 with a negative digit_0. As digit_0 = k - 2^width mod 2^(width+1), that makes
// digit_0 = 2^width - n mod 2^(width+1), which is negative only if bit `width` of n is set.
constexpr bool NeverDoubles(int width) { return (N.m.limb[0] >> width & 1) == 0; }

template <class Field, class Row, size_t ROWS>
Row LookUp(const Row (&table)[ROWS], uint64_t index) {
  Search<Row> search = SearchFor(index, table);
  for (size_t passed = 0; passed < ROWS; passed += STEP_ROWS) Field::PassRows(search);
  return search.found;
}

// GeneratorMultiple returns [k]G. While it adds the point of one window, it searches for the next.
template <class Field>
XyzzPoint GeneratorMultiple(const U256& k) {
  static_assert(NeverDoubles(GENERATOR_WIDTH) && GENERATOR_ROWS == 4 * STEP_ROWS);
  constexpr int TOP = GENERATOR_WINDOWS - 1;
  const OddScalar odd = MakeOdd(k);
  const AffinePoint first =
      LookUp<Field>(GENERATOR_TABLE[TOP], TopRow(odd.value, TOP, GENERATOR_WIDTH));
  XyzzPoint sum = {first.x, first.y, P.r1, P.r1};
  Digit digit = DigitAt(odd.value, TOP - 1, GENERATOR_WIDTH);
  AffinePoint addend = LookUp<Field>(GENERATOR_TABLE[TOP - 1], digit.row);
  for (int i = TOP - 1; i >= 0; i--) {
    NegateIf<Field>(digit.negative, addend.y);
    const int next = i > 0 ? i - 1 : 0;  // there is none after the last; what it finds is not used
    digit = DigitAt(odd.value, next, GENERATOR_WIDTH);
    Search<AffinePoint> search = SearchFor(digit.row, GENERATOR_TABLE[next]);
    AddWhileSearching<Field>(sum, addend, search);
    addend = search.found;
  }
  NegateIf<Field>(odd.negative, sum.y);
  return sum;
}

inline constexpr int POINT_WIDTH = 4;     // bits of a window
inline constexpr int POINT_WINDOWS = 64;  // 256 bits
inline constexpr size_t POINT_ROWS = 8;

// FillOddMultiples sets row j to (2j + 1) P. Adding 2P to an odd multiple never is a doubling.
template <class Field>
void FillOddMultiples(Addend (&table)[POINT_ROWS], const AffinePoint& p) {
  JacobianPoint multiple = {p.x, p.y, P.r1}, twice = multiple;
  Double<Field>(twice);
  const Addend step = ToAddend<Field>(twice);
  table[0] = ToAddend<Field>(multiple);
  for (size_t j = 1; j < POINT_ROWS; j++) {
    Add<Field>(multiple, step);
    table[j] = ToAddend<Field>(multiple);
  }
}

// PointMultiple returns [k]P.
template <class Field>
JacobianPoint PointMultiple(const U256& k, const AffinePoint& p) {
  static_assert(NeverDoubles(POINT_WIDTH));
  constexpr int TOP = POINT_WINDOWS - 1;
  Addend table[POINT_ROWS];
  FillOddMultiples<Field>(table, p);
  const OddScalar odd = MakeOdd(k);
  const Addend first = LookUp<Field>(table, TopRow(odd.value, TOP, POINT_WIDTH));
  JacobianPoint sum = {first.x, first.y, first.z};
  for (int i = TOP - 1; i >= 0; i--) {
    for (int bit = 0; bit < POINT_WIDTH; bit++) Double<Field>(sum);
    const Digit digit = DigitAt(odd.value, i, POINT_WIDTH);
    Addend addend = LookUp<Field>(table, digit.row);
    NegateIf<Field>(digit.negative, addend.y);
    Add<Field>(sum, addend);
  }
  NegateIf<Field>(odd.negative, sum.y);
  return sum;
}

// The non-adjacent form of width 5: t is the sum of the digits[i] 2^i, each of them 0 or odd and
// smaller than 16 in size. Algorithm 3.35 of the Guide to Elliptic Curve Cryptography. Variable
// time, like all that follows.
struct NonAdjacentForm {
  signed char digits[257];
};

inline NonAdjacentForm MakeNonAdjacent(const U256& t) {
  constexpr int WIDTH = POINT_WIDTH + 1;
  NonAdjacentForm naf{};
  int carry = 0;
  for (int i = 0; i < 256;) {
    const int bits = static_cast<int>(Bits(t, i, WIDTH)) + carry;
    if (bits % 2 == 0) {  // either all is carried on, or there was nothing to carry
      i++;
      continue;
    }
    carry = bits >> (WIDTH - 1);
    naf.digits[i] = static_cast<signed char>(bits - (carry << WIDTH));
    i += WIDTH;
  }
  naf.digits[256] = static_cast<signed char>(carry);
  return naf;
}

// PublicPointMultiple returns [t]P: algorithm 3.36 of the Guide.
template <class Field>
JacobianPoint PublicPointMultiple(const U256& t, const AffinePoint& p) {
  Addend table[POINT_ROWS];
  FillOddMultiples<Field>(table, p);
  const NonAdjacentForm naf = MakeNonAdjacent(t);
  JacobianPoint sum{};
  for (int i = 256; i >= 0; i--) {
    Double<Field>(sum);
    const signed char digit = naf.digits[i];
    if (digit == 0) continue;
    Addend addend = table[(digit < 0 ? -digit : digit) / 2];
    NegateIf<Field>(MaskOfBit(digit < 0), addend.y);
    AddPublic<Field>(sum, addend);
  }
  return sum;
}

}  // namespace sm2
#endif
