// OpenSSL's queue of errors, of which each thread has one, belongs to the program that calls us.
#ifndef VAKRO_CORE_ERROR_MARK_H
#define VAKRO_CORE_ERROR_MARK_H

#include <openssl/err.h>

// ErrorMark stands first in every exported function that may reach OpenSSL: at the end of its scope
// the queue is as it was found. What the caller has in it stays, with the caller's own marks; what
// has been added goes. (The queue holds 15 errors: of one that is nearly full the oldest may be
// pushed out, which OpenSSL offers no way to undo.)
struct ErrorMark {
  ErrorMark() { ERR_set_mark(); }
  ErrorMark(const ErrorMark&) = delete;
  ErrorMark& operator=(const ErrorMark&) = delete;
  ~ErrorMark() { ERR_pop_to_mark(); }  // of an empty queue, which takes no mark: all
};

#endif
