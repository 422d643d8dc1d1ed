// Fast arithmetic for SM2: multiples of points and numbers modulo the order n.
//
// What every function shares: points are 64 bytes, x and y, scalars 32 bytes, big-endian. Points
// handed in must be on the curve (SM2IsOnCurve); any others give a meaningless point. A scalar may
// be any number and counts mod n. Output may overlap input. Nothing fails for want of memory, and
// there is no state: any thread may call anything at any time.
//
// Constant time means: neither branches nor addresses depend on scalars or points, and nothing of
// either stays on the stack. What a function returns is not kept secret.
#ifndef VAKRO_SM2_MULTIPLY_H
#define VAKRO_SM2_MULTIPLY_H

#include <stdint.h>

// A number mod n, always below n. Secret ones are the caller's to wipe.
struct SM2Scalar {
  uint64_t limb[4];  // least significant first
};

extern "C" {

// --- Points (multiply.cpp): 1, or 0 and zeros where the result is the point at infinity ----------

// SM2MultiplyGenerator computes [k]G in constant time.
int SM2MultiplyGenerator(unsigned char out[64], const unsigned char k[32]);

// SM2MultiplyPoint computes [k]P in constant time.
int SM2MultiplyPoint(unsigned char out[64], const unsigned char k[32],
                     const unsigned char point[64]);

// SM2MultiplyPublic computes [s]G + [t]P. For public values only: its time depends on them.
int SM2MultiplyPublic(unsigned char out[64], const unsigned char s[32],
                      const unsigned char point[64], const unsigned char t[32]);

// SM2IsOnCurve returns 1 when both coordinates are below p and satisfy the equation, else 0.
int SM2IsOnCurve(const unsigned char point[64]);

// --- Scalars (scalar.cpp), in constant time -----------------------------------------------------

// SM2ReadScalar takes `length` bytes mod n, 0 for none. Returns 1 if their value is below n, else
// 0; the time depends on the length alone.
int SM2ReadScalar(SM2Scalar* a, const unsigned char* bytes, int length);
void SM2WriteScalar(unsigned char bytes[32], const SM2Scalar* a);

int SM2IsZeroScalar(const SM2Scalar* a);  // 1 or 0

// Results may be operands.
void SM2AddScalars(SM2Scalar* sum, const SM2Scalar* a, const SM2Scalar* b);
void SM2SubtractScalars(SM2Scalar* difference, const SM2Scalar* a, const SM2Scalar* b);
void SM2MultiplyScalars(SM2Scalar* product, const SM2Scalar* a, const SM2Scalar* b);

// SM2InvertScalar computes 1 / a mod n. Returns 1, or 0 and zero for zero.
int SM2InvertScalar(SM2Scalar* inverse, const SM2Scalar* a);

}  // extern "C"
#endif
