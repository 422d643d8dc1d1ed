// What is computed with a secret number tells nothing of it: not by the time that it takes, nor by
// what it leaves on the stack.
#include "tests/support/own_stack.h"
#include "tests/support/world.h"

#include "keypair/keypair.h"
#include "sm2/field.h"
#include "sm2/field_x86.h"
#include "sm2/multiply.h"
#include "sm2/multiply_paths.h"
#include "sm2/parameters.h"
#include "sm2/scalar.h"
#include "sm2/sm2.h"

#include <openssl/rand.h>
#include <valgrind/memcheck.h>

namespace {
// What arithmetic reads and writes: a secret number k, as a scalar too, a point, and the result.
unsigned char g_k[32], g_point[64];
alignas(sm2::U256) unsigned char g_out[64];
sm2::U256 g_a;
sm2::U256& g_r = reinterpret_cast<sm2::U256&>(g_out);
auto& g_bytes = reinterpret_cast<unsigned char (&)[32]>(g_out);

using Works = std::vector<std::pair<const char*, std::function<void()>>>;

// Not by CPUID: valgrind answers that, without ADX, but runs it all the same.
bool ProcessorHasAdx() {
  const std::string text = ReadText("/proc/cpuinfo");
  const auto has = [&](const char* flag) { return text.find(flag) != std::string::npos; };
  return has(" adx") && has(" bmi2") && has(" avx2");
}

template <class Field>
void AddMultiples(Works& works, const char* generator, const char* point) {
  works.emplace_back(generator, [] { sm2::MultiplyGenerator<Field>(g_out, g_k); });
  works.emplace_back(point, [] { sm2::MultiplyPoint<Field>(g_out, g_k, g_point); });
}

Works Arithmetic() {
  memcpy(g_point, SM2_CURVE.gx, 32);
  memcpy(g_point + 32, SM2_CURVE.gy, 32);
  Works works = {{"reading", [] { ReadScalar(g_r, g_k, 32); }},
                 {"writing", [] { WriteScalar(g_bytes, g_a); }},
                 {"is zero", [] { g_out[31] = IsZeroScalar(g_a); }},
                 {"sum", [] { AddScalars(g_r, g_a, g_a); }},
                 {"difference", [] { SubtractScalars(g_r, g_r, g_a); }},
                 {"product", [] { MultiplyScalars(g_r, g_a, g_a); }},
                 {"inverse", [] { InvertScalar(g_r, g_a); }}};
  AddMultiples<sm2::PortableField>(works, "[k]G, portable", "[k]P, portable");
#ifdef __x86_64__
  if (ProcessorHasAdx()) AddMultiples<sm2::AdxField>(works, "[k]G, ADX", "[k]P, ADX");
#endif
  return works;
}

// What decryption does with the shared point, up to the compare with C3.
void CheckC3() {
  unsigned char text[32];
  SM2KDF(g_k, 32, text, 32);
  g_out[31] = IsAllZero(text, 32) == 1;
  Xor(text, SM2_CURVE.gx, 32);
  SM3C3(g_k, g_k, text, 32, g_out);
  g_out[31] ^= CRYPTO_memcmp(g_out, SM2_CURVE.gx, 32) == 0;
}

// Of each byte of the PINs some bits are known, so that none of them may be NUL.
void ComparePins() {
  unsigned char unknown[32] = {};
  memset(unknown, 0x0f, 31);
  char pin[] = "abcdefghijklmnopqrstuvwxyzabcde", wrong[] = "abcdefghijklmnopqrstuvwxyzabcdf";
  VALGRIND_SET_VBITS(pin, unknown, 32);
  VALGRIND_SET_VBITS(wrong, unknown, 32);
  g_out[31] = (IsSamePin(pin, pin) ^ IsSamePin(pin, wrong)) == 1;
}
}  // namespace

using ConstantTimeTest = ModuleTest;

#ifdef __OPTIMIZE__  // other code keeps copies of its own
// What arithmetic leaves on the stack may not depend on its operand: then nothing of it is there.
TEST_F(ConstantTimeTest, ArithmeticLeavesNothingOnTheStack) {
  for (const auto& [what, work] : Arithmetic()) {
    std::string left[3];
    for (std::string& stack : left) {
      RAND_bytes(g_k, sizeof(g_k));
      ReadScalar(g_a, g_k, sizeof(g_k));
      OnOwnStack(work);
      stack.assign(g_stack, sizeof(g_stack));
    }
    EXPECT_TRUE(left[1] == left[2]) << what;  // the first call may settle things for good
  }
}
#endif

// Under valgrind's memory checker, with the secrets marked as undefined memory, each branch and
// each address that depends on one is an error. A branch on what was computed has to be one, or the
// checker does not see through the assembler and a clean run says nothing.
TEST_F(ConstantTimeTest, NoBranchOrAddressDependsOnASecret) {
  if (RUNNING_ON_VALGRIND == 0) GTEST_SKIP() << "valgrind has to watch";
  Works works = Arithmetic();
  works.emplace_back("C3", CheckC3);
  works.emplace_back("PINs", ComparePins);
  VALGRIND_MAKE_MEM_UNDEFINED(g_k, sizeof(g_k));
  VALGRIND_MAKE_MEM_UNDEFINED(&g_a, sizeof(g_a));
  for (const auto& [what, work] : works) {
    memset(g_out, 0, sizeof(g_out));
    const unsigned long before = VALGRIND_COUNT_ERRORS;
    work();
    const unsigned long after = VALGRIND_COUNT_ERRORS;
    if (g_out[31] % 2 == 1) puts("odd");
    EXPECT_EQ(after, before) << what;
    EXPECT_GT(VALGRIND_COUNT_ERRORS, after) << what;
  }
}
