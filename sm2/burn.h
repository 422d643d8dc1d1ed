// Clears the stack behind a computation with secrets: variables, copies that the compiler made of
// them and registers that it spilled, which no owner of a single variable can reach.
#ifndef VAKRO_SM2_BURN_H
#define VAKRO_SM2_BURN_H

#include <stddef.h>
#include <string.h>

namespace sm2 {

template <class Work>
__attribute__((noinline)) void Call(const Work& work) {
  work();
}

// The memory escapes, so that the compiler has to suppose that it is read.
template <size_t BYTES>
__attribute__((noinline)) void ClearStackBelow() {
  unsigned char below[BYTES];
  memset(below, 0, sizeof below);
  __asm__ volatile("" : : "r"(below) : "memory");
}

// CallAndBurn calls `work`, then clears BYTES of the stack where it had its frames: both calls
// start at the same depth. Too few BYTES leave secrets behind: tests/secrets_test.cpp looks for
// them.
template <size_t BYTES, class Work>
void CallAndBurn(const Work& work) {
  Call(work);
  ClearStackBelow<BYTES>();
}

}  // namespace sm2
#endif
