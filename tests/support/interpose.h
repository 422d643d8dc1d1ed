// Faults: what the three libraries import from each other, from OpenSSL and from the C library is
// put behind wrappers that can make a call fail. Only calls of the libraries are seen, OpenSSL's
// own file calls are not; its own allocations are, under the name OPENSSL_malloc.
#ifndef VAKRO_TESTS_INTERPOSE_H
#define VAKRO_TESTS_INTERPOSE_H

#include <errno.h>
#include <stdio.h>
#include <initializer_list>
#include <string>
#include <vector>

struct Fault {
  const char* name;       // the function to fail; several joined by '|' count as one
  long nth = 1;           // the first call to fail, counted from 1; 0 fails none
  bool andLater = false;  // fail all later ones too
};
void ArmFault(const Fault& fault);  // until a fault without a name is armed

long LiveAllocations();  // blocks of vakro_malloc not yet given to vakro_free
void FixRandRange(std::initializer_list<const char*> hex);  // next results of BN_rand_range
std::vector<std::string> UnknownImports();  // neither wrapped nor known to fail never

// A call that is about to be made; what it does not have is empty.
struct ImportCall {
  const char* name = nullptr;
  bool onFiles = false;        // a file call of the C library
  bool modifies = false;       // opens for writing, writes, renames, removes, changes mode or owner
  const char* path = nullptr;  // of rename: the old one
  int fd = -1;
  FILE* stream = nullptr;
  const void* bytes = nullptr;  // of fwrite
  size_t length = 0;
};

// HookCalls shows `hook` every call that is made in this thread, before it is made: 0 lets it
// happen, an errno makes it fail so. NULL ends it. A forked child inherits the hook.
void HookCalls(int (*hook)(const ImportCall& call));

// WithFault runs `operation` under the fault and returns its result.
template <class Operation>
auto WithFault(const Fault& fault, Operation operation) {
  ArmFault(fault);
  auto result = operation();
  ArmFault({""});
  return result;
}

#endif
