// The mechanisms: one table, one row a mechanism, from which the lists that programs ask for and
// the work of every operation come; and the table of hashes behind it.
//
// SM2 and SM3 have no numbers in the published standard. Theirs lie in the vendor range and can be
// changed by configuration, so that a program that knows them under others finds them.
#ifndef VAKRO_PKCS11_MECHANISMS_H
#define VAKRO_PKCS11_MECHANISMS_H

#include "pkcs11/cryptoki.h"

#include <openssl/types.h>

#include <stddef.h>
#include <string_view>

inline constexpr CK_KEY_TYPE VENDOR_KEY_SM2 = CKK_VENDOR_DEFINED | 0x534D32;
inline constexpr CK_MECHANISM_TYPE VENDOR_SM2_KEY_PAIR_GEN = CKM_VENDOR_DEFINED | 0x534D20;
inline constexpr CK_MECHANISM_TYPE VENDOR_SM2 = CKM_VENDOR_DEFINED | 0x534D21;
inline constexpr CK_MECHANISM_TYPE VENDOR_SM2_SM3 = CKM_VENDOR_DEFINED | 0x534D22;
inline constexpr CK_MECHANISM_TYPE VENDOR_SM2_ENCRYPT = CKM_VENDOR_DEFINED | 0x534D23;
inline constexpr CK_MECHANISM_TYPE VENDOR_SM2_ENCRYPT_C1C3C2 = CKM_VENDOR_DEFINED | 0x534D24;
inline constexpr CK_MECHANISM_TYPE VENDOR_SM3 = CKM_VENDOR_DEFINED | 0x534D30;

inline constexpr size_t MAX_HASH_SIZE = 64;
inline constexpr size_t MAX_DIGEST_INFO_PREFIX = 19;

struct Hash {
  CK_MECHANISM_TYPE type;     // of the digest alone; also how a parameter names the hash
  CK_RSA_PKCS_MGF_TYPE mask;  // MGF1 with this hash; 0 for none
  const EVP_MD* (*method)();
  size_t size;  // of a digest, in bytes
  // What stands before the digest in a DigestInfo, RFC 8017, section 9.2.
  size_t prefixLen;
  unsigned char prefix[MAX_DIGEST_INFO_PREFIX];
};

enum class KeyKind { NONE, KEY_RSA, KEY_EC, KEY_SM2 };

enum class Scheme {
  GENERATE,
  DIGEST,
  RSA_PKCS,    // RFC 8017, 7.2 and 8.2
  RSA_RAW,     // a block of the modulus size
  RSA_PSS,     // RFC 8017, 8.1
  RSA_OAEP,    // RFC 8017, 7.1
  ECDSA,       // signature r || s, each as long as the order
  SM2_SIGN,    // GB/T 32918.2, signature r || s
  SM2_C1C2C3,  // GB/T 32918.4, C1 uncompressed
  SM2_C1C3C2,
};

struct Mechanism {
  const char* name;
  CK_MECHANISM_TYPE type;
  CK_ULONG minBits;  // of the key; 0 without one
  CK_ULONG maxBits;
  CK_FLAGS flags;
  KeyKind key;
  Scheme scheme;
  const Hash* hash;  // of the message; NULL: the caller gives the digest or the block itself
};

// FindMechanism and FindHash return a row, or NULL. Rows live as long as the library.
const Mechanism* FindMechanism(CK_MECHANISM_TYPE type);
const Hash* FindHash(CK_MECHANISM_TYPE type);

// FindMask returns the hash of a mask generation function, or NULL.
const Hash* FindMask(CK_RSA_PKCS_MGF_TYPE mask);

// AnswerMechanismList and AnswerMechanismInfo are C_GetMechanismList and C_GetMechanismInfo for any
// token: all have the same mechanisms.
CK_RV AnswerMechanismList(CK_MECHANISM_TYPE* list, CK_ULONG* count);
CK_RV AnswerMechanismInfo(CK_MECHANISM_TYPE type, CK_MECHANISM_INFO* info);

// Configuration. SetVendorNumber gives the key type ("CKK_SM2") or the mechanism of that name
// ("CKM_SM3") another number and returns true; false for a name that it doesn't know and a number
// that is outside of the vendor range or taken. Neither may run beside other calls.
bool SetVendorNumber(std::string_view name, CK_ULONG number);
void ResetVendorNumbers();
CK_KEY_TYPE SM2KeyType();

#endif
