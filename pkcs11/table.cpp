// The table and the certificate around it.
//
//   table   | "VKTB" | version 1 | record ...
//   record  | kind | R | reference, R bytes | A | attributes, A bytes |
//
// Words are big-endian. Where nothing was set there is no record; a table without records is not
// stored.
#include "pkcs11/table.h"

#include "pkcs11/digest.h"
#include "pkcs11/schemes.h"

static constexpr unsigned char TABLE_HEAD[] = {'V', 'K', 'T', 'B', 0, 0, 0, 1};

namespace {
enum RecordKind : unsigned int {
  RECORD_DEVICE = 1,       // no reference
  RECORD_OBJECT = 2,       // an object that is kept elsewhere, by its name
  RECORD_PUBLIC_KEY = 3,   // a public key alone: the crypto library's encoding
  RECORD_CERTIFICATE = 4,  // a certificate that is in no keypair's list
  RECORD_DATA = 5,         // a data object, by its number as a word; 0: an empty one
};
}  // namespace

// In the record of the device: the PIN is the security officer's.
static constexpr CK_ATTRIBUTE_TYPE SO_PIN = CKA_VENDOR_DEFINED | 0x56414B01;

// --- Records -------------------------------------------------------------------------------------

namespace {
struct Record {
  unsigned int kind;
  Span reference;
  Span attributes;
};
}  // namespace

static bool TakeBlock(Span& rest, Span& block) {
  if (rest.size() < 4) return false;
  const size_t length = be2int(rest.data());
  if (length > rest.size() - 4) return false;
  block = rest.subspan(4, length);
  rest = rest.subspan(4 + length);
  return true;
}

static bool TakeRecord(Span& rest, Record& record) {
  if (rest.size() < 4) return false;
  record.kind = be2int(rest.data());
  rest = rest.subspan(4);
  return TakeBlock(rest, record.reference) && TakeBlock(rest, record.attributes);
}

static bool AppendBlock(Buffer& to, Span block) {
  return to.AppendWord(static_cast<unsigned int>(block.size())) && to.Append(block);
}

static bool AppendRecord(Buffer& to, unsigned int kind, Span reference, Span attributes) {
  return to.AppendWord(kind) && AppendBlock(to, reference) && AppendBlock(to, attributes);
}

// --- Reading -------------------------------------------------------------------------------------

// What can't be understood now, be it for want of memory, is written again as it is.
static bool Keep(const Record& record, View& view) {
  view.isComplete = false;
  return AppendRecord(view.unclaimed, record.kind, record.reference, record.attributes);
}

// The records that make objects come first, then those that name objects: a name counts how many
// objects like this one there are.
static bool MakeObject(const Record& record, View& view) {
  Object* made = nullptr;
  const bool isEmptyData = record.kind == RECORD_DATA && record.reference.size() == 4 &&
                           be2int(record.reference.data()) == 0;
  if (record.kind == RECORD_PUBLIC_KEY) {
    ObjectKey* const key = NewObjectKey(record.reference, nullptr);
    if (key == nullptr) return Keep(record, view);
    made = NewKeyObject(CKO_PUBLIC_KEY, key);
    ReleaseKey(key);
  } else if (record.kind == RECORD_CERTIFICATE) {
    made = NewCertificateObject(record.reference);
    if (made == nullptr) return Keep(record, view);
  } else if (isEmptyData) {
    made = NewDataObject(0, {});
  } else {
    return true;
  }
  if (made != nullptr && made->set.stored.Assign(record.attributes))
    return AddTokenObject(view, made, Place::TABLE);
  Delete(made);
  return false;
}

static Object* FindData(const View& view, unsigned int number) {
  for (Object* object : view.objects)
    if (object->cls == CKO_DATA && static_cast<unsigned int>(object->number) == number)
      return object;
  return nullptr;
}

static Object* FindMeant(const Record& record, const View& view) {
  if (record.kind == RECORD_OBJECT && record.reference.size() == NAME_DIGEST_SIZE) {
    unsigned char name[NAME_DIGEST_SIZE];
    memcpy(name, record.reference.data(), NAME_DIGEST_SIZE);
    return FindNamed(view, name);
  }
  const bool isData = record.kind == RECORD_DATA && record.reference.size() == 4;
  return isData ? FindData(view, be2int(record.reference.data())) : nullptr;
}

static bool Apply(const Record& record, View& view) {
  switch (record.kind) {
    case RECORD_DEVICE: {
      Attributes attributes;
      if (!attributes.stored.Assign(record.attributes)) return false;
      view.hasSoPin = attributes.Flag(SO_PIN, false);
      return true;
    }
    case RECORD_PUBLIC_KEY:
    case RECORD_CERTIFICATE:
      return true;
    default:
      break;
  }
  Object* const object = FindMeant(record, view);
  if (object != nullptr) return object->set.stored.Assign(record.attributes);
  // A number may be given to another program's object some day; a name is its object's for ever.
  if (record.kind == RECORD_DATA && view.hasAllDatas) return true;
  return AppendRecord(view.unclaimed, record.kind, record.reference, record.attributes);
}

static bool IsTable(Span table) {
  return table.size() >= sizeof(TABLE_HEAD) &&
         memcmp(table.data(), TABLE_HEAD, sizeof(TABLE_HEAD)) == 0;
}

bool ReadTable(Span table, View& view) {
  if (!IsTable(table)) return true;
  if (!view.table.Assign(table)) return false;
  for (bool (*use)(const Record&, View&) : {MakeObject, Apply}) {
    Span rest = table.subspan(sizeof(TABLE_HEAD));
    Record record = {};
    while (TakeRecord(rest, record)) {
      if (Attributes::AreSound(record.attributes) && !use(record, view)) return false;
    }
  }
  return true;
}

bool HasSoPin(const Keypair* anchor) {
  Span table;
  if (anchor == nullptr || FindTable(anchor, &table) < 0 || !IsTable(table)) return false;
  Span rest = table.subspan(sizeof(TABLE_HEAD));
  Record record = {};
  while (TakeRecord(rest, record)) {
    Attributes attributes;
    if (record.kind == RECORD_DEVICE && Attributes::AreSound(record.attributes) &&
        attributes.stored.Assign(record.attributes))
      return attributes.Flag(SO_PIN, false);
  }
  return false;
}

// --- Writing -------------------------------------------------------------------------------------

static bool AppendObject(Buffer& table, const Object& object) {
  const Span attributes = object.set.stored;
  if (object.cls == CKO_DATA) {
    if (object.number != 0 && attributes.empty()) return true;
    unsigned char number[4];
    int2be(static_cast<unsigned int>(object.number), number);
    return AppendRecord(table, RECORD_DATA, number, attributes);
  }
  if (object.place == Place::TABLE && object.cls == CKO_PUBLIC_KEY)
    return AppendRecord(table, RECORD_PUBLIC_KEY, object.key->encoding, attributes);
  if (object.place == Place::TABLE)
    return AppendRecord(table, RECORD_CERTIFICATE, object.certificate, attributes);
  return attributes.empty() || AppendRecord(table, RECORD_OBJECT, object.name, attributes);
}

bool WriteTable(const View& view, Buffer& table) {
  table.count = 0;
  if (!table.Append(TABLE_HEAD)) return false;
  if (view.hasSoPin) {
    Attributes device;
    if (!device.SetFlag(SO_PIN, true) || !AppendRecord(table, RECORD_DEVICE, {}, device.stored))
      return false;
  }
  for (const Object* object : view.objects)
    if (!AppendObject(table, *object)) return false;
  if (!table.Append(view.unclaimed)) return false;
  if (table.count == sizeof(TABLE_HEAD)) table.count = 0;
  return true;
}

// --- The certificate -----------------------------------------------------------------------------

// 2.25.222188772222909311613639560807111841882, drawn for this use (ITU-T X.667).
static constexpr unsigned char TABLE_OID[] = {0x06, 0x14, 0x69, 0x82, 0xce, 0xa8, 0x80, 0x8f,
                                              0xf8, 0xd7, 0xba, 0x8f, 0x9f, 0x92, 0xa2, 0xb8,
                                              0xde, 0xa8, 0x9f, 0xf7, 0xb0, 0x5a};
static constexpr unsigned char SIGNATURE_ALGORITHM[] = {0x30, 0x0a, 0x06, 0x08, 0x2a, 0x81,
                                                        0x1c, 0xcf, 0x55, 0x01, 0x83, 0x75};
static constexpr unsigned char VERSION_3[] = {0xa0, 0x03, 0x02, 0x01, 0x02};
static constexpr unsigned char ANCHOR_NAME[] = {  // CN=PIN anchor
    0x30, 0x15, 0x31, 0x13, 0x30, 0x11, 0x06, 0x03, 0x55, 0x04, 0x03, 0x0c,
    0x0a, 'P',  'I',  'N',  ' ',  'a',  'n',  'c',  'h',  'o',  'r'};
static constexpr unsigned char ALWAYS[] = {  // to the end of time, RFC 5280, 4.1.2.5
    0x30, 0x20, 0x17, 0x0d, '2', '0', '0', '1', '0', '1', '0', '0', '0', '0', '0', '0', 'Z',
    0x18, 0x0f, '9',  '9',  '9', '9', '1', '2', '3', '1', '2', '3', '5', '9', '5', '9', 'Z'};
static constexpr char SIGNER_ID[] = "1234567812345678";

static bool AppendExtensions(Buffer& to, Span table) {
  Buffer value, extension, list, sequence;
  return AppendElement(value, DER_OCTET_STRING, table) && extension.Append(TABLE_OID) &&
         AppendElement(extension, DER_OCTET_STRING, value) &&
         AppendElement(list, DER_SEQUENCE, extension) &&
         AppendElement(sequence, DER_SEQUENCE, list) && AppendElement(to, 0xa3, sequence);
}

static bool MakeToBeSigned(const ObjectKey& key, Span table, Buffer& out) {
  unsigned char serial[32];
  if (!Sha256(table, serial)) return false;
  serial[0] = 0x40 | (serial[0] & 0x3f);  // positive, and in its shortest form
  Buffer parts;
  return parts.Append(VERSION_3) && AppendElement(parts, DER_INTEGER, Span(serial, 8)) &&
         parts.Append(SIGNATURE_ALGORITHM) && parts.Append(ANCHOR_NAME) && parts.Append(ALWAYS) &&
         parts.Append(ANCHOR_NAME) && parts.Append(key.publicKeyInfo) &&
         AppendExtensions(parts, table) && AppendElement(out, DER_SEQUENCE, parts);
}

static bool Digest(const ObjectKey& key, Span message, unsigned char (&e)[32]) {
  const DigestContext digest(EVP_MD_CTX_new());
  const Span id(reinterpret_cast<const unsigned char*>(SIGNER_ID), sizeof(SIGNER_ID) - 1);
  return digest && EVP_DigestInit_ex(digest.get(), EVP_sm3(), nullptr) == 1 &&
         HashSm2User(digest.get(), key, id) == CKR_OK &&
         EVP_DigestUpdate(digest.get(), message.data(), message.size()) == 1 &&
         EVP_DigestFinal_ex(digest.get(), e, nullptr) == 1;
}

CK_RV MakeTableCertificate(Keypair* anchor, Span table, Buffer& certificate) {
  KeyUse use;
  ObjectKey* const key =
      NewObjectKey({anchor->publicKey, static_cast<size_t>(anchor->publicKeyLen)}, nullptr);
  if (key == nullptr) return CKR_HOST_MEMORY;
  use.Reset(key);
  Buffer parts, bits;
  unsigned char e[32];
  if (!MakeToBeSigned(*key, table, parts) || !Digest(*key, parts, e)) return CKR_HOST_MEMORY;
  unsigned char signature[1 + 80] = {};  // behind the count of unused bits
  int length = 80;
  if (DeviceSign(anchor, ALGORITHM_SM2_SIGN, nullptr, e, sizeof e, signature + 1, length,
                 &length) != VAKRO_OK)
    return CKR_FUNCTION_FAILED;
  if (!parts.Append(SIGNATURE_ALGORITHM) ||
      !AppendElement(parts, DER_BIT_STRING, Span(signature, static_cast<size_t>(length) + 1)) ||
      !AppendElement(certificate, DER_SEQUENCE, parts))
    return CKR_HOST_MEMORY;
  return CKR_OK;
}

static bool TableIn(Span certificate, Span* table) {
  // The extension is looked for by its identifier: what stands around it is ours.
  CertificateParts parts;
  if (!ParseCertificate(certificate, parts)) return false;
  Span rest = {parts.publicKeyInfo.data() + parts.publicKeyInfo.size(),
               certificate.data() + certificate.size()};
  DerElement extensions, list, extension, oid, value, inner;
  if (!TakeTagged(rest, 0xa3, extensions)) return false;
  rest = extensions.content;
  if (!TakeTagged(rest, DER_SEQUENCE, list)) return false;
  rest = list.content;
  if (!TakeTagged(rest, DER_SEQUENCE, extension)) return false;
  rest = extension.content;
  if (!TakeTagged(rest, DER_OID, oid) || !IsSame(oid.whole, TABLE_OID) ||
      !TakeTagged(rest, DER_OCTET_STRING, value))
    return false;
  rest = value.content;
  if (!TakeTagged(rest, DER_OCTET_STRING, inner)) return false;
  *table = inner.content;
  return true;
}

int FindTable(const Keypair* anchor, Span* table) {
  for (int i = 0; i < anchor->certCount; i++) {
    const Cert* const cert = anchor->certs[i];
    if (TableIn({cert->data, static_cast<size_t>(cert->length)}, table)) return i;
  }
  return -1;
}
