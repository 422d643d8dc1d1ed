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

// A6: s = (1 + d)^-1 (k - r d) mod n
bool ComputeS(unsigned char* out) {
  const Secret secret;
  const unsigned char one = 1;
  SM2Scalar d, k, r, sum, s;
  int result = SM2ReadScalar(&d, secret.bytes, 32);
  result &= SM2ReadScalar(&k, secret.bytes, 32);
  SM2ReadScalar(&r, SM2_CURVE.gx, 32);
  SM2ReadScalar(&sum, &one, 1);
  SM2AddScalars(&sum, &sum, &d);
  result &= SM2InvertScalar(&sum, &sum);
  SM2MultiplyScalars(&s, &r, &d);
  SM2SubtractScalars(&s, &k, &s);
  SM2MultiplyScalars(&s, &s, &sum);
  result &= SM2IsZeroScalar(&s) ^ 1;
  SM2WriteScalar(out, &s);
  VALGRIND_MAKE_MEM_DEFINED(&result, sizeof result);
  return result == 1;
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
              Run("s", ComputeS, leak);
#ifdef __x86_64__
  if (ProcessorHasAdx()) {
    good = good && Run("[k]G, ADX", MultiplyGenerator<sm2::AdxField>, leak) &&
           Run("[k]P, ADX", MultiplyPoint<sm2::AdxField>, leak);
  }
#endif
  return good ? 0 : 1;
}
