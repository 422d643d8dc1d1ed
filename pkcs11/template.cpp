// Templates.
#include "pkcs11/template.h"

#include "pkcs11/log.h"

using enum Change;
using enum Form;

static constexpr CK_ULONG MAX_VALUE_SIZE = 0xFFFFFF;

bool Template::IsSound() const {
  if (attributes == nullptr) return count == 0;
  for (CK_ULONG i = 0; i < count; i++)
    if (attributes[i].pValue == nullptr && attributes[i].ulValueLen != 0) return false;
  return true;
}

const CK_ATTRIBUTE* Template::Find(CK_ATTRIBUTE_TYPE type) const {
  for (CK_ULONG i = 0; i < count; i++)
    if (attributes[i].type == type) return &attributes[i];
  return nullptr;
}

bool Template::Number(CK_ATTRIBUTE_TYPE type, CK_ULONG* number) const {
  const CK_ATTRIBUTE* const found = Find(type);
  if (found == nullptr || found->pValue == nullptr || found->ulValueLen != sizeof(*number))
    return false;
  memcpy(number, found->pValue, sizeof(*number));
  return true;
}

bool Template::Flag(CK_ATTRIBUTE_TYPE type, bool otherwise) const {
  const CK_ATTRIBUTE* const found = Find(type);
  if (found == nullptr || found->pValue == nullptr || found->ulValueLen != sizeof(CK_BBOOL))
    return otherwise;
  return *static_cast<const CK_BBOOL*>(found->pValue) != CK_FALSE;
}

Span Template::Get(CK_ATTRIBUTE_TYPE type) const {
  const CK_ATTRIBUTE* const found = Find(type);
  if (found == nullptr || found->pValue == nullptr) return {};
  return {static_cast<const unsigned char*>(found->pValue), found->ulValueLen};
}

bool Template::Matches(const Object& object) const {
  for (CK_ULONG i = 0; i < count; i++) {
    const CK_ATTRIBUTE& wanted = attributes[i];
    const Attribute* const attribute = FindOf(object, wanted.type);
    if (attribute == nullptr || attribute->secret) return false;
    Value value;
    if (!GetValue(object, *attribute, value) ||
        !IsSame(value.bytes, {static_cast<const unsigned char*>(wanted.pValue), wanted.ulValueLen}))
      return false;
  }
  return true;
}

static CK_RV CheckValue(const Attribute& attribute, const CK_ATTRIBUTE& value) {
  bool good = value.ulValueLen <= MAX_VALUE_SIZE;
  if (attribute.form == FLAG) good = value.ulValueLen == sizeof(CK_BBOOL);
  if (attribute.form == NUMBER) good = value.ulValueLen == sizeof(CK_ULONG);
  if (attribute.form == DATE) good = value.ulValueLen == 0 || value.ulValueLen == sizeof(CK_DATE);
  if (good) return CKR_OK;
  LogReason("the value of attribute 0x%lx has a wrong length", value.type);
  return CKR_ATTRIBUTE_VALUE_INVALID;
}

// What an object is made from, and its maker has read.
static bool IsInput(const Object& object, CK_ATTRIBUTE_TYPE type) {
  switch (type) {
    case CKA_CLASS:
    case CKA_TOKEN:
    case CKA_KEY_TYPE:
    case CKA_CERTIFICATE_TYPE:
    case CKA_VALUE:
    case CKA_MODULUS_BITS:
    case CKA_EC_PARAMS:
    case CKA_EC_POINT:
    case CKA_MODULUS:
    case CKA_PUBLIC_EXPONENT:
      return true;
    case CKA_PRIVATE_EXPONENT:
    case CKA_PRIME_1:
    case CKA_PRIME_2:
    case CKA_EXPONENT_1:
    case CKA_EXPONENT_2:
    case CKA_COEFFICIENT:
      return object.cls == CKO_PRIVATE_KEY;
    default:
      return false;
  }
}

static bool Store(Object& object, const Attribute& attribute, Span given) {
  if (attribute.form == FLAG) return object.set.SetFlag(attribute.type, given[0] != CK_FALSE);
  if (attribute.form == NUMBER) {
    CK_ULONG number = 0;
    memcpy(&number, given.data(), sizeof(number));
    unsigned char word[4];
    int2be(static_cast<unsigned int>(number), word);
    return object.set.Set(attribute.type, word);
  }
  return object.set.Set(attribute.type, given);
}

static CK_RV ApplyOne(Object& object, const CK_ATTRIBUTE& wanted, bool creation) {
  const Attribute* const attribute = FindOf(object, wanted.type);
  if (attribute == nullptr) {
    LogReason("objects of class %lu have no attribute 0x%lx", object.cls, wanted.type);
    return CKR_ATTRIBUTE_TYPE_INVALID;
  }
  const CK_RV checked = CheckValue(*attribute, wanted);
  if (checked != CKR_OK) return checked;
  const Span given(static_cast<const unsigned char*>(wanted.pValue), wanted.ulValueLen);
  Value present;
  const bool isSo =
      !attribute->secret && GetValue(object, *attribute, present) && IsSame(present.bytes, given);
  if (isSo || attribute->change == TOLERATED) return CKR_OK;
  if (attribute->change == NEVER || (attribute->change == CREATION && !creation)) {
    LogReason("attribute 0x%lx can't be set", wanted.type);
    return creation && attribute->type != CKA_TRUSTED ? CKR_TEMPLATE_INCONSISTENT
                                                      : CKR_ATTRIBUTE_READ_ONLY;
  }
  return Store(object, *attribute, given) ? CKR_OK : CKR_HOST_MEMORY;
}

CK_RV Template::ApplyTo(Object& object, bool creation) const {
  for (CK_ULONG i = 0; i < count; i++) {
    if (creation && IsInput(object, attributes[i].type)) continue;
    const CK_RV applied = ApplyOne(object, attributes[i], creation);
    if (applied != CKR_OK) return applied;
  }
  return CKR_OK;
}
