// Templates.
#include "pkcs11/template.h"

#include "pkcs11/log.h"

using enum Change;
using enum Form;

static constexpr CK_ULONG MAX_VALUE_SIZE = 0xFFFFFF;

static Span BytesOf(const CK_ATTRIBUTE& attribute) {
  return {static_cast<const unsigned char*>(attribute.pValue), attribute.ulValueLen};
}

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

CK_RV Template::Require(CK_ATTRIBUTE_TYPE type, CK_ULONG* number) const {
  if (Find(type) == nullptr) return CKR_TEMPLATE_INCOMPLETE;
  return Number(type, number) ? CKR_OK : CKR_ATTRIBUTE_VALUE_INVALID;
}

bool Template::Flag(CK_ATTRIBUTE_TYPE type, bool otherwise) const {
  const CK_ATTRIBUTE* const found = Find(type);
  if (found == nullptr || found->pValue == nullptr || found->ulValueLen != sizeof(CK_BBOOL))
    return otherwise;
  return *static_cast<const CK_BBOOL*>(found->pValue) != CK_FALSE;
}

Span Template::Get(CK_ATTRIBUTE_TYPE type) const {
  const CK_ATTRIBUTE* const found = Find(type);
  return found == nullptr || found->pValue == nullptr ? Span() : BytesOf(*found);
}

bool Template::Matches(const Object& object) const {
  for (CK_ULONG i = 0; i < count; i++) {
    const CK_ATTRIBUTE& wanted = attributes[i];
    const Attribute* const attribute = FindOf(object, wanted.type);
    if (attribute == nullptr || attribute->secret) return false;
    Value value;
    if (!GetValue(object, *attribute, value) || !IsSame(value.bytes, BytesOf(wanted))) return false;
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
static bool IsInput(CK_ATTRIBUTE_TYPE type) {
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
    case CKA_PRIVATE_EXPONENT:
    case CKA_PRIME_1:
    case CKA_PRIME_2:
    case CKA_EXPONENT_1:
    case CKA_EXPONENT_2:
    case CKA_COEFFICIENT:
      return true;
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
  if (creation && IsInput(wanted.type)) return CKR_OK;
  const Span given = BytesOf(wanted);
  Value present;
  const bool isSo =
      !attribute->secret && GetValue(object, *attribute, present) && IsSame(present.bytes, given);
  if (isSo || (attribute->change == TOLERATED && creation)) return CKR_OK;
  if (attribute->change == NEVER || (attribute->change != LATER && !creation)) {
    LogReason("attribute 0x%lx can't be set", wanted.type);
    return CKR_ATTRIBUTE_READ_ONLY;
  }
  return Store(object, *attribute, given) ? CKR_OK : CKR_HOST_MEMORY;
}

CK_RV Template::ApplyTo(Object& object, bool creation) const {
  for (CK_ULONG i = 0; i < count; i++) {
    const CK_ATTRIBUTE* const before = Template{attributes, i}.Find(attributes[i].type);
    if (before != nullptr && !IsSame(BytesOf(*before), BytesOf(attributes[i])))
      return CKR_TEMPLATE_INCONSISTENT;
    const CK_RV applied = ApplyOne(object, attributes[i], creation);
    if (applied != CKR_OK) return applied;
  }
  return CKR_OK;
}
