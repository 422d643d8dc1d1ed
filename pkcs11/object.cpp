// Objects made from keys, certificates and data, and named; what is set of them.
#include "pkcs11/object.h"

#include "pkcs11/digest.h"

// --- Attributes that are set ---------------------------------------------------------------------

static constexpr size_t SET_HEADER_SIZE = 8;

// Takes the first one off `rest`; false at the end, and where the bytes are no list.
static bool TakeAttribute(Span& rest, CK_ATTRIBUTE_TYPE& type, Span& value) {
  if (rest.size() < SET_HEADER_SIZE) return false;
  const size_t length = be2int(rest.data() + 4);
  if (length > rest.size() - SET_HEADER_SIZE) return false;
  type = be2int(rest.data());
  value = rest.subspan(SET_HEADER_SIZE, length);
  rest = rest.subspan(SET_HEADER_SIZE + length);
  return true;
}

bool Attributes::AreSound(Span stored) {
  CK_ATTRIBUTE_TYPE type = 0;
  Span value;
  while (!stored.empty())
    if (!TakeAttribute(stored, type, value)) return false;
  return true;
}

bool Attributes::Find(CK_ATTRIBUTE_TYPE type, Span* value) const {
  Span rest = stored, found;
  CK_ATTRIBUTE_TYPE at = 0;
  while (TakeAttribute(rest, at, found)) {
    if (at != type) continue;
    if (value != nullptr) *value = found;
    return true;
  }
  return false;
}

void Attributes::Remove(CK_ATTRIBUTE_TYPE type) {
  Span rest = stored, found;
  CK_ATTRIBUTE_TYPE at = 0;
  while (TakeAttribute(rest, at, found)) {
    if (at != type) continue;
    const size_t size = SET_HEADER_SIZE + found.size();
    unsigned char* const start = stored.end() - rest.size() - size;
    memmove(start, start + size, rest.size());
    stored.count -= size;
    return;
  }
}

bool Attributes::Set(CK_ATTRIBUTE_TYPE type, Span value) {
  if (type > 0xFFFFFFFF || value.size() > 0xFFFFFF) return false;
  if (!stored.Reserve(SET_HEADER_SIZE + value.size())) return false;
  Remove(type);
  return stored.AppendWord(static_cast<unsigned int>(type)) &&
         stored.AppendWord(static_cast<unsigned int>(value.size())) && stored.Append(value);
}

bool Attributes::SetFlag(CK_ATTRIBUTE_TYPE type, bool value) {
  const unsigned char byte = value ? CK_TRUE : CK_FALSE;
  return Set(type, Span(&byte, 1));
}

bool Attributes::Flag(CK_ATTRIBUTE_TYPE type, bool otherwise) const {
  Span value;
  return Find(type, &value) && value.size() == 1 ? value[0] != CK_FALSE : otherwise;
}

// --- Objects -------------------------------------------------------------------------------------

static std::atomic<CK_OBJECT_HANDLE> g_nextHandle{1};

CK_OBJECT_HANDLE NewObjectHandle() { return g_nextHandle.fetch_add(1, std::memory_order_relaxed); }

Object::~Object() { ReleaseKey(key); }

Object* NewKeyObject(CK_OBJECT_CLASS cls, ObjectKey* key) {
  auto* const object = New<Object>();
  if (object == nullptr) return nullptr;
  object->cls = cls;
  HoldKey(key);
  object->key = key;
  if (key->keypair != nullptr) memcpy(object->label, key->keypair->label, NAME_SIZE);
  return object;
}

Object* NewCertificateObject(Span certificate) {
  auto* const object = New<Object>();
  if (object == nullptr) return nullptr;
  object->cls = CKO_CERTIFICATE;
  if (object->certificate.Append(certificate) &&
      ParseCertificate(object->certificate, object->parsed) &&
      KeyIdOf(object->parsed, object->keyId))
    return object;
  Delete(object);
  return nullptr;
}

Object* NewDataObject(int number, Span value) {
  auto* const object = New<Object>();
  if (object == nullptr) return nullptr;
  object->cls = CKO_DATA;
  object->number = number;
  if (number != 0) snprintf(object->label, sizeof(object->label), "%d", number);
  if (object->value.Append(value)) return object;
  Delete(object);
  return nullptr;
}

View::~View() {
  for (Object* object : objects) Delete(object);
  ReleaseKey(anchor);
}

Object* View::Find(CK_OBJECT_HANDLE handle) const {
  for (Object* object : objects)
    if (object->handle == handle) return object;
  return nullptr;
}

bool View::Add(Object* object) {
  if (object == nullptr) return false;
  if (objects.Add(object)) return true;
  Delete(object);
  return false;
}

void View::Remove(Object* object) {
  for (size_t i = 0; i < objects.count; i++) {
    if (objects[i] != object) continue;
    objects.RemoveAt(i);
    Delete(object);
    return;
  }
}

static Span WhatItIs(const Object& object) {
  switch (object.cls) {
    case CKO_CERTIFICATE:
      return object.certificate;
    case CKO_DATA:
      return {};
    default:
      return object.key->encoding;
  }
}

static bool MakeName(Object& object, unsigned int ordinal) {
  unsigned char words[12];
  int2be(static_cast<unsigned int>(object.cls), words);
  int2be(static_cast<unsigned int>(object.number), words + 4);
  int2be(ordinal, words + 8);
  Buffer text;
  return text.Append(words) && text.Append(WhatItIs(object)) && Sha256(text, object.name);
}

Object* FindNamed(const View& view, const unsigned char (&name)[NAME_DIGEST_SIZE]) {
  for (Object* object : view.objects)
    if (memcmp(object->name, name, NAME_DIGEST_SIZE) == 0) return object;
  return nullptr;
}

// Names the object after those in `named`, which come before it.
static bool NameAfter(const List<Object*>& named, Object* object) {
  for (unsigned int ordinal = 0;; ordinal++) {
    if (!MakeName(*object, ordinal)) return false;
    bool isTaken = false;
    for (const Object* other : named)
      isTaken |= memcmp(other->name, object->name, NAME_DIGEST_SIZE) == 0;
    if (!isTaken) return true;
  }
}

bool AddTokenObject(View& view, Object* object, Place place) {
  if (object == nullptr) return false;
  object->place = place;
  if (NameAfter(view.objects, object)) return view.Add(object);
  Delete(object);
  return false;
}

bool NameObjects(View& view) {
  List<Object*> named;
  for (const bool inTable : {false, true}) {
    for (Object* object : view.objects) {
      if ((object->place == Place::TABLE) != inTable) continue;
      if (!NameAfter(named, object) || !named.Add(object)) return false;
    }
  }
  return true;
}
