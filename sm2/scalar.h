// Numbers modulo the order n: always below n, in constant time, and nothing of them stays on the
// stack. Secret ones are the caller's to wipe. Results may be operands.
#ifndef VAKRO_SM2_SCALAR_H
#define VAKRO_SM2_SCALAR_H

#include "sm2/limbs.h"

namespace sm2 {

// ReadScalar takes `length` bytes mod n, 0 for none. Returns whether their value is below n; the
// time depends on the length alone.
bool ReadScalar(U256& a, const unsigned char* bytes, int length);
void WriteScalar(unsigned char (&bytes)[32], const U256& a);

bool IsZeroScalar(const U256& a);

void AddScalars(U256& sum, const U256& a, const U256& b);
void SubtractScalars(U256& difference, const U256& a, const U256& b);
void MultiplyScalars(U256& product, const U256& a, const U256& b);

// InvertScalar computes 1 / a. Returns false, and zero, for zero.
bool InvertScalar(U256& inverse, const U256& a);

}  // namespace sm2
#endif
