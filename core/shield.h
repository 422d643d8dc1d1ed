// Secrets that live between calls are kept from swap and from core dumps as far as the process may:
// the copy of a PIN and what SM2 signing takes of a key; and for the time of a call the decrypted
// encoding of a private key.
//
// Not covered: keys inside OpenSSL (EVP_PKEY), for which a host would have to set up its secure
// heap; what the crypto library keeps for the time of a call; and the stack, with derived keys,
// nonces and scalars on it for the time of a call. All of that is wiped when it has been used.
#ifndef VAKRO_CORE_SHIELD_H
#define VAKRO_CORE_SHIELD_H

#include <stddef.h>

// ShieldSecret locks the pages where the secret stands and leaves them out of core dumps. It never
// fails: where the process may lock no more, or 1024 secrets are shielded already, this one is not.
// A secret that is shielded stays so.
// UnshieldSecret gives back pages that hold no other; a secret that is not shielded is ignored.
// Wipe it before. Both leave errno as it is.
//
// The pages belong to the host's heap, and locks do not nest: a page that the host has locked by
// itself loses that with the last secret, unless the host locks all that comes (mlockall).
void ShieldSecret(const void* bytes, size_t length);
void UnshieldSecret(const void* bytes);

// Shields for a scope.
struct Shield {
  const void* const bytes;
  Shield(const void* secret, size_t length) : bytes(secret) { ShieldSecret(secret, length); }
  Shield(const Shield&) = delete;
  Shield& operator=(const Shield&) = delete;
  ~Shield() { UnshieldSecret(bytes); }
};

#endif
