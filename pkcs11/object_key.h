// Keys as objects show them: with the public half in every form that attributes have.
#ifndef VAKRO_PKCS11_OBJECT_KEY_H
#define VAKRO_PKCS11_OBJECT_KEY_H

#include "pkcs11/der.h"
#include "pkcs11/key.h"

// A key with its public half in the forms that attributes have. Every Key is one.
struct ObjectKey : Key {
  Buffer encoding;            // the crypto library's public-key encoding
  Buffer modulus;             // RSA
  Buffer exponent;            // RSA
  Buffer curveOid;            // EC: DER
  Buffer point;               // EC: the point, uncompressed, in a DER OCTET STRING
  Buffer publicKeyInfo;       // SubjectPublicKeyInfo, DER
  unsigned char id[20] = {};  // SHA-1 of the modulus or the point
};

// NewObjectKey makes a key from the crypto library's public-key encoding and, for a private key, a
// handle of its keypair, which it takes over, also on failure. NULL when memory is out or the
// encoding is not one.
ObjectKey* NewObjectKey(Span encoding, Keypair* keypair);

// KeyIdOf gives the id of the key in a certificate: the same that a key object of it has. False
// when memory is out.
bool KeyIdOf(const CertificateParts& parts, unsigned char (&id)[20]);

// The crypto library's public-key encoding of RSA numbers, or of a point on a curve: 04 x y, in a
// DER OCTET STRING or, as some programs give it, without.
bool EncodeRsaPublicKey(Span modulus, Span exponent, Buffer& encoding);
bool EncodeEcPublicKey(int curve, Span point, Buffer& encoding);

// The curve of an OID in DER; 0 for one that is not known.
int CurveOf(Span oid);

#endif
