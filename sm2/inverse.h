// Inversion modulo p and n.
#ifndef VAKRO_SM2_INVERSE_H
#define VAKRO_SM2_INVERSE_H

#include "sm2/modulus.h"

namespace sm2 {

// Invert returns 1/a mod m for `a` below m, and 0 for 0, in constant time. Plain numbers, not in
// Montgomery form.
U256 Invert(const U256& a, const Modulus& M);

}  // namespace sm2
#endif
