// The field of the curve, the integers mod p, in Montgomery form: an element x stands as x R mod p,
// always below p, so equal elements have equal limbs. Point arithmetic takes the operations from a
// type such as PortableField, which holds nothing but functions:
//   Multiply, Square, Add, Subtract    the field operations
//   Halve                              x / 2
//   PassRows                           a step of a search in a table
// All run in constant time. AdxField in field_x86.h is the fast one.
#ifndef VAKRO_SM2_FIELD_H
#define VAKRO_SM2_FIELD_H

#include "sm2/modulus.h"

#include <stddef.h>
#include <string.h>

namespace sm2 {

using FieldElement = U256;

// A search for one row of a table of up to 64 rows, which reads all of them and does not betray the
// one it finds. It is made in steps of 8 rows: reading is no work for the multiplier, so that a
// step costs little between two field operations. Rows consist of field elements.
inline constexpr size_t STEP_ROWS = 8;

template <class Row>
struct Search {
  Row found;        // the row, once it has been passed
  const Row* next;  // row to pass next
  uint64_t bit;     // shifted left once for each row passed; in the sign bit at the row wanted
};

template <class Row>
Search<Row> SearchFor(uint64_t index, const Row* table) {
  return {{}, table, uint64_t{1} << (63 - index)};
}

struct PortableField {
  static constexpr FieldElement Multiply(const FieldElement& a, const FieldElement& b) {
    return MontgomeryMultiply(a, b, P);
  }
  static constexpr FieldElement Square(const FieldElement& a) { return Multiply(a, a); }
  static constexpr FieldElement Add(const FieldElement& a, const FieldElement& b) {
    return ModAdd(a, b, P);
  }
  static constexpr FieldElement Subtract(const FieldElement& a, const FieldElement& b) {
    return ModSubtract(a, b, P);
  }
  static constexpr FieldElement Halve(const FieldElement& a) {
    U256 r{};
    const uint64_t carry = sm2::Add(r, a, And(P.m, MaskOfBit(a.limb[0] & 1)));
    return {{r.limb[0] >> 1 | r.limb[1] << 63, r.limb[1] >> 1 | r.limb[2] << 63,
             r.limb[2] >> 1 | r.limb[3] << 63, r.limb[3] >> 1 | carry << 63}};
  }

  template <class Row>
  static void PassRows(Search<Row>& search) {
    constexpr size_t LIMBS = sizeof(Row) / sizeof(uint64_t);
    uint64_t found[LIMBS], row[LIMBS];
    memcpy(found, &search.found, sizeof found);
    for (size_t i = 0; i < STEP_ROWS; i++) {
      const uint64_t mask = MaskOfBit(search.bit >> 63);
      memcpy(row, search.next++, sizeof row);
      for (size_t j = 0; j < LIMBS; j++) found[j] |= mask & row[j];
      search.bit <<= 1;
    }
    memcpy(&search.found, found, sizeof found);
  }
};

}  // namespace sm2
#endif
