// The crypto library, libvakro_crypto.so: software device, hash, MAC and cipher objects, hex
// coding, and the encodings of keys and signatures. This header is the contract that a
// replacement of the library keeps.
//
// What every function shares:
//   Results   1 is success, 0 failure (memory, unknown id, malformed input, NULL where a value is
//             required, a negative length); out-arguments are written on 1 only.
//   Memory    every buffer handed out is the library's and goes back with
//             VakroPKICryptoFreeMemory. The utility library shares its heap, so either library's
//             release takes the other's buffers.
//   Lengths   `int`, in bytes; NULL may stand for 0 bytes. Numbers in bytes are big-endian.
//   Objects   after its final step an object can only be released.
//   Threads   a device may be shared; an object belongs to one thread at a time.
#ifndef VAKRO_CRYPTO_H
#define VAKRO_CRYPTO_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

typedef struct VakroPKICryptoDevice VakroPKICryptoDevice;
typedef struct VakroPKICryptoHash VakroPKICryptoHash;
typedef struct VakroPKICryptoMac VakroPKICryptoMac;
typedef struct VakroPKICryptoCipher VakroPKICryptoCipher;

enum VakroPKICryptoId {
  VAKRO_HASH_SHA512 = 0x6000,  // FIPS 180-4, 64 bytes; as a MAC: HMAC (FIPS 198-1)
  VAKRO_HASH_SM3 = 0x7000,     // GB/T 32905, 32 bytes; as a MAC: HMAC
  VAKRO_CIPHER_AES256_GCM = 0x6800000,
};

enum VakroPKICryptoPadding { VAKRO_PADDING_NONE = 2 };

// Parameters of an authenticated cipher. The caller's pointers must live until the cipher is made.
typedef struct AEADParams {
  int tagLen;                  // bytes of the tag: 16
  const unsigned char* nonce;  // 1 to 64 bytes
  int nonceLen;
  const unsigned char* aad;  // associated data
  int64_t aadLen;            // less than 2^31
} AEADParams;

// VakroPKICryptoGetPseudoDevice returns a handle of the software device, or NULL. Objects made on
// it outlive it.
VakroPKICryptoDevice* VakroPKICryptoGetPseudoDevice(void);
void VakroPKICryptoFreeDevice(VakroPKICryptoDevice* device);  // NULL is ignored

// VakroPKICryptoFreeMemory releases a buffer. NULL is ignored.
void VakroPKICryptoFreeMemory(void* buffer);

// --- Hash -----------------------------------------------------------------------------------

VakroPKICryptoHash* VakroPKICryptoNewHash(VakroPKICryptoDevice* device, int algorithm);
int VakroPKICryptoHashUpdate(VakroPKICryptoHash* hash, const unsigned char* data, int length);
int VakroPKICryptoHashFinal(VakroPKICryptoHash* hash, unsigned char** digest, int* digestLength);
void VakroPKICryptoFreeHash(VakroPKICryptoHash* hash);  // NULL is ignored

// --- MAC ------------------------------------------------------------------------------------

// `parameters` must be NULL.
VakroPKICryptoMac* VakroPKICryptoNewMac(VakroPKICryptoDevice* device, int algorithm,
                                        const unsigned char* key, int keyLength,
                                        const void* parameters);
int VakroPKICryptoMacUpdate(VakroPKICryptoMac* mac, const unsigned char* data, int length);
int VakroPKICryptoMacFinal(VakroPKICryptoMac* mac, unsigned char** value, int* valueLength);
void VakroPKICryptoFreeMac(VakroPKICryptoMac* mac);  // NULL is ignored

// --- Cipher ---------------------------------------------------------------------------------

// VakroPKICryptoNewCipher makes a cipher object; `encrypt` is 1 to encipher, 0 to decipher.
// AES-256-GCM (NIST SP 800-38D) takes a 32-byte key and emits the ciphertext, then the tag.
// Deciphering releases no byte before the tag has been checked: its update steps hand out nothing
// and the final step everything, or fails.
VakroPKICryptoCipher* VakroPKICryptoNewCipher(VakroPKICryptoDevice* device, int encrypt,
                                              int algorithm, const unsigned char* key,
                                              int keyLength, const AEADParams* params);
int VakroPKICryptoCipherSetPadding(VakroPKICryptoCipher* cipher, int padding);
int VakroPKICryptoCipherUpdate(VakroPKICryptoCipher* cipher, const unsigned char* input,
                               int inputLength, unsigned char** output, int* outputLength);
int VakroPKICryptoCipherFinal(VakroPKICryptoCipher* cipher, unsigned char** output,
                              int* outputLength);
void VakroPKICryptoFreeCipher(VakroPKICryptoCipher* cipher);  // NULL is ignored

// --- Hex ------------------------------------------------------------------------------------

// Mode 1, the only one, writes lower case; the decoder takes both cases.
int VakroPKICryptoHexEncode(int mode, const unsigned char* bytes, int length, char** text,
                            int* textLength);
int VakroPKICryptoHexDecode(const char* text, int length, unsigned char** bytes, int* byteLength);

// --- Key encodings --------------------------------------------------------------------------
//
// A keypair encoding is "_KEYPAIR" and a public-key encoding "_PUBKEY_", then the key algorithm
// as a word (1 RSA, 4 elliptic curve), then the body:
//   RSA   the PKCS#1 RSAPrivateKey or RSAPublicKey DER (RFC 8017, A.1), to the end
//   EC    | curve | len(x) | x | len(y) | y |, a keypair also | len(d) | d |; words big-endian,
//         numbers as the bytes that were given
// Decoders refuse what is short, long or has bytes behind it, and of DER every form but the one.
// Whether numbers make a key is the caller's to check; RSA moduli and exponents are not 0.

int VakroPKICryptoRSAPrivKeyFromDER(const unsigned char* der, int derLen, unsigned char** encoding,
                                    int* encodingLen);
int VakroPKICryptoRSAPrivKeyToDER(const unsigned char* encoding, int encodingLen,
                                  unsigned char** der, int* derLen);
int VakroPKICryptoRSAPubKeyFromDER(const unsigned char* der, int derLen, unsigned char** encoding,
                                   int* encodingLen);

// VakroPKICryptoDecodeRSAPubKey hands out modulus and public exponent, without leading zeros.
int VakroPKICryptoDecodeRSAPubKey(const unsigned char* encoding, int encodingLen,
                                  unsigned char** modulus, int* modulusLen,
                                  unsigned char** exponent, int* exponentLen);

int VakroPKICryptoEncodeECCKeyPair(int curve, const unsigned char* x, int xLen,
                                   const unsigned char* y, int yLen, const unsigned char* d,
                                   int dLen, unsigned char** out, int* outLen);
int VakroPKICryptoEncodeECCPubKey(int curve, const unsigned char* x, int xLen,
                                  const unsigned char* y, int yLen, unsigned char** out,
                                  int* outLen);
int VakroPKICryptoDecodeECCKeyPair(const unsigned char* data, int len, int* curve,
                                   unsigned char** x, int* xLen, unsigned char** y, int* yLen,
                                   unsigned char** d, int* dLen);
int VakroPKICryptoDecodeECCPubKey(const unsigned char* data, int len, int* curve, unsigned char** x,
                                  int* xLen, unsigned char** y, int* yLen);

// --- ECC signatures -------------------------------------------------------------------------

// DER SEQUENCE { r INTEGER, s INTEGER }, both positive. The encoder takes big-endian bytes with or
// without leading zeros. The decoder takes DER only: minimal lengths, minimal positive integers,
// nothing behind; it hands out r and s without leading zeros.
int VakroPKICryptoEncodeECCSignature(const unsigned char* r, int rLen, const unsigned char* s,
                                     int sLen, unsigned char** out, int* outLen);
int VakroPKICryptoDecodeECCSignature(const unsigned char* sig, int sigLen, unsigned char** r,
                                     int* rLen, unsigned char** s, int* sLen);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
