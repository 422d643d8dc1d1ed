// Owners of the one heap, for the inside of both libraries.
#ifndef VAKRO_PLATFORM_MEMORY_H
#define VAKRO_PLATFORM_MEMORY_H

#include "vakro_util.h"

#include <memory>
#include <utility>

template <auto Free>
struct Release {
  template <class T>
  void operator()(T* p) const noexcept {
    Free(p);
  }
};

template <class T>
using Owned = std::unique_ptr<T, Release<vakro_free>>;
using Bytes = Owned<unsigned char[]>;

// NewArray returns uninitialised memory for `count` objects of a plain type; empty when memory is
// out.
template <class T>
Owned<T[]> NewArray(size_t count, int line = __builtin_LINE()) {
  return Owned<T[]>(static_cast<T*>(vakro_malloc(count * sizeof(T), "platform", line)));
}

// AreBytes says whether pointer and length of a caller can be read: NULL may stand for no bytes.
inline bool AreBytes(const void* bytes, int length) {
  return length >= 0 && (bytes != nullptr || length == 0);
}

// HandOut passes a result to the caller's out-arguments and returns 1.
template <class Array, class T>
int HandOut(Array&& result, size_t length, T** out, int* outLength) {
  *outLength = static_cast<int>(length);
  *out = result.release();
  return 1;
}

#endif
