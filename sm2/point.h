// Point arithmetic on y^2 = x^3 - 3x + b. The formulas are in the Explicit-Formulas Database
// (Bernstein, Lange) under the names given; H is (x2 - x1), scaled, and R is (y2 - y1).
//
// Most formulas are incomplete: they fail when both points are the same. Each says what it
// excludes, and whoever calls it says why that cannot happen.
#ifndef VAKRO_SM2_POINT_H
#define VAKRO_SM2_POINT_H

#include "sm2/field.h"
#include "sm2/inverse.h"

namespace sm2 {

struct AffinePoint {
  FieldElement x, y;
};

// The point (x / z^2, y / z^3); z = 0 is the point at infinity.
struct JacobianPoint {
  FieldElement x, y, z;
};

// A Jacobian point made ready for additions: zz = z^2, zzz = z^3.
struct Addend {
  FieldElement x, y, z, zz, zzz;
};

// The point (x / zz, y / zzz) with zz^3 = zzz^2; zz = 0 is the point at infinity. The cheapest form
// to add affine points to where nothing is doubled.
struct XyzzPoint {
  FieldElement x, y, zz, zzz;
};

template <class Field>
FieldElement Twice(const FieldElement& a) {
  return Field::Add(a, a);
}

// NegateIf replaces y by -y under a mask of ones.
template <class Field>
void NegateIf(uint64_t mask, FieldElement& y) {
  y = Select(mask, Field::Subtract(FieldElement{}, y), y);
}

// Double replaces p by 2p; 2 infinity is infinity. "dbl-2001-b" with X, Y, Z divided by 4, 8, 2,
// which saves additions.
template <class Field>
void Double(JacobianPoint& p) {
  const FieldElement zz = Field::Square(p.z), yy = Field::Square(p.y);
  const FieldElement half =
      Field::Halve(Field::Multiply(Field::Subtract(p.x, zz), Field::Add(p.x, zz)));
  const FieldElement slope = Field::Add(Twice<Field>(half), half);  // 3 (x - zz) (x + zz) / 2
  const FieldElement s = Field::Multiply(p.x, yy), yyyy = Field::Square(yy);
  p.z = Field::Multiply(p.y, p.z);
  p.x = Field::Subtract(Field::Square(slope), Twice<Field>(s));
  p.y = Field::Subtract(Field::Multiply(slope, Field::Subtract(s, p.x)), yyyy);
}

// Add replaces p by p + q, where q is not p and neither is infinity; p + (-p) is infinity.
// "add-1998-cmo-2".
template <class Field>
void Add(JacobianPoint& p, const Addend& q) {
  const FieldElement z1z1 = Field::Square(p.z);
  const FieldElement u1 = Field::Multiply(p.x, q.zz), s1 = Field::Multiply(p.y, q.zzz);
  const FieldElement u2 = Field::Multiply(q.x, z1z1);
  const FieldElement s2 = Field::Multiply(q.y, Field::Multiply(p.z, z1z1));
  const FieldElement h = Field::Subtract(u2, u1), r = Field::Subtract(s2, s1);
  const FieldElement hh = Field::Square(h), rr = Field::Square(r);
  const FieldElement hhh = Field::Multiply(h, hh), v = Field::Multiply(u1, hh);
  p.z = Field::Multiply(Field::Multiply(p.z, q.z), h);
  p.x = Field::Subtract(Field::Subtract(rr, hhh), Twice<Field>(v));
  const FieldElement s = Field::Multiply(s1, hhh);
  p.y = Field::Subtract(Field::Multiply(r, Field::Subtract(v, p.x)), s);
}

// AddWhileSearching replaces p by p + q, where q is not p and p is not infinity; p + (-p) is
// infinity. "madd-2008-s". On its way it makes 4 steps of a search.
template <class Field>
void AddWhileSearching(XyzzPoint& p, const AffinePoint& q, Search<AffinePoint>& search) {
  const FieldElement u = Field::Multiply(q.x, p.zz);
  Field::PassRows(search);
  const FieldElement s = Field::Multiply(q.y, p.zzz);
  const FieldElement h = Field::Subtract(u, p.x), r = Field::Subtract(s, p.y);
  const FieldElement hh = Field::Square(h), rr = Field::Square(r);
  Field::PassRows(search);
  const FieldElement hhh = Field::Multiply(h, hh);
  const FieldElement v = Field::Multiply(p.x, hh);
  Field::PassRows(search);
  p.zz = Field::Multiply(p.zz, hh);
  p.x = Field::Subtract(Field::Subtract(rr, hhh), Twice<Field>(v));
  const FieldElement yhhh = Field::Multiply(p.y, hhh);
  p.zzz = Field::Multiply(p.zzz, hhh);
  Field::PassRows(search);
  p.y = Field::Subtract(Field::Multiply(r, Field::Subtract(v, p.x)), yhhh);
}

inline bool IsInfinity(const JacobianPoint& p) { return MaskOfZero(p.z) != 0; }

template <class Field>
Addend ToAddend(const JacobianPoint& p) {
  const FieldElement zz = Field::Square(p.z);
  return {p.x, p.y, p.z, zz, Field::Multiply(zz, p.z)};
}

// AddPublic replaces p by p + q, whatever they are. Its time shows which case it met.
template <class Field>
void AddPublic(JacobianPoint& p, const Addend& q) {
  if (MaskOfZero(q.z) != 0) return;
  if (IsInfinity(p)) {
    p = {q.x, q.y, q.z};
    return;
  }
  const JacobianPoint before = p;
  Add<Field>(p, q);
  // z = 0 means h = 0; then x = r^2, which is 0 for the same point but not for its opposite.
  if (IsInfinity(p) && MaskOfZero(p.x) != 0) {
    p = before;
    Double<Field>(p);
  }
}

template <class Field>
XyzzPoint ToXyzz(const JacobianPoint& p) {
  const FieldElement zz = Field::Square(p.z);
  return {p.x, p.y, zz, Field::Multiply(zz, p.z)};
}

// ToJacobian multiplies z = zzz / zz by zz, and x and y by what that takes.
template <class Field>
JacobianPoint ToJacobian(const XyzzPoint& p) {
  return {Field::Multiply(p.x, Field::Square(p.zz)), Field::Multiply(p.y, Field::Square(p.zzz)),
          p.zzz};
}

// ToAffine returns (0, 0) for infinity.
template <class Field>
AffinePoint ToAffine(const XyzzPoint& p) {
  const FieldElement i = Field::Multiply(Invert(p.zzz, P), P.r3);  // 1 / zzz
  const FieldElement ii = Field::Square(Field::Multiply(p.zz, i));
  return {Field::Multiply(p.x, ii), Field::Multiply(p.y, i)};
}

}  // namespace sm2
#endif
