// Runs the computations with secrets under valgrind's memory checker, with the secrets marked as
// undefined memory: each branch and each address that depends on one is then an error.
//   constant_time          runs all that claims constant time; there may be no error
//   constant_time --leak   branches on what each of them computed; each has to be found, or the
//                          checker does not see through the assembler and the clean run says
//                          nothing
#include "device/owners.h"
#include "sm2/field_x86.h"
#include "sm2/multiply.h"
#include "sm2/multiply_paths.h"
#include "sm2/parameters.h"
#include "sm2/sm2.h"

#include <valgrind/memcheck.h>

#include <stdio.h>

#include <fstream>
#include <iterator>
#include <string>

namespace {

struct Secret {
  unsigned char bytes[32];
  Secret() {
    for (int i = 0; i < 32; i++) bytes[i] = static_cast<unsigned char>(i * 151 + 7);
    VALGRIND_MAKE_MEM_UNDEFINED(bytes, sizeof bytes);
  }
};

template <class Field>
bool MultiplyGenerator(unsigned char* out) {
  int result = sm2::MultiplyGenerator<Field>(out, Secret().bytes);
  VALGRIND_MAKE_MEM_DEFINED(&result, sizeof result);
  return result == 1;
}

template <class Field>
bool MultiplyPoint(unsigned char* out) {
  unsigned char g[64];
  memcpy(g, SM2_CURVE.gx, 32);
  memcpy(g + 32, SM2_CURVE.gy, 32);
  int result = sm2::MultiplyPoint<Field>(out, Secret().bytes, g);
  VALGRIND_MAKE_MEM_DEFINED(&result, sizeof result);
  return result == 1;
}

// The signing factor, (1 + d)^-1, and what makes a signature of it: s = (1 + d)^-1 (k + r) - r
bool ComputeS(unsigned char* out) {
  const Secret secret;
  const unsigned char one = 1;
  SM2Scalar d, k, r, factor, s;
  int result = SM2ReadScalar(&d, secret.bytes, 32);
  result &= SM2ReadScalar(&k, secret.bytes, 32);
  SM2ReadScalar(&r, SM2_CURVE.gx, 32);
  SM2ReadScalar(&factor, &one, 1);
  SM2AddScalars(&factor, &factor, &d);
  result &= SM2InvertScalar(&factor, &factor);
  SM2AddScalars(&s, &r, &k);
  result &= SM2IsZeroScalar(&s) ^ 1;
  SM2MultiplyScalars(&s, &s, &factor);
  SM2SubtractScalars(&s, &s, &r);
  SM2WriteScalar(out, &s);
  VALGRIND_MAKE_MEM_DEFINED(&result, sizeof result);
  return result == 1;
}

// What decryption does with the shared point, up to the compare with C3.
bool CheckC3(unsigned char* out) {
  const Secret x2, y2;
  unsigned char z[64], text[32], u[32];
  memcpy(z, x2.bytes, 32);
  memcpy(z + 32, y2.bytes, 32);
  int result = SM2KDF(z, 64, text, 32);
  result &= IsAllZero(text, 32) ^ 1;
  Xor(text, SM2_CURVE.gx, 32);
  result &= SM3C3(x2.bytes, y2.bytes, text, 32, u);
  result &= CRYPTO_memcmp(u, SM2_CURVE.gx, 32) != 0;
  memcpy(out, u, 32);
  VALGRIND_MAKE_MEM_DEFINED(&result, sizeof result);
  return result == 1;
}

// Of each byte of the PINs some bits are known, so that none of them may be NUL.
bool ComparePins(unsigned char* out) {
  unsigned char unknown[32];
  memset(unknown, 0x0f, 31);
  unknown[31] = 0;
  char pin[] = "abcdefghijklmnopqrstuvwxyzabcde", wrong[] = "abcdefghijklmnopqrstuvwxyzabcdf";
  VALGRIND_SET_VBITS(pin, unknown, 32);
  VALGRIND_SET_VBITS(wrong, unknown, 32);
  int same = IsSamePin(pin, pin), other = IsSamePin(pin, wrong);
  memcpy(out + 31, pin, 1);
  VALGRIND_MAKE_MEM_DEFINED(&same, sizeof same);
  VALGRIND_MAKE_MEM_DEFINED(&other, sizeof other);
  return same == 1 && other == 0;
}

// Not by CPUID: valgrind answers that, without ADX, but runs it all the same.
[[maybe_unused]] bool ProcessorHasAdx() {
  std::ifstream file("/proc/cpuinfo");
  const std::string text{std::istreambuf_iterator<char>(file), {}};
  for (const char* flag : {" adx", " bmi2", " avx2"}) {
    if (text.find(flag) == std::string::npos) return false;
  }
  return true;
}

// Whether the computation succeeds and, for `leak`, a branch on its last byte is an error.
bool Run(const char* what, bool (*compute)(unsigned char* out), bool leak) {
  printf("%s\n", what);
  unsigned char out[64];
  if (!compute(out)) return false;
  if (!leak) return true;
  const unsigned long before = VALGRIND_COUNT_ERRORS;
  if (out[31] % 2 == 1) printf("odd\n");
  return VALGRIND_COUNT_ERRORS > before;
}

}  // namespace

int main(int argc, char** argv) {
  const bool leak = argc > 1 && std::string(argv[1]) == "--leak";
  if (!RUNNING_ON_VALGRIND) {
    printf("Runs under valgrind only.\n");
    return 1;
  }
  bool good = Run("[k]G, portable", MultiplyGenerator<sm2::PortableField>, leak) &&
              Run("[k]P, portable", MultiplyPoint<sm2::PortableField>, leak) &&
              Run("s", ComputeS, leak) && Run("C3", CheckC3, leak) && Run("PIN", ComparePins, leak);
#ifdef __x86_64__
  if (ProcessorHasAdx()) {
    good = good && Run("[k]G, ADX", MultiplyGenerator<sm2::AdxField>, leak) &&
           Run("[k]P, ADX", MultiplyPoint<sm2::AdxField>, leak);
  }
#endif
  return good ? 0 : 1;
}
