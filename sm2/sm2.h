// Elliptic curves and the SM2 engine: the SM2 group, the table of curves, the conversion of keys
// to and from the crypto library's encodings, SM2 signature (GB/T 32918.2) and SM2 encryption
// (GB/T 32918.4) over the recommended curve (GB/T 32918.5).
//
// What every function shares: 1 is success and 0 failure unless another result is given; big
// numbers in bytes are big-endian; no function takes the module lock. The signature and encryption
// functions read g_sm2, which must exist, and a key on curve 7.
#ifndef VAKRO_SM2_SM2_H
#define VAKRO_SM2_SM2_H

#include "core/lock.h"
#include "core/records.h"

typedef struct bignum_st BIGNUM;  // OpenSSL's, as the next three
typedef struct ec_group_st EC_GROUP;
typedef struct ec_key_st EC_KEY;
typedef struct ec_point_st EC_POINT;

inline constexpr int SM2_FIELD_SIZE = 32;       // bytes of a coordinate, of the order, of a digest
inline constexpr int SM2_POINT_SIZE = 65;       // 0x04, x, y
inline constexpr int SM2_CIPHER_OVERHEAD = 97;  // C1 and C3
inline constexpr int SM3_HASH_ID = VAKRO_HASH_SM3;

struct SM2Info {
  EC_GROUP* group;  // EC_GROUP_free
  BIGNUM* order;    // BN_free; the order n
};

extern "C" {

// --- Group and curves (curve.cpp) ----------------------------------------------------------------

SM2Info* NewSM2Info(void);  // NULL on any failure
void FreeSM2Info(SM2Info* info);

int GetECCBits(int curve);                         // key size in bits; -1 for an unknown curve
int checkCurveBits(int curve, int bits);           // 1 when they belong together
int GetECCCurveNid(int curve);                     // OpenSSL's NID; -1 for 6, 7 and unknown curves
int IsAllZero(const unsigned char* buf, int len);  // in constant time; 1 for len <= 0
void Xor(unsigned char* dst, const unsigned char* src, int len);

// --- Keys (encoding.cpp) -------------------------------------------------------------------------

// The encodings are crypto-library memory; that of a keypair is secret.
int EncodeECCKeypair(int curve, const EC_KEY* key, unsigned char** out, int* outLen);
int ToECCPublicKeyEncode(int curve, const EC_KEY* key, unsigned char** out, int* outLen);

// The decoders return a new key or NULL and rebuild points of 256-bit curves only; *curve is set
// as soon as the encoding has been read. The scalar is not checked against the point.
EVP_PKEY* DecodeECCPair(const unsigned char* data, int len, int* curve);
EVP_PKEY* GetECCPublicKey(const unsigned char* data, int len, int* bits, int* curve);

// --- Generation (generate.cpp) -------------------------------------------------------------------

int GenerateTempECCKeypair(int curve, int bits, int type, Keypair** out);

// --- Signature (signature.cpp) -------------------------------------------------------------------

// SM2Sign hands out the encoded signature of the digest e in crypto-library memory.
int SM2Sign(EVP_PKEY* key, const unsigned char* e, int eLen, unsigned char** sig, int* sigLen);

// TrySM2Sign makes one attempt, steps A3 to A7: 1, 0, or -1 when the standard asks for a new k.
int TrySM2Sign(const BIGNUM* d, const unsigned char* e, int eLen, unsigned char** sig, int* sigLen);

// SM2FindFactor sees to it that `factor` is the one of `key`: it keeps one that is and replaces any
// other; *isNew tells which. The factor is as secret as the key. Returns 0, and changes nothing,
// for a key that can't sign.
int SM2FindFactor(EVP_PKEY* key, SigningFactor* factor, int* isNew);

// SM2SignWithFactor is SM2Sign for a key whose factor is at hand.
int SM2SignWithFactor(const SigningFactor* factor, const unsigned char* e, int eLen,
                      unsigned char** sig, int* sigLen);

// SM2Verify returns 1 for a valid signature; 0, or the decoder's own result, for any other.
int SM2Verify(EVP_PKEY* key, const unsigned char* e, int eLen, const unsigned char* sig,
              int sigLen);

// --- Encryption (encryption.cpp): C1 || C2 || C3 -------------------------------------------------

// `out` has room for mLen + 97 bytes. On 0 it may hold part of a ciphertext.
int SM2Encrypt(EVP_PKEY* key, const unsigned char* m, int mLen, unsigned char* out);
int TrySM2Encrypt(const EC_POINT* pub, const unsigned char* m, int mLen, unsigned char* out);

// `out` has room for cLen - 97 bytes. On 0 it holds zeros.
int SM2Decrypt(EVP_PKEY* key, const unsigned char* c, int cLen, unsigned char* out);

// SM2KDF writes kLen bytes of key stream, GB/T 32918.4, 5.4.3; nothing for kLen <= 0.
int SM2KDF(const unsigned char* z, int zLen, unsigned char* out, int kLen);

// SM3C3 computes C3 = SM3(x2 || m || y2), 32 bytes; x2 and y2 have 32 bytes each.
int SM3C3(const unsigned char* x2, const unsigned char* y2, const unsigned char* m, int mLen,
          unsigned char* c3);

}  // extern "C"
#endif
