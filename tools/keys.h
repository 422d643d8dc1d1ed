// Public keys on their way between the module's encodings and the forms that other programs read.
#ifndef VAKRO_TOOLS_KEYS_H
#define VAKRO_TOOLS_KEYS_H

#include "sm2/sm2.h"
#include "tools/files.h"
#include "tools/session.h"

#include <openssl/bio.h>

using Bio = std::unique_ptr<BIO, Release<BIO_free_all>>;
using FieldNumber = Wiped<SM2_FIELD_SIZE>;  // a coordinate or a private scalar

inline constexpr int RSA_WEAK_BITS = 2048;  // what has fewer is within reach of the well-funded

// What a key can do: RSA PKCS#1 v1.5, ECDSA, or SM2.
enum class Kind { RSA_PKCS1, ECDSA, SM2 };

// A public key, as the module and as OpenSSL hold it.
struct PublicPart {
  Kind kind;
  int bits;
  PublicHandle handle;
  EvpKey key;
};

// PublicKeyOf decodes the stored public key for OpenSSL, on whatever curve; NULL for a broken one.
EvpKey PublicKeyOf(const Keypair* keypair);

// DerOf is the SubjectPublicKeyInfo. A fingerprint is the SHA-256 of bytes, in hex; a key's is that
// of its DerOf, and empty for a broken one.
Bytes DerOf(EVP_PKEY* publicKey);
std::string FingerprintOf(ByteSpan bytes);
std::string FingerprintOf(Keypair* keypair);

// KindName is a name to show, such as "RSA-2048", "P-256" or "SM2"; "unknown" for a broken record.
std::string KindName(Keypair* keypair);
std::string KindName(EVP_PKEY* key);  // names also what no device can hold, such as "Ed25519"

PublicPart PublicPartOf(Keypair* keypair);  // needs no PIN, also for SM2

// SamePublicKey compares the public part of a private key, as the module has it, with a public key.
bool SamePublicKey(EVP_PKEY* privateKey, EVP_PKEY* publicKey);

// RequireOwnKey fails unless the stored public key is that of the private key. Needs the PIN.
void RequireOwnKey(Keypair* keypair, const PublicPart& key);
PublicPart PublicPartOf(EVP_PKEY* key);  // fails unless the key is RSA, P-256 or SM2

int CurveOf(EVP_PKEY* key);  // CURVE_P256, CURVE_SM2, or 0 for any other key

// NumberOf reads a number of a P-256 or SM2 key by its OpenSSL parameter name; it is to be wiped.
void NumberOf(EVP_PKEY* key, const char* parameter, FieldNumber& number);

std::string PemOf(EVP_PKEY* publicKey);  // SubjectPublicKeyInfo
std::string TextOf(BIO* memory);         // what was written to a memory BIO
std::string OpenSslError();              // the oldest queued error in words; empties the queue

#endif
