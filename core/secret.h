// Memory for secrets, wiped when its scope ends.
#ifndef VAKRO_CORE_SECRET_H
#define VAKRO_CORE_SECRET_H

#include "vakro_crypto.h"
#include "vakro_util.h"

#include <openssl/crypto.h>

#include <stddef.h>

// Stack memory for secrets, zero at first and wiped at the end.
template <size_t N>
struct Wiped {
  unsigned char bytes[N] = {};
  Wiped() = default;
  Wiped(const Wiped&) = delete;
  Wiped& operator=(const Wiped&) = delete;
  ~Wiped() { OPENSSL_cleanse(bytes, N); }
};

// Heap memory of the crypto or the utility library that holds a secret; wiped, then released.
template <auto Free>
struct SecretBytes {
  unsigned char* bytes = nullptr;
  size_t length = 0;
  SecretBytes(unsigned char* p, size_t n) : bytes(p), length(n) {}
  SecretBytes(const SecretBytes&) = delete;
  SecretBytes& operator=(const SecretBytes&) = delete;
  ~SecretBytes() {
    if (bytes == nullptr) return;  // the maker's functions need not take NULL
    OPENSSL_cleanse(bytes, length);
    Free(bytes);
  }
};
using SecretUtilBytes = SecretBytes<vakro_free>;
using SecretLibBytes = SecretBytes<VakroPKICryptoFreeMemory>;

#endif
