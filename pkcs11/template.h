// Templates: the attributes that programs ask for when they make, change or look for objects.
#ifndef VAKRO_PKCS11_TEMPLATE_H
#define VAKRO_PKCS11_TEMPLATE_H

#include "pkcs11/attribute.h"

// A program's template; it owns nothing. The getters give false, or nothing, where an attribute is
// not there or has another form.
struct Template {
  const CK_ATTRIBUTE* attributes = nullptr;
  CK_ULONG count = 0;

  bool IsSound() const;  // no NULL where there should be bytes
  const CK_ATTRIBUTE* Find(CK_ATTRIBUTE_TYPE type) const;
  bool Number(CK_ATTRIBUTE_TYPE type, CK_ULONG* number) const;
  CK_RV Require(CK_ATTRIBUTE_TYPE type, CK_ULONG* number) const;  // says what is wrong with it
  bool Flag(CK_ATTRIBUTE_TYPE type, bool otherwise) const;
  Span Get(CK_ATTRIBUTE_TYPE type) const;
  bool IsToken() const { return Flag(CKA_TOKEN, false); }

  // Matches says whether an object has all the values; one that it has no attribute for, or that is
  // secret, it does not have.
  bool Matches(const Object& object) const;

  // ApplyTo gives an object the values. At its creation, what it is made from (the class, key
  // parts, a certificate's bytes) is passed over. CKR_OK, or CKR_ATTRIBUTE_TYPE_INVALID,
  // CKR_ATTRIBUTE_VALUE_INVALID, CKR_ATTRIBUTE_READ_ONLY, CKR_TEMPLATE_INCONSISTENT,
  // CKR_HOST_MEMORY; the object is spoilt then.
  CK_RV ApplyTo(Object& object, bool creation = true) const;
};

#endif
