// The parameters of the mechanisms, and what they ask of a key.
#include "pkcs11/schemes.h"

#include "sm2/sm2.h"

#include <limits.h>

// The identifier of a user who has none: GM/T 0009.
static constexpr unsigned char DEFAULT_SM2_USER[] = {'1', '2', '3', '4', '5', '6', '7', '8',
                                                     '1', '2', '3', '4', '5', '6', '7', '8'};

template <class Parameters>
static const Parameters* ParametersOf(const CK_MECHANISM& given) {
  return given.ulParameterLen == sizeof(Parameters)
             ? static_cast<const Parameters*>(given.pParameter)
             : nullptr;
}

// RFC 8017, 9.1.1: the encoded message has to hold digest, salt and two bytes. It has one bit less
// than the modulus.
static CK_RV TakePss(Operation& operation, const CK_MECHANISM& given) {
  const auto* const pss = ParametersOf<CK_RSA_PKCS_PSS_PARAMS>(given);
  if (pss == nullptr) return CKR_MECHANISM_PARAM_INVALID;
  operation.hash = FindHash(pss->hashAlg);
  operation.mask = FindMask(pss->mgf);
  const Hash* const own = operation.mechanism->hash;
  if (operation.hash == nullptr || operation.mask == nullptr ||
      (own != nullptr && own != operation.hash) || pss->sLen > MAX_MODULUS_SIZE)
    return CKR_MECHANISM_PARAM_INVALID;
  operation.saltLen = static_cast<int>(pss->sLen);
  const auto bits = static_cast<size_t>(EVP_PKEY_get_bits(operation.key->publicKey->key));
  const size_t room = (bits - 1 + 7) / 8;
  if (room < operation.hash->size + 2) return CKR_KEY_SIZE_RANGE;
  return pss->sLen <= room - operation.hash->size - 2 ? CKR_OK : CKR_MECHANISM_PARAM_INVALID;
}

static CK_RV TakeOaep(Operation& operation, const CK_MECHANISM& given) {
  const auto* const oaep = ParametersOf<CK_RSA_PKCS_OAEP_PARAMS>(given);
  if (oaep == nullptr) return CKR_MECHANISM_PARAM_INVALID;
  operation.hash = FindHash(oaep->hashAlg);
  operation.mask = FindMask(oaep->mgf);
  const auto* const label = static_cast<const unsigned char*>(oaep->pSourceData);
  const CK_ULONG labelLen = oaep->ulSourceDataLen;
  // Some programs leave the source 0 when there is no label.
  const bool sourceKnown =
      oaep->source == CKZ_DATA_SPECIFIED || (oaep->source == 0 && labelLen == 0);
  if (operation.hash == nullptr || operation.mask == nullptr || !sourceKnown ||
      (label == nullptr && labelLen > 0) || labelLen > INT_MAX)
    return CKR_MECHANISM_PARAM_INVALID;
  if (ModulusSize(*operation.key.key) < 2 * operation.hash->size + 2) return CKR_KEY_SIZE_RANGE;
  return operation.label.Append({label, labelLen}) ? CKR_OK : CKR_HOST_MEMORY;
}

static CK_RV TakeSm2User(Operation& operation, const CK_MECHANISM& given) {
  const Bytes user = {static_cast<const unsigned char*>(given.pParameter), given.ulParameterLen};
  return HashSm2User(operation.digest.get(), *operation.key.key,
                     user.empty() ? Bytes(DEFAULT_SM2_USER) : user);
}

static CK_RV CheckPkcs(const Operation& operation) {
  const Hash* const hash = operation.mechanism->hash;
  const size_t needed = hash == nullptr ? 0 : hash->prefixLen + hash->size;
  return ModulusSize(*operation.key.key) >= needed + PKCS_PADDING_SIZE ? CKR_OK
                                                                       : CKR_KEY_SIZE_RANGE;
}

CK_RV TakeParameters(Operation& operation, const CK_MECHANISM& given) {
  const Mechanism& mechanism = *operation.mechanism;
  if (mechanism.key == KeyKind::KEY_RSA && ModulusSize(*operation.key.key) > MAX_MODULUS_SIZE)
    return CKR_KEY_SIZE_RANGE;
  switch (mechanism.scheme) {
    case Scheme::RSA_PSS:
      return TakePss(operation, given);
    case Scheme::RSA_OAEP:
      return TakeOaep(operation, given);
    case Scheme::SM2_SIGN:
      if (mechanism.hash != nullptr) return TakeSm2User(operation, given);
      break;
    case Scheme::RSA_PKCS:
      if (const CK_RV checked = CheckPkcs(operation); checked != CKR_OK) return checked;
      break;
    default:
      break;
  }
  return given.ulParameterLen == 0 ? CKR_OK : CKR_MECHANISM_PARAM_INVALID;
}

size_t MaxInput(const Operation& operation) {
  const Key& key = *operation.key.key;
  const bool padded = operation.use != CKF_DECRYPT;
  switch (operation.mechanism->scheme) {
    case Scheme::RSA_PKCS:
      return ModulusSize(key) - (padded ? PKCS_PADDING_SIZE : 0);
    case Scheme::RSA_RAW:
      return ModulusSize(key);
    case Scheme::RSA_PSS:
      return operation.hash->size;
    case Scheme::RSA_OAEP:
      return ModulusSize(key) - (padded ? 2 * operation.hash->size + 2 : 0);
    case Scheme::SM2_SIGN:
      return SM2_FIELD_SIZE;
    default:
      return INT_MAX - SM2_CIPHER_OVERHEAD;
  }
}
