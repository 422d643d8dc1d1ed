// The attributes of objects: one table, one row an attribute.
#ifndef VAKRO_PKCS11_ATTRIBUTE_H
#define VAKRO_PKCS11_ATTRIBUTE_H

#include "pkcs11/object.h"

// Who may give an attribute a value, and when.
enum class Change {
  NEVER,      // it follows from the object; a template may name the value that it has
  CREATION,   // when the object is made
  LATER,      // then, and by C_SetAttributeValue
  TOLERATED,  // when the object is made, to no effect: it says what it is
};

enum class Form { FLAG, NUMBER, BYTES, DATE };

// The value of an attribute: bytes of the object, or a few of its own.
struct Value {
  Span bytes;
  union {
    CK_BBOOL flag;
    CK_ULONG number;
  } own = {};
  Buffer made;

  void Set(bool flag);
  void Set(CK_ULONG number);
};

struct Attribute {
  CK_ATTRIBUTE_TYPE type;
  unsigned int classes;  // bits of ClassBit
  Form form;
  Change change;
  bool secret;                                         // exists, and is never handed out
  bool (*derive)(const Object& object, Value& value);  // what holds where nothing is set; false:
                                                       // memory, or not to be had now
};

// FindAttribute returns the row of a type that objects of this class have, or NULL.
const Attribute* FindAttribute(CK_OBJECT_CLASS cls, CK_ATTRIBUTE_TYPE type);

// FindOf returns the row of an attribute that this very object has, or NULL.
const Attribute* FindOf(const Object& object, CK_ATTRIBUTE_TYPE type);

// GetValue gives the value of an attribute that is not secret; false when memory is out or it can't
// be had now.
bool GetValue(const Object& object, const Attribute& attribute, Value& value);

// AnswerAttributes is C_GetAttributeValue.
CK_RV AnswerAttributes(const Object& object, CK_ATTRIBUTE* attributes, CK_ULONG count);

#endif
