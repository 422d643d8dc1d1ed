// Memory for secrets, wiped when its scope ends.
#ifndef VAKRO_CORE_SECRET_H
#define VAKRO_CORE_SECRET_H

#include "core/shield.h"
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
// IS_KEY: it holds a private key, and is shielded meanwhile (core/shield.h).
template <auto Free, bool IS_KEY = false>
struct SecretBytes {
  unsigned char* bytes = nullptr;
  size_t length = 0;
  SecretBytes(unsigned char* p, size_t n) : bytes(p), length(n) {
    if constexpr (IS_KEY) ShieldSecret(bytes, length);
  }
  SecretBytes(const SecretBytes&) = delete;
  SecretBytes& operator=(const SecretBytes&) = delete;
  ~SecretBytes() {
    if (bytes == nullptr) return;  // the maker's functions need not take NULL
    OPENSSL_cleanse(bytes, length);
    if constexpr (IS_KEY) UnshieldSecret(bytes);
    Free(bytes);
  }
};
using SecretUtilBytes = SecretBytes<vakro_free>;
using SecretLibBytes = SecretBytes<VakroPKICryptoFreeMemory>;
using KeyUtilBytes = SecretBytes<vakro_free, true>;
using KeyLibBytes = SecretBytes<VakroPKICryptoFreeMemory, true>;

#endif
