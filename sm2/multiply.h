// Multiples of points, by arithmetic of our own: OpenSSL multiplies on this curve by its general
// method, in 1 ms, which would make an SM2 signature 60 times slower than one on P-256. That ours
// is right is proved against OpenSSL's numbers and points by tests/sm2_arithmetic_test.cpp, that it
// betrays nothing by tests/secrets_test.cpp under valgrind.
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

}  // extern "C"
#endif
