// What the crypto library's files share inside.
#ifndef VAKRO_PLATFORM_CRYPTO_H
#define VAKRO_PLATFORM_CRYPTO_H

#include "platform/memory.h"
#include "vakro_crypto.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>

// Heap memory that holds a secret; wiped before it is released.
struct Wipe {
  size_t length = 0;
  void operator()(unsigned char* bytes) const noexcept {
    if (bytes != nullptr) OPENSSL_cleanse(bytes, length);
    vakro_free(bytes);
  }
};
using SecretBytes = std::unique_ptr<unsigned char[], Wipe>;

inline SecretBytes NewSecret(size_t length) {
  return SecretBytes(NewArray<unsigned char>(length).release(), Wipe{length});
}

// FindDigest returns the digest that `algorithm` names, borrowed from the device; NULL for an
// unknown id or when OpenSSL can't supply it. An OpenSSL context that was started with it keeps a
// reference of its own.
const EVP_MD* FindDigest(VakroPKICryptoDevice* device, int algorithm);

#endif
