// PINs and passphrases: where they come from, and memory that is wiped when it is released.
#ifndef VAKRO_TOOLS_SECRET_H
#define VAKRO_TOOLS_SECRET_H

#include "tools/tool.h"

#include <openssl/crypto.h>

#include <memory>

template <class T>
struct WipingAllocator : std::allocator<T> {
  WipingAllocator() = default;
  template <class U>
  explicit WipingAllocator(const WipingAllocator<U>&) {}
  template <class U>
  struct rebind {
    using other = WipingAllocator<U>;
  };
  void deallocate(T* memory, size_t count) {
    OPENSSL_cleanse(memory, count * sizeof(T));
    std::allocator<T>::deallocate(memory, count);
  }
};

// Secret bytes; also what a growing vector leaves behind is wiped.
using Secret = std::vector<unsigned char, WipingAllocator<unsigned char>>;

// A PIN or passphrase, with a NUL at its end.
using SecretText = std::vector<char, WipingAllocator<char>>;

inline constexpr size_t SECRET_MAX = 255;  // characters

// ReadSecret takes the secret from its source, or asks on the terminal, without echo. `what` names
// it, as in "PIN of device Demo".
SecretText ReadSecret(const SecretSource& source, const std::string& what);

// ReadNewPin is for a PIN that is about to be set: not empty, asked twice on the terminal, since a
// typo would lock the keys away, and remarked on when it is quickly guessed.
SecretText ReadNewPin(const SecretSource& source, const std::string& what);

#endif
