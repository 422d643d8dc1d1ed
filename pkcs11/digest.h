// Digests at one go, which can fail: OpenSSL takes memory for them.
#ifndef VAKRO_PKCS11_DIGEST_H
#define VAKRO_PKCS11_DIGEST_H

#include "pkcs11/memory.h"

#include <openssl/sha.h>

[[nodiscard]] inline bool Sha1(Span bytes, unsigned char (&digest)[SHA_DIGEST_LENGTH]) {
  return SHA1(bytes.data(), bytes.size(), digest) != nullptr;
}
[[nodiscard]] inline bool Sha256(Span bytes, unsigned char (&digest)[SHA256_DIGEST_LENGTH]) {
  return SHA256(bytes.data(), bytes.size(), digest) != nullptr;
}

inline Span BytesOf(const char* text) {
  return {reinterpret_cast<const unsigned char*>(text), strlen(text)};
}

#endif
