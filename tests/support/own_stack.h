// A stack that the test owns: what a call leaves in its dead frames can be read there afterwards.
#ifndef VAKRO_TESTS_OWN_STACK_H
#define VAKRO_TESTS_OWN_STACK_H

#include <ucontext.h>
#include <functional>

alignas(16) inline char g_stack[1 << 18];

// Makes the call on g_stack. It always begins there with the same registers, so that equal calls
// leave equal bytes.
inline void OnOwnStack(const std::function<void()>& call) {
  static const std::function<void()>* called;
  static ucontext_t here, there;
  static const ucontext_t first = [] { return getcontext(&there), there; }();
  called = &call;
  there = first;
  there.uc_stack = {.ss_sp = g_stack, .ss_flags = 0, .ss_size = sizeof(g_stack)};
  there.uc_link = &here;  // where it goes on when the call is over
  makecontext(
      &there, [] { (*called)(); }, 0);
  swapcontext(&here, &there);
}

#endif
