// Objects made from keys, certificates and data, and named.
#include "pkcs11/object.h"

#include "core/openssl_owners.h"
#include "keypair/keypair.h"

#include <openssl/sha.h>

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

// --- Curves and public keys ----------------------------------------------------------------------

namespace {
struct Curve {
  int curve;
  unsigned char size;
  unsigned char oid[12];
};
}  // namespace

static constexpr Curve CURVES[] = {
    {CURVE_P192, 10, {0x06, 0x08, 0x2a, 0x86, 0x48, 0xce, 0x3d, 0x03, 0x01, 0x01}},
    {CURVE_P224, 7, {0x06, 0x05, 0x2b, 0x81, 0x04, 0x00, 0x21}},
    {CURVE_P256, 10, {0x06, 0x08, 0x2a, 0x86, 0x48, 0xce, 0x3d, 0x03, 0x01, 0x07}},
    {CURVE_P384, 7, {0x06, 0x05, 0x2b, 0x81, 0x04, 0x00, 0x22}},
    {CURVE_P521, 7, {0x06, 0x05, 0x2b, 0x81, 0x04, 0x00, 0x23}},
    {CURVE_SM2, 10, {0x06, 0x08, 0x2a, 0x81, 0x1c, 0xcf, 0x55, 0x01, 0x82, 0x2d}},
};

int CurveOf(Span oid) {
  for (const Curve& curve : CURVES)
    if (IsSame(oid, {curve.oid, curve.size})) return curve.curve;
  return 0;
}

Span OidOf(int id) {
  for (const Curve& curve : CURVES)
    if (curve.curve == id) return {curve.oid, curve.size};
  return {};
}

static constexpr unsigned char RSA_ALGORITHM[] = {0x30, 0x0d, 0x06, 0x09, 0x2a, 0x86, 0x48, 0x86,
                                                  0xf7, 0x0d, 0x01, 0x01, 0x01, 0x05, 0x00};
static constexpr unsigned char EC_ALGORITHM[] = {0x06, 0x07, 0x2a, 0x86, 0x48,
                                                 0xce, 0x3d, 0x02, 0x01};

static bool MakePublicKeyInfo(Span algorithm, Span key, Buffer& info) {
  Buffer bits, both;
  static constexpr unsigned char NO_UNUSED_BITS[1] = {};
  return bits.Append(NO_UNUSED_BITS) && bits.Append(key) && both.Append(algorithm) &&
         AppendElement(both, DER_BIT_STRING, bits) && AppendElement(info, DER_SEQUENCE, both);
}

static void Sha1(Span bytes, unsigned char (&digest)[20]) {
  SHA1(bytes.data(), bytes.size(), digest);
}

static bool FillRsa(ObjectKey& key, Span encoding) {
  unsigned char *rawModulus = nullptr, *rawExponent = nullptr;
  int modulusLen = 0, exponentLen = 0;
  if (VakroPKICryptoDecodeRSAPubKey(encoding.data(), static_cast<int>(encoding.size()), &rawModulus,
                                    &modulusLen, &rawExponent, &exponentLen) != 1)
    return false;
  const LibBytes modulus(rawModulus), exponent(rawExponent);
  key.kind = KeyKind::KEY_RSA;
  if (!key.modulus.Append({rawModulus, static_cast<size_t>(modulusLen)}) ||
      !key.exponent.Append({rawExponent, static_cast<size_t>(exponentLen)}) ||
      !MakePublicKeyInfo(RSA_ALGORITHM, encoding.subspan(KEY_HEADER_SIZE), key.publicKeyInfo))
    return false;
  for (unsigned int top = key.modulus[0]; top != 0; top >>= 1) key.bits++;
  key.bits += 8 * (modulusLen - 1);
  Sha1(key.modulus, key.id);
  return true;
}

// A coordinate may come with fewer bytes than the field has; they go to the right end.
static bool AppendCoordinate(Buffer& to, const unsigned char* bytes, int length, size_t size) {
  auto left = static_cast<size_t>(length);
  while (left > size && *bytes == 0) bytes++, left--;
  if (left > size || !to.Reserve(size)) return false;
  memset(to.end(), 0, size - left);
  to.count += size - left;
  return to.Append({bytes, left});
}

static bool FillEc(ObjectKey& key, Span encoding) {
  unsigned char *rawX = nullptr, *rawY = nullptr;
  int xLen = 0, yLen = 0;
  if (VakroPKICryptoDecodeECCPubKey(encoding.data(), static_cast<int>(encoding.size()), &key.curve,
                                    &rawX, &xLen, &rawY, &yLen) != 1)
    return false;
  const LibBytes x(rawX), y(rawY);
  const Span oid = OidOf(key.curve);
  if (oid.empty()) return false;
  key.kind = key.curve == CURVE_SM2 ? KeyKind::KEY_SM2 : KeyKind::KEY_EC;
  static constexpr int BITS[] = {0, 192, 224, 256, 384, 521, 0, 256};
  key.bits = BITS[key.curve];
  const auto size = static_cast<size_t>((key.bits + 7) / 8);
  Buffer point, algorithm, both;
  static constexpr unsigned char UNCOMPRESSED[] = {4};
  if (!point.Append(UNCOMPRESSED) || !AppendCoordinate(point, rawX, xLen, size) ||
      !AppendCoordinate(point, rawY, yLen, size))
    return false;
  Sha1(point, key.id);
  return both.Append(EC_ALGORITHM) && both.Append(oid) &&
         AppendElement(algorithm, DER_SEQUENCE, both) &&
         MakePublicKeyInfo(algorithm, point, key.publicKeyInfo) && key.curveOid.Append(oid) &&
         AppendElement(key.point, DER_OCTET_STRING, point);
}

ObjectKey* NewObjectKey(Span encoding, Keypair* keypair) {
  auto* const key = New<ObjectKey>();
  if (key == nullptr) {
    if (keypair != nullptr) DeviceFreeKeypair(keypair);
    return nullptr;
  }
  key->keypair = keypair;
  const bool isOne = encoding.size() > KEY_HEADER_SIZE && encoding.size() <= INT_MAX;
  const unsigned int algorithm = isOne ? be2int(encoding.data() + MAGIC_SIZE) : 0;
  if ((algorithm == ALGORITHM_RSA && FillRsa(*key, encoding)) ||
      (algorithm == ALGORITHM_ECC && FillEc(*key, encoding))) {
    const bool imported =
        DeviceImportPublicKey(nullptr, encoding.data(), static_cast<int>(encoding.size()),
                              &key->publicKey) == VAKRO_OK;
    // The module makes keys on curves that it can't use.
    const bool isUsable = key->kind != KeyKind::KEY_EC || key->curve == CURVE_P256;
    if ((imported || !isUsable) && key->encoding.Append(encoding)) return key;
  }
  ReleaseKey(key);
  return nullptr;
}

void HoldKey(Key* key) { key->references.fetch_add(1, std::memory_order_relaxed); }

void ReleaseKey(Key* key) {
  if (key == nullptr || key->references.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
  if (key->keypair != nullptr) DeviceFreeKeypair(key->keypair);
  if (key->publicKey != nullptr) DeviceFreePublicKey(key->publicKey);
  Delete(static_cast<ObjectKey*>(key));
}

bool EncodeRsaPublicKey(Span modulus, Span exponent, Buffer& encoding) {
  while (!modulus.empty() && modulus[0] == 0) modulus = modulus.subspan(1);
  while (!exponent.empty() && exponent[0] == 0) exponent = exponent.subspan(1);
  if (modulus.empty() || exponent.empty() || modulus.size() > 8192 || exponent.size() > 8192)
    return false;
  BigNum n(BN_bin2bn(modulus.data(), static_cast<int>(modulus.size()), nullptr));
  BigNum e(BN_bin2bn(exponent.data(), static_cast<int>(exponent.size()), nullptr));
  const RsaKey rsa(RSA_new());
  if (!n || !e || !rsa || RSA_set0_key(rsa.get(), n.get(), e.get(), nullptr) != 1) return false;
  (void)n.release();
  (void)e.release();
  unsigned char* made = nullptr;
  int length = 0;
  if (ToRSAPublicKeyEncode(rsa.get(), &made, &length) != 1) return false;
  const LibBytes owned(made);
  return encoding.Assign({made, static_cast<size_t>(length)});
}

bool EncodeEcPublicKey(int curve, Span point, Buffer& encoding) {
  if (point.size() < 3 || point.size() % 2 != 1 || point[0] != 4) return false;
  const int size = static_cast<int>(point.size() / 2);
  unsigned char* made = nullptr;
  int length = 0;
  if (VakroPKICryptoEncodeECCPubKey(curve, point.data() + 1, size, point.data() + 1 + size, size,
                                    &made, &length) != 1)
    return false;
  const LibBytes owned(made);
  return encoding.Assign({made, static_cast<size_t>(length)});
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

// SHA-1 of what SHA-1 is taken of in a key object: of RSA the modulus, else the whole.
static void KeyIdOf(const CertificateParts& parts, unsigned char (&id)[20]) {
  Span rest = parts.publicKeyInfo, key = parts.publicKey;
  DerElement outer, algorithm, numbers, modulus;
  const bool isRsa = TakeElement(rest, outer) &&
                     (rest = outer.content, TakeElement(rest, algorithm)) &&
                     IsSame(algorithm.whole, RSA_ALGORITHM);
  if (isRsa && TakeTagged(key, DER_SEQUENCE, numbers) &&
      (key = numbers.content, TakeTagged(key, DER_INTEGER, modulus))) {
    Span bytes = modulus.content;
    while (!bytes.empty() && bytes[0] == 0) bytes = bytes.subspan(1);
    return Sha1(bytes, id);
  }
  Sha1(parts.publicKey, id);
}

Object* NewCertificateObject(Span certificate) {
  auto* const object = New<Object>();
  if (object == nullptr) return nullptr;
  object->cls = CKO_CERTIFICATE;
  if (object->certificate.Append(certificate) &&
      ParseCertificate(object->certificate, object->parsed)) {
    KeyIdOf(object->parsed, object->keyId);
    return object;
  }
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
  if (!text.Append(words) || !text.Append(WhatItIs(object))) return false;
  SHA256(text.begin(), text.count, object.name);
  return true;
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
