// Templates: the attributes that programs ask for when they make, change or look for objects.
#ifndef VAKRO_PKCS11_TEMPLATE_H
#define VAKRO_PKCS11_TEMPLATE_H

#include "pkcs11/attribute.h"

// A template's parts. The getters give false when it is not there or has another form.
bool IsTemplate(const CK_ATTRIBUTE* attributes, CK_ULONG count);  // no NULL where bytes should be
const CK_ATTRIBUTE* FindIn(const CK_ATTRIBUTE* attributes, CK_ULONG count, CK_ATTRIBUTE_TYPE type);
bool NumberIn(const CK_ATTRIBUTE* attributes, CK_ULONG count, CK_ATTRIBUTE_TYPE type,
              CK_ULONG* number);
bool FlagIn(const CK_ATTRIBUTE* attributes, CK_ULONG count, CK_ATTRIBUTE_TYPE type, bool otherwise);
Span BytesIn(const CK_ATTRIBUTE* attributes, CK_ULONG count, CK_ATTRIBUTE_TYPE type);

// CheckValue checks the form of a value in a template.
CK_RV CheckValue(const Attribute& attribute, const CK_ATTRIBUTE& value);

// ApplyTemplate gives an object the values of a template. What the object is made from (`isInput`:
// the class, key parts, a certificate's bytes) is passed over. CKR_OK, or
// CKR_ATTRIBUTE_TYPE_INVALID, CKR_ATTRIBUTE_VALUE_INVALID, CKR_ATTRIBUTE_READ_ONLY,
// CKR_TEMPLATE_INCONSISTENT, CKR_HOST_MEMORY; the object is spoilt then.
CK_RV ApplyTemplate(Object& object, const CK_ATTRIBUTE* attributes, CK_ULONG count, bool creation);

// A program's template.
struct Template {
  const CK_ATTRIBUTE* attributes;
  CK_ULONG count;
  bool Flag(CK_ATTRIBUTE_TYPE type, bool otherwise) const {
    return FlagIn(attributes, count, type, otherwise);
  }
  bool IsToken() const { return Flag(CKA_TOKEN, false); }
  Span Get(CK_ATTRIBUTE_TYPE type) const { return BytesIn(attributes, count, type); }
  bool Number(CK_ATTRIBUTE_TYPE type, CK_ULONG* number) const {
    return NumberIn(attributes, count, type, number);
  }
  CK_RV ApplyTo(Object& object) const { return ApplyTemplate(object, attributes, count, true); }
};

#endif
