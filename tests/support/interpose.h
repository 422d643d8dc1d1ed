// Faults: the functions that the module imports are defined in the test program, forward to the
// real ones and can be made to fail. Only calls that the three libraries make while WithFault runs
// its operation, in its thread, are counted and failed; all others go through.
#ifndef VAKRO_TESTS_INTERPOSE_H
#define VAKRO_TESTS_INTERPOSE_H

#include <stdio.h>
#include <initializer_list>
#include <string>

struct Fault {
  // The function to fail; several joined by '|' count as one; "*" is every function of the table.
  const char* name = "*";
  long nth = 1;                // the first call to fail, counted from 1; 0 fails none
  bool andLater = false;       // fail all later ones too
  int error = 0;               // errno to leave; 0: the function's usual one
  const char* file = nullptr;  // count only calls with a path that ends so
};

void ArmFault(const Fault& fault);
void DisarmFault();
long FaultCalls();       // calls of the named functions in the last operation
const char* FaultHit();  // the function that was failed last in the last operation, or NULL
long LiveAllocations();  // blocks of vakro_malloc not yet given to vakro_free
void FixRandRange(std::initializer_list<const char*> hex);  // next results of BN_rand_range

// A file call of the C library that is about to be made; what it does not have is empty.
struct FileCall {
  const char* name;
  const char* path = nullptr;  // of rename: the old one
  int fd = -1;
  FILE* stream = nullptr;
  const void* bytes = nullptr;  // of fwrite
  size_t length = 0;
  bool modifies = false;  // opens for writing, writes, renames, removes, changes mode or owner
};

// HookFiles shows `hook` every file call that the libraries make in this thread, before it is made:
// 0 lets it happen, an errno makes it fail so. NULL ends it. A forked child inherits the hook.
void HookFiles(int (*hook)(const FileCall& call));

// WithFault runs `operation` under the fault and returns its result.
template <class Operation>
auto WithFault(const Fault& fault, Operation operation) {
  struct Armed {
    explicit Armed(const Fault& f) { ArmFault(f); }
    ~Armed() { DisarmFault(); }
  } const armed(fault);
  return operation();
}

#endif
