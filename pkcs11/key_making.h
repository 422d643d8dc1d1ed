// Keypairs made and imported, not on any device yet.
#ifndef VAKRO_PKCS11_KEY_MAKING_H
#define VAKRO_PKCS11_KEY_MAKING_H

#include "core/owners.h"
#include "pkcs11/mechanisms.h"
#include "pkcs11/template.h"

// What a key is to be.
struct KeyRequest {
  KeyKind kind = KeyKind::NONE;
  CK_ULONG bits = 0;  // RSA
  Span exponent;      // RSA; empty: 65537
};

// ReadRequest reads the template of a public key to be made by a mechanism.
CK_RV ReadRequest(const Mechanism& mechanism, const Template& wanted, KeyRequest& request);

// MakeKeypair makes a temporary keypair; takes as long as that takes, and no lock.
CK_RV MakeKeypair(const KeyRequest& request, OwnedKeypair& made);

// ImportKeypair makes one from the template of a private key.
CK_RV ImportKeypair(const Template& wanted, OwnedKeypair& made);

// ReadPublicKey makes the public-key encoding from the template of a public key.
CK_RV ReadPublicKey(const Template& wanted, Buffer& encoding);

#endif
