// Faults in front of library calls. What the three libraries under test call of each other, of
// OpenSSL and of the C library goes through a wrapper, which asks the hooks of the test first: the
// call is made, or it fails as that function does. Only calls of the three libraries are seen,
// OpenSSL's own file calls are not; its allocations are, under the name OPENSSL_malloc.
#ifndef VAKRO_TESTS_INTERPOSE_H
#define VAKRO_TESTS_INTERPOSE_H

#include <errno.h>
#include <stdio.h>
#include <functional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

// A call that is about to be made; what it does not have is empty.
struct ImportCall {
  std::string_view name = "";  // a NUL ends it
  bool onFiles = false;        // a file call of the C library
  bool modifies = false;       // opens for writing, writes, renames, removes, changes mode or owner
  std::string_view path = {};  // of rename: the old one
  int fd = -1;
  FILE* stream = nullptr;
  std::string_view bytes = "";  // of fwrite
};

// While a hook lives it is asked before each call that its thread makes: 0 lets it happen, an errno
// makes it fail so. Of several each is asked. A forked child inherits them.
struct Hook {
  std::function<int(const ImportCall& call)> ask;
  const Hook* const outer = std::exchange(t_innermost, this);
  ~Hook() { t_innermost = outer; }
  static inline thread_local const Hook* t_innermost = nullptr;
};

// A hook that makes calls of one function fail.
struct Fault {
  std::string name;       // the function to fail, or a pattern of fnmatch for several
  long nth = 1;           // the first call to fail, counted from 1; 0 fails none
  bool andLater = false;  // fail all later ones too
  long calls = 0;         // that were made

  int operator()(const ImportCall& call);
};

// WithFault runs `operation` under the fault and returns its result.
template <class Operation>
auto WithFault(const Fault& fault, Operation operation) {
  const Hook hook{fault};
  return operation();
}

long LiveAllocations();                     // blocks of vakro_malloc not yet given to vakro_free
std::vector<std::string> UnknownImports();  // neither wrapped nor known to fail never

#endif
