// A private key in use. Inside keypair/ only.
#ifndef VAKRO_KEYPAIR_PRIVATE_KEY_H
#define VAKRO_KEYPAIR_PRIVATE_KEY_H

#include "core/openssl_owners.h"
#include "core/records.h"

// What a signature or decryption takes of a keypair's record, all of it from the same moment.
struct PrivateKey {
  EvpKey key;  // with a reference of its own: the record may get another key meanwhile
  int curve = 0;
  SigningFactor factor = {};
  PrivateKey() = default;
  PrivateKey(const PrivateKey&) = delete;
  PrivateKey& operator=(const PrivateKey&) = delete;
  ~PrivateKey() { OPENSSL_cleanse(&factor, sizeof(factor)); }
};

// FetchPrivateKey takes all this from the record, under the key lock. Returns 1; -8 when there is
// no key; 0 on failure.
int FetchPrivateKey(const Keypair* keypair, PrivateKey& fetched);

// KeepSigningFactor leaves the factor with the record it was fetched from, if that still has the
// same key. Takes the key lock.
void KeepSigningFactor(Keypair* keypair, const PrivateKey& fetched);

#endif
