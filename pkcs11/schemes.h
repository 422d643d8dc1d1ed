// What a mechanism makes of the input before a key works on it, and of the result after: the
// paddings of RSA, r || s, the hash of an SM2 user, the orders of an SM2 ciphertext. The keys work
// in the device module, without its lock.
//
// What every function shares: the operation is active and has a key of the mechanism's kind. A
// result is written on CKR_OK only, to a buffer of the size that goes with it.
#ifndef VAKRO_PKCS11_SCHEMES_H
#define VAKRO_PKCS11_SCHEMES_H

#include "pkcs11/operation.h"

// The largest RSA modulus that OpenSSL works with, in bytes.
inline constexpr size_t MAX_MODULUS_SIZE = OPENSSL_RSA_MAX_MODULUS_BITS / 8;
inline constexpr size_t PKCS_PADDING_SIZE = 11;  // at least; RFC 8017, 7.2 and 9.2

inline size_t ModulusSize(const Key& key) {
  return static_cast<size_t>(EVP_PKEY_get_size(key.publicKey->key));
}

// --- Parameters (parameters.cpp) -----------------------------------------------------------------

// TakeParameters reads the mechanism's parameter into the operation and checks that it and the key
// go together. SM2 with SM3: feeds the hash of the user, whose identifier the parameter is.
CK_RV TakeParameters(Operation& operation, const CK_MECHANISM& given);

// MaxInput returns how many bytes the operation can gather for the key.
size_t MaxInput(const Operation& operation);

// --- Signatures (signature.cpp) ------------------------------------------------------------------
// `input` is the digest, or what the program gives in its place.

size_t SignatureSize(const Key& key);
CK_RV SignInput(const Operation& operation, Bytes input, unsigned char* signature);
CK_RV VerifyInput(const Operation& operation, Bytes input, Bytes signature);

// --- Encryption (encryption.cpp): of what the operation has gathered -----------------------------
// Of the sizes, `inputLen` is the length of all input; that of a plaintext is a bound.

size_t CiphertextSize(const Operation& operation, size_t inputLen);
size_t MaxPlaintextSize(const Operation& operation, size_t inputLen);
CK_RV Encrypt(Operation& operation, unsigned char* ciphertext);

// Decrypt has room for the bound and gives the true length in *length. On SM2 it can't be repeated.
CK_RV Decrypt(Operation& operation, unsigned char* plaintext, size_t* length);

// FillRaw writes the number `input`, as long as the modulus at most, to a block of the modulus
// size. Returns false when it is not below the modulus.
bool FillRaw(const Key& key, Bytes input, unsigned char* block);

// --- SM2 (sm2_user.cpp) --------------------------------------------------------------------------

// HashSm2User feeds Z to the digest: GB/T 32918.2, 5.5.
CK_RV HashSm2User(EVP_MD_CTX* digest, const Key& key, Bytes identifier);

#endif
