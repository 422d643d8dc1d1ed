// The table of mechanisms, and what is answered from it.
#include "pkcs11/mechanisms.h"

#include <openssl/evp.h>

#include <iterator>

// The prefixes of the SHA-2 family differ in the last byte of the identifier and in lengths.
#define SHA2_PREFIX(identifier, size)                                                            \
  19, {                                                                                          \
    0x30, 0x11 + (size), 0x30, 0x0d, 0x06, 0x09, 0x60, 0x86, 0x48, 0x01, 0x65, 0x03, 0x04, 0x02, \
        identifier, 0x05, 0x00, 0x04, size                                                       \
  }
#define SHA1_PREFIX \
  15, { 0x30, 0x21, 0x30, 0x09, 0x06, 0x05, 0x2b, 0x0e, 0x03, 0x02, 0x1a, 0x05, 0x00, 0x04, 20 }

static constexpr Hash SHA1 = {CKM_SHA_1, CKG_MGF1_SHA1, EVP_sha1, 20, SHA1_PREFIX};
static constexpr Hash SHA224 = {CKM_SHA224, CKG_MGF1_SHA224, EVP_sha224, 28, SHA2_PREFIX(4, 28)};
static constexpr Hash SHA256 = {CKM_SHA256, CKG_MGF1_SHA256, EVP_sha256, 32, SHA2_PREFIX(1, 32)};
static constexpr Hash SHA384 = {CKM_SHA384, CKG_MGF1_SHA384, EVP_sha384, 48, SHA2_PREFIX(2, 48)};
static constexpr Hash SHA512 = {CKM_SHA512, CKG_MGF1_SHA512, EVP_sha512, 64, SHA2_PREFIX(3, 64)};
static constexpr Hash SM3 = {VENDOR_SM3, 0, EVP_sm3, 32, 0, {}};

// The hashes that a parameter of PSS and OAEP can name.
static constexpr const Hash* HASHES[] = {&SHA1, &SHA224, &SHA256, &SHA384, &SHA512};

static constexpr CK_FLAGS PAIR = CKF_GENERATE_KEY_PAIR;
static constexpr CK_FLAGS SIGN = CKF_SIGN | CKF_VERIFY;
static constexpr CK_FLAGS CRYPT = CKF_ENCRYPT | CKF_DECRYPT;
static constexpr CK_FLAGS CURVES = CKF_EC_F_P | CKF_EC_NAMEDCURVE | CKF_EC_UNCOMPRESS;

#define NAMED(type) #type, type
#define VENDOR(name) "CKM_" #name, VENDOR_##name

// Only the numbers of the vendor range change.
static constinit Mechanism g_mechanisms[] = {
    {NAMED(CKM_RSA_PKCS_KEY_PAIR_GEN), 1024, 4096, PAIR, KeyKind::KEY_RSA, Scheme::GENERATE,
     nullptr},
    {NAMED(CKM_RSA_PKCS), 1024, 4096, SIGN | CRYPT, KeyKind::KEY_RSA, Scheme::RSA_PKCS, nullptr},
    {NAMED(CKM_RSA_X_509), 1024, 4096, SIGN | CRYPT, KeyKind::KEY_RSA, Scheme::RSA_RAW, nullptr},
    {NAMED(CKM_SHA1_RSA_PKCS), 1024, 4096, SIGN, KeyKind::KEY_RSA, Scheme::RSA_PKCS, &SHA1},
    {NAMED(CKM_SHA224_RSA_PKCS), 1024, 4096, SIGN, KeyKind::KEY_RSA, Scheme::RSA_PKCS, &SHA224},
    {NAMED(CKM_SHA256_RSA_PKCS), 1024, 4096, SIGN, KeyKind::KEY_RSA, Scheme::RSA_PKCS, &SHA256},
    {NAMED(CKM_SHA384_RSA_PKCS), 1024, 4096, SIGN, KeyKind::KEY_RSA, Scheme::RSA_PKCS, &SHA384},
    {NAMED(CKM_SHA512_RSA_PKCS), 1024, 4096, SIGN, KeyKind::KEY_RSA, Scheme::RSA_PKCS, &SHA512},
    {NAMED(CKM_RSA_PKCS_PSS), 1024, 4096, SIGN, KeyKind::KEY_RSA, Scheme::RSA_PSS, nullptr},
    {NAMED(CKM_SHA1_RSA_PKCS_PSS), 1024, 4096, SIGN, KeyKind::KEY_RSA, Scheme::RSA_PSS, &SHA1},
    {NAMED(CKM_SHA224_RSA_PKCS_PSS), 1024, 4096, SIGN, KeyKind::KEY_RSA, Scheme::RSA_PSS, &SHA224},
    {NAMED(CKM_SHA256_RSA_PKCS_PSS), 1024, 4096, SIGN, KeyKind::KEY_RSA, Scheme::RSA_PSS, &SHA256},
    {NAMED(CKM_SHA384_RSA_PKCS_PSS), 1024, 4096, SIGN, KeyKind::KEY_RSA, Scheme::RSA_PSS, &SHA384},
    {NAMED(CKM_SHA512_RSA_PKCS_PSS), 1024, 4096, SIGN, KeyKind::KEY_RSA, Scheme::RSA_PSS, &SHA512},
    {NAMED(CKM_RSA_PKCS_OAEP), 1024, 4096, CRYPT, KeyKind::KEY_RSA, Scheme::RSA_OAEP, nullptr},
    {NAMED(CKM_EC_KEY_PAIR_GEN), 256, 256, PAIR | CURVES, KeyKind::KEY_EC, Scheme::GENERATE,
     nullptr},
    {NAMED(CKM_ECDSA), 256, 256, SIGN | CURVES, KeyKind::KEY_EC, Scheme::ECDSA, nullptr},
    {NAMED(CKM_ECDSA_SHA1), 256, 256, SIGN | CURVES, KeyKind::KEY_EC, Scheme::ECDSA, &SHA1},
    {NAMED(CKM_ECDSA_SHA224), 256, 256, SIGN | CURVES, KeyKind::KEY_EC, Scheme::ECDSA, &SHA224},
    {NAMED(CKM_ECDSA_SHA256), 256, 256, SIGN | CURVES, KeyKind::KEY_EC, Scheme::ECDSA, &SHA256},
    {NAMED(CKM_ECDSA_SHA384), 256, 256, SIGN | CURVES, KeyKind::KEY_EC, Scheme::ECDSA, &SHA384},
    {NAMED(CKM_ECDSA_SHA512), 256, 256, SIGN | CURVES, KeyKind::KEY_EC, Scheme::ECDSA, &SHA512},
    {VENDOR(SM2_KEY_PAIR_GEN), 256, 256, PAIR | CURVES, KeyKind::KEY_SM2, Scheme::GENERATE,
     nullptr},
    {VENDOR(SM2), 256, 256, SIGN | CURVES, KeyKind::KEY_SM2, Scheme::SM2_SIGN, nullptr},
    {VENDOR(SM2_SM3), 256, 256, SIGN | CURVES, KeyKind::KEY_SM2, Scheme::SM2_SIGN, &SM3},
    {VENDOR(SM2_ENCRYPT), 256, 256, CRYPT | CURVES, KeyKind::KEY_SM2, Scheme::SM2_C1C2C3, nullptr},
    {VENDOR(SM2_ENCRYPT_C1C3C2), 256, 256, CRYPT | CURVES, KeyKind::KEY_SM2, Scheme::SM2_C1C3C2,
     nullptr},
    {NAMED(CKM_SHA_1), 0, 0, CKF_DIGEST, KeyKind::NONE, Scheme::DIGEST, &SHA1},
    {NAMED(CKM_SHA224), 0, 0, CKF_DIGEST, KeyKind::NONE, Scheme::DIGEST, &SHA224},
    {NAMED(CKM_SHA256), 0, 0, CKF_DIGEST, KeyKind::NONE, Scheme::DIGEST, &SHA256},
    {NAMED(CKM_SHA384), 0, 0, CKF_DIGEST, KeyKind::NONE, Scheme::DIGEST, &SHA384},
    {NAMED(CKM_SHA512), 0, 0, CKF_DIGEST, KeyKind::NONE, Scheme::DIGEST, &SHA512},
    {VENDOR(SM3), 0, 0, CKF_DIGEST, KeyKind::NONE, Scheme::DIGEST, &SM3},
};

static constexpr CK_ULONG MECHANISM_COUNT = std::size(g_mechanisms);

namespace {
struct VendorNumber {
  std::string_view name;
  CK_MECHANISM_TYPE number;
};
}  // namespace

static constexpr VendorNumber VENDOR_NUMBERS[] = {
    {VENDOR(SM2_KEY_PAIR_GEN)},   {VENDOR(SM2)}, {VENDOR(SM2_SM3)}, {VENDOR(SM2_ENCRYPT)},
    {VENDOR(SM2_ENCRYPT_C1C3C2)}, {VENDOR(SM3)},
};

static constinit CK_KEY_TYPE g_sm2KeyType = VENDOR_KEY_SM2;

const Mechanism* FindMechanism(CK_MECHANISM_TYPE type) {
  for (const Mechanism& mechanism : g_mechanisms) {
    if (mechanism.type == type) return &mechanism;
  }
  return nullptr;
}

const Hash* FindHash(CK_MECHANISM_TYPE type) {
  for (const Hash* hash : HASHES) {
    if (hash->type == type) return hash;
  }
  return nullptr;
}

const Hash* FindMask(CK_RSA_PKCS_MGF_TYPE mask) {
  for (const Hash* hash : HASHES) {
    if (hash->mask == mask) return hash;
  }
  return nullptr;
}

CK_RV AnswerMechanismList(CK_MECHANISM_TYPE* list, CK_ULONG* count) {
  if (count == nullptr) return CKR_ARGUMENTS_BAD;
  const CK_ULONG room = *count;
  *count = MECHANISM_COUNT;
  if (list == nullptr) return CKR_OK;
  if (room < MECHANISM_COUNT) return CKR_BUFFER_TOO_SMALL;
  for (const Mechanism& mechanism : g_mechanisms) *list++ = mechanism.type;
  return CKR_OK;
}

CK_RV AnswerMechanismInfo(CK_MECHANISM_TYPE type, CK_MECHANISM_INFO* info) {
  if (info == nullptr) return CKR_ARGUMENTS_BAD;
  const Mechanism* const mechanism = FindMechanism(type);
  if (mechanism == nullptr) return CKR_MECHANISM_INVALID;
  *info = {mechanism->minBits, mechanism->maxBits, mechanism->flags};
  return CKR_OK;
}

static Mechanism* FindNamed(std::string_view name) {
  for (Mechanism& mechanism : g_mechanisms) {
    if (mechanism.name == name) return &mechanism;
  }
  return nullptr;
}

bool SetVendorNumber(std::string_view name, CK_ULONG number) {
  if (number < CKM_VENDOR_DEFINED || number > 0xFFFFFFFF) return false;
  if (name == "CKK_SM2") {
    g_sm2KeyType = number;
    return true;
  }
  for (const VendorNumber& vendor : VENDOR_NUMBERS) {
    if (vendor.name != name) continue;
    const Mechanism* const holder = FindMechanism(number);
    Mechanism* const mechanism = FindNamed(name);
    if (mechanism == nullptr || (holder != nullptr && holder != mechanism)) return false;
    mechanism->type = number;
    return true;
  }
  return false;
}

void ResetVendorNumbers() {
  g_sm2KeyType = VENDOR_KEY_SM2;
  for (const VendorNumber& vendor : VENDOR_NUMBERS) {
    Mechanism* const mechanism = FindNamed(vendor.name);
    if (mechanism != nullptr) mechanism->type = vendor.number;
  }
}

CK_KEY_TYPE SM2KeyType() { return g_sm2KeyType; }
