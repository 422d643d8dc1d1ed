// Writes the rows of GENERATOR_TABLE as an initializer. Runs when the library is built.
#include "sm2/generator_table.h"

#include <inttypes.h>
#include <stdio.h>

using sm2::FieldElement, sm2::PortableField;

static void Print(const FieldElement& a) {
  printf("{{0x%" PRIx64 ",0x%" PRIx64 ",0x%" PRIx64 ",0x%" PRIx64 "}}", a.limb[0], a.limb[1],
         a.limb[2], a.limb[3]);
}

static void PrintOddMultiples(const sm2::JacobianPoint& base) {
  sm2::JacobianPoint twice = base, multiple = base;
  sm2::Double<PortableField>(twice);
  const sm2::Addend step = sm2::ToAddend<PortableField>(twice);
  printf("{\n");
  for (size_t j = 0; j < sm2::GENERATOR_ROWS; j++) {
    const sm2::AffinePoint p = sm2::ToAffine<PortableField>(sm2::ToXyzz<PortableField>(multiple));
    printf("{");
    Print(p.x);
    printf(",");
    Print(p.y);
    printf("},\n");
    sm2::Add<PortableField>(multiple, step);  // (2j + 1) is never 2 or -2
  }
  printf("},\n");
}

int main() {
  sm2::JacobianPoint base = {PortableField::Multiply(sm2::LoadBigEndian(SM2_CURVE.gx), sm2::P.r2),
                             PortableField::Multiply(sm2::LoadBigEndian(SM2_CURVE.gy), sm2::P.r2),
                             sm2::P.r1};
  for (int i = 0; i < sm2::GENERATOR_WINDOWS; i++) {
    PrintOddMultiples(base);
    for (int bit = 0; bit < sm2::GENERATOR_WIDTH; bit++) sm2::Double<PortableField>(base);
  }
  return fflush(stdout) == 0 && !ferror(stdout) ? 0 : 1;
}
