// Keypairs: their access, the protection of private keys at rest, generation and import, public
// keys, and the key operations. The exported functions are in include/vakro_device.h.
//
// What every function shares: 1 is success and 0 failure unless another result is given;
// out-arguments are written on success only. "Caller locks" means the module lock.
#ifndef VAKRO_KEYPAIR_KEYPAIR_H
#define VAKRO_KEYPAIR_KEYPAIR_H

#include "core/records.h"
#include "vakro_crypto.h"

typedef struct rsa_st RSA;  // OpenSSL's

inline constexpr int PRIVATE_KEY_CIPHER_ID = VAKRO_CIPHER_AES256_GCM;
inline constexpr int MAGIC_SIZE = 8;        // of both key encodings
inline constexpr int KEY_HEADER_SIZE = 12;  // magic and algorithm word
inline constexpr char KEYPAIR_MAGIC[] = "_KEYPAIR";
inline constexpr char PUBLIC_KEY_MAGIC[] = "_PUBKEY_";

extern "C" {

// --- Access (access.cpp) -------------------------------------------------------------------------

int HasKeypair(const Device* device, unsigned int type, const char* label);  // 1 or 0. Caller locks
EVP_PKEY* GetPrivateKey(const Keypair* keypair);  // borrowed; NULL: not available. Caller locks

// DeleteKeypairFromDevice takes the keypair out of the device's list, if it is there; neither the
// file nor refCount changes. 0 for a NULL device. Caller locks.
int DeleteKeypairFromDevice(Device* device, Keypair* keypair);

// --- Private keys at rest (protection.cpp) -------------------------------------------------------
// The cipher key and part of the nonce come from the PIN by PBKDF2 (RFC 8018); see
// docs/device-file.md. Caller locks.

// These give the keypair, whose salt, iv and encryptedPrivateKey are empty, fresh ones: its
// privateKey under the device's `pin`. On 0 the three stay empty.
int EncryptRSAKeypair(Device* device, Keypair* keypair);
int EncryptECCKeypair(Device* device, Keypair* keypair);  // also reads keypair->curve

// EncryptKeypairData sets encryptedPrivateKey from a plaintext, with salt and iv already set.
int EncryptKeypairData(Device* device, Keypair* keypair, const unsigned char* plaintext,
                       int plaintextLen);

// EncodeRSAKeypair hands out the keypair encoding in crypto-library memory; wipe it after use.
int EncodeRSAKeypair(RSA* rsa, unsigned char** encoding, int* encodingLen);

// IsKeypairsPin returns 1 when `pin` deciphers the stored private key, whether that can be used or
// not (it may be on a curve that can't be opened); else 0.
int IsKeypairsPin(const Keypair* keypair, const char* pin);

// DecryptKeyPair decrypts a device keypair's private key with `pin`, whatever the device's own. A
// new key, or NULL: wrong PIN, damage or failure. *curve is written for an elliptic-curve key.
EVP_PKEY* DecryptKeyPair(unsigned int algorithm, const Keypair* keypair, const char* pin,
                         int* curve);

EVP_PKEY* DecodePair(unsigned int algorithm, const unsigned char* encoding, int length, int* curve);
EVP_PKEY* DecodeRSAPair(const unsigned char* der, int length);  // refuses bytes left over

// --- Generation (generate.cpp) and import (import.cpp) -------------------------------------------

RSA* GenerateRSAKeypair(unsigned int bits, const RSAKeypairParams* params);
int GenerateTempRSAKeypair(unsigned int bits, const RSAKeypairParams* params, unsigned int type,
                           Keypair** out);
int IsGenerateTempRSAKeypair(const RSAKeypairParams* params);

// DecodeKeypair makes a keypair, private key included, of a keypair encoding of 16 bytes or more,
// RSA or elliptic curve by its head. It has no label yet and is on no device (FreeKeypair). NULL
// for a broken encoding, or without memory.
Keypair* DecodeKeypair(const unsigned char* encoding, int encodingLen, unsigned int type);

// AppendKeypair enciphers such a keypair under the PIN of a verified record and puts it behind the
// record's others, in memory only. It takes `made` over, also on failure. Returns 1; -21 when the
// record is full; 0. Caller locks, or owns the record.
int AppendKeypair(Device* device, Keypair* made);

// --- Public keys (public_key.cpp) ----------------------------------------------------------------

PublicKey* NewPublicKey(void);
EVP_PKEY* GetPublicKey(unsigned int algorithm, const unsigned char* encoding, int length, int* bits,
                       int* curve);
EVP_PKEY* WrapRSA(RSA* rsa);  // a new key that holds a reference on `rsa`, or NULL
EVP_PKEY* GetRSAPublicKey(const unsigned char* encoding, int length, int* bits);

// ToRSAPublicKeyEncode hands out the public-key encoding in crypto-library memory.
int ToRSAPublicKeyEncode(RSA* rsa, unsigned char** encoding, int* encodingLen);

}  // extern "C"
#endif
