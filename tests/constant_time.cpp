// Runs the computations with secrets under valgrind's memory checker, with the secrets marked as
// undefined memory: each branch and each address that depends on one is then an error. A branch on
// what was computed has to be one, or the checker does not see through the assembler and a clean
// run says nothing.
#include "device/owners.h"
#include "sm2/field_x86.h"
#include "sm2/multiply.h"
#include "sm2/multiply_paths.h"
#include "sm2/parameters.h"
#include "sm2/sm2.h"

#include <valgrind/memcheck.h>

#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace {

unsigned char g_secret[] = "a scalar below n, or a coordinate";

// A result other than 1 is a failure. The last byte of what a secret gives is at out[31].
struct Computation {
  const char* what;
  int (*compute)(unsigned char* out);
};

template <class Field>
int MultiplyGenerator(unsigned char* out) {
  return sm2::MultiplyGenerator<Field>(out, g_secret);
}

template <class Field>
int MultiplyPoint(unsigned char* out) {
  unsigned char g[64];
  memcpy(g, SM2_CURVE.gx, 32);
  memcpy(g + 32, SM2_CURVE.gy, 32);
  return sm2::MultiplyPoint<Field>(out, g_secret, g);
}

// The signing factor, (1 + d)^-1, and what makes a signature of it: s = (1 + d)^-1 (k + r) - r
int ComputeS(unsigned char* out) {
  const unsigned char one = 1;
  SM2Scalar d, r, factor, s;
  int result = SM2ReadScalar(&d, g_secret, 32);
  SM2ReadScalar(&r, SM2_CURVE.gx, 32);
  SM2ReadScalar(&factor, &one, 1);
  SM2AddScalars(&factor, &factor, &d);
  result &= SM2InvertScalar(&factor, &factor);
  SM2AddScalars(&s, &r, &d);  // k = d
  result &= SM2IsZeroScalar(&s) ^ 1;
  SM2MultiplyScalars(&s, &s, &factor);
  SM2SubtractScalars(&s, &s, &r);
  SM2WriteScalar(out, &s);
  return result;
}

// What decryption does with the shared point, up to the compare with C3.
int CheckC3(unsigned char* out) {
  unsigned char text[32];
  int result = SM2KDF(g_secret, 32, text, 32);
  result &= IsAllZero(text, 32) ^ 1;
  Xor(text, SM2_CURVE.gx, 32);
  result &= SM3C3(g_secret, g_secret, text, 32, out);
  return result & (CRYPTO_memcmp(out, SM2_CURVE.gx, 32) != 0);
}

// Of each byte of the PINs some bits are known, so that none of them may be NUL.
int ComparePins(unsigned char* out) {
  unsigned char unknown[32];
  memset(unknown, 0x0f, 31);
  unknown[31] = 0;
  char pin[] = "abcdefghijklmnopqrstuvwxyzabcde", wrong[] = "abcdefghijklmnopqrstuvwxyzabcdf";
  VALGRIND_SET_VBITS(pin, unknown, 32);
  VALGRIND_SET_VBITS(wrong, unknown, 32);
  memcpy(out + 31, pin, 1);
  return IsSamePin(pin, pin) & (IsSamePin(pin, wrong) ^ 1);
}

// Not by CPUID: valgrind answers that, without ADX, but runs it all the same.
[[maybe_unused]] bool ProcessorHasAdx() {
  std::ifstream file("/proc/cpuinfo");
  const std::string text{std::istreambuf_iterator<char>(file), {}};
  const auto has = [&](const char* flag) { return text.find(flag) != std::string::npos; };
  return has(" adx") && has(" bmi2") && has(" avx2");
}

// Whether the computation succeeds without an error, and a branch on its last byte is one.
bool IsConstantTime(const Computation& computation) {
  unsigned char out[64];
  const unsigned long before = VALGRIND_COUNT_ERRORS;
  int result = computation.compute(out);
  VALGRIND_MAKE_MEM_DEFINED(&result, sizeof result);
  const unsigned long after = VALGRIND_COUNT_ERRORS;
  if (out[31] % 2 == 1) puts("odd");
  const bool good = result == 1 && after == before && VALGRIND_COUNT_ERRORS > after;
  printf("%s: %s\n", computation.what, good ? "good" : "not constant-time, or not seen through");
  return good;
}

}  // namespace

int main() {
  std::vector<Computation> all = {{"[k]G, portable", MultiplyGenerator<sm2::PortableField>},
                                  {"[k]P, portable", MultiplyPoint<sm2::PortableField>},
                                  {"s", ComputeS},
                                  {"C3", CheckC3},
                                  {"PIN", ComparePins}};
#ifdef __x86_64__
  if (ProcessorHasAdx()) {
    all.push_back({"[k]G, ADX", MultiplyGenerator<sm2::AdxField>});
    all.push_back({"[k]P, ADX", MultiplyPoint<sm2::AdxField>});
  }
#endif
  VALGRIND_MAKE_MEM_UNDEFINED(g_secret, sizeof g_secret);
  bool good = RUNNING_ON_VALGRIND != 0;
  for (const Computation& computation : all) good = IsConstantTime(computation) && good;
  return good ? 0 : 1;
}
