// The table of attributes, and what an object answers by it.
#include "pkcs11/attribute.h"

#include "core/secret.h"
#include "pkcs11/digest.h"

#include <openssl/x509v3.h>

void Value::Set(bool flag) {
  own.flag = flag ? CK_TRUE : CK_FALSE;
  bytes = {reinterpret_cast<const unsigned char*>(&own.flag), sizeof(own.flag)};
}

void Value::Set(CK_ULONG number) {
  own.number = number;
  bytes = {reinterpret_cast<const unsigned char*>(&own.number), sizeof(own.number)};
}

// --- What holds where nothing is set -------------------------------------------------------------

template <bool value>
static bool Always(const Object& /*object*/, Value& out) {
  out.Set(value);
  return true;
}

template <CK_ULONG value>
static bool Number(const Object& /*object*/, Value& out) {
  out.Set(value);
  return true;
}

static bool Nothing(const Object& /*object*/, Value& out) {
  out.bytes = {};
  return true;
}

static bool Class(const Object& object, Value& out) {
  out.Set(object.cls);
  return true;
}

static bool Token(const Object& object, Value& out) {
  out.Set(object.IsToken());
  return true;
}

static bool IsPrivateKey(const Object& object, Value& out) {
  out.Set(object.cls == CKO_PRIVATE_KEY);
  return true;
}

// A private key of the token stays where it is.
static bool IsCopyable(const Object& object, Value& out) {
  out.Set(object.cls != CKO_PRIVATE_KEY || !object.IsToken());
  return true;
}

// Of a token object its name, the same in every process.
static bool UniqueId(const Object& object, Value& out) {
  char text[2 * NAME_DIGEST_SIZE + 1];
  if (object.IsToken()) {
    for (size_t i = 0; i < NAME_DIGEST_SIZE; i++) snprintf(text + 2 * i, 3, "%02x", object.name[i]);
  } else {
    snprintf(text, sizeof text, "session-%lu", object.handle);
  }
  if (!out.made.Assign({reinterpret_cast<const unsigned char*>(text), strlen(text)})) return false;
  out.bytes = out.made;
  return true;
}

static bool Label(const Object& object, Value& out) {
  out.bytes = {reinterpret_cast<const unsigned char*>(object.label), strlen(object.label)};
  return true;
}

static bool Id(const Object& object, Value& out) {
  out.bytes = object.cls == CKO_CERTIFICATE ? Span(object.keyId) : Span(object.key->id);
  return true;
}

static bool KeyType(const Object& object, Value& out) {
  switch (object.key->kind) {
    case KeyKind::KEY_RSA:
      out.Set(static_cast<CK_ULONG>(CKK_RSA));
      return true;
    case KeyKind::KEY_SM2:
      out.Set(SM2KeyType());
      return true;
    default:
      out.Set(static_cast<CK_ULONG>(CKK_EC));
      return true;
  }
}

static bool Signs(const Object& object, Value& out) {
  out.Set(object.key->publicKey != nullptr);
  return true;
}

static bool Encrypts(const Object& object, Value& out) {
  out.Set(object.key->publicKey != nullptr && object.key->kind != KeyKind::KEY_EC);
  return true;
}

static bool PublicKeyInfo(const Object& object, Value& out) {
  out.bytes =
      object.cls == CKO_CERTIFICATE ? object.parsed.publicKeyInfo : object.key->publicKeyInfo;
  return true;
}

template <Buffer ObjectKey::*part>
static bool KeyPart(const Object& object, Value& out) {
  out.bytes = object.key->*part;
  return true;
}

static bool ModulusBits(const Object& object, Value& out) {
  out.Set(static_cast<CK_ULONG>(object.key->bits));
  return true;
}

template <Span CertificateParts::*part>
static bool CertificatePart(const Object& object, Value& out) {
  out.bytes = object.parsed.*part;
  return true;
}

static bool Category(const Object& object, Value& out) {
  if (object.keypair != nullptr) {
    out.Set(static_cast<CK_ULONG>(CK_CERTIFICATE_CATEGORY_TOKEN_USER));
    return true;
  }
  const unsigned char* at = object.certificate.items;
  X509* const certificate = d2i_X509(nullptr, &at, static_cast<long>(object.certificate.count));
  const bool isAuthority = certificate != nullptr && X509_check_ca(certificate) != 0;
  X509_free(certificate);
  out.Set(static_cast<CK_ULONG>(isAuthority ? CK_CERTIFICATE_CATEGORY_AUTHORITY
                                            : CK_CERTIFICATE_CATEGORY_OTHER_ENTITY));
  return true;
}

// The first three bytes of the SHA-1 of the certificate.
static bool CheckValueOf(const Object& object, Value& out) {
  unsigned char digest[SHA_DIGEST_LENGTH];
  if (!Sha1(object.certificate, digest) || !out.made.Assign(Span(digest, 3))) return false;
  out.bytes = out.made;
  return true;
}

static bool DecryptValue(const Object& object, Value& out) {
  int length = static_cast<int>(object.value.count);
  if (!out.made.Reserve(object.value.count) ||
      DevicePrivateKeyDecrypt(object.key->keypair, ALGORITHM_SM2_ENCRYPT, nullptr,
                              object.value.items, length, out.made.items, length,
                              &length) != VAKRO_OK)
    return false;
  out.made.count = static_cast<size_t>(length);
  out.bytes = out.made;
  return true;
}

static bool ValueOf(const Object& object, Value& out) {
  if (object.cls == CKO_DATA && object.key != nullptr && object.value.count != 0)
    return DecryptValue(object, out);
  out.bytes = object.cls == CKO_DATA ? Span(object.value) : Span(object.certificate);
  return true;
}

// --- The table -----------------------------------------------------------------------------------

namespace {
enum ClassBit : unsigned int { PRIV = 1, PUB = 2, CERT = 4, DATA = 8, RSA_ONLY = 16, EC_ONLY = 32 };
}  // namespace

static constexpr unsigned int KEYS = PRIV | PUB;
static constexpr unsigned int ALL = KEYS | CERT | DATA;

static constexpr CK_ATTRIBUTE_TYPE UNIQUE_ID = 4;  // CKA_UNIQUE_ID of version 3.0
static constexpr CK_ULONG UNKNOWN = CK_UNAVAILABLE_INFORMATION;

using enum Change;
using enum Form;

static constexpr Attribute ATTRIBUTES[] = {
    // Of every object
    {CKA_CLASS, ALL, NUMBER, NEVER, false, Class},
    {CKA_TOKEN, ALL, FLAG, NEVER, false, Token},
    {UNIQUE_ID, ALL, BYTES, NEVER, false, UniqueId},
    {CKA_PRIVATE, PUB | CERT | DATA, FLAG, CREATION, false, Always<false>},
    {CKA_PRIVATE, PRIV, FLAG, TOLERATED, false, IsPrivateKey},
    {CKA_MODIFIABLE, ALL, FLAG, CREATION, false, Always<true>},
    {CKA_COPYABLE, ALL, FLAG, CREATION, false, IsCopyable},
    {CKA_DESTROYABLE, ALL, FLAG, CREATION, false, Always<true>},
    {CKA_LABEL, ALL, BYTES, LATER, false, Label},
    // Of keys
    {CKA_KEY_TYPE, KEYS, NUMBER, NEVER, false, KeyType},
    {CKA_ID, KEYS | CERT, BYTES, LATER, false, Id},
    {CKA_START_DATE, KEYS | CERT, DATE, LATER, false, Nothing},
    {CKA_END_DATE, KEYS | CERT, DATE, LATER, false, Nothing},
    {CKA_SUBJECT, KEYS, BYTES, LATER, false, Nothing},
    {CKA_LOCAL, KEYS, FLAG, NEVER, false, Always<false>},
    {CKA_KEY_GEN_MECHANISM, KEYS, NUMBER, NEVER, false, Number<UNKNOWN>},
    {CKA_DERIVE, KEYS, FLAG, LATER, false, Always<false>},
    {CKA_PUBLIC_KEY_INFO, KEYS | CERT, BYTES, TOLERATED, false, PublicKeyInfo},
    {CKA_MODULUS, KEYS | RSA_ONLY, BYTES, NEVER, false, KeyPart<&ObjectKey::modulus>},
    {CKA_PUBLIC_EXPONENT, KEYS | RSA_ONLY, BYTES, NEVER, false, KeyPart<&ObjectKey::exponent>},
    {CKA_EC_PARAMS, KEYS | EC_ONLY, BYTES, NEVER, false, KeyPart<&ObjectKey::curveOid>},
    {CKA_EC_POINT, KEYS | EC_ONLY, BYTES, NEVER, false, KeyPart<&ObjectKey::point>},
    // Of private keys
    {CKA_SIGN, PRIV, FLAG, LATER, false, Signs},
    {CKA_SIGN_RECOVER, PRIV, FLAG, LATER, false, Always<false>},
    {CKA_DECRYPT, PRIV, FLAG, LATER, false, Encrypts},
    {CKA_UNWRAP, PRIV, FLAG, LATER, false, Always<false>},
    {CKA_SENSITIVE, PRIV, FLAG, TOLERATED, false, Always<true>},
    {CKA_EXTRACTABLE, PRIV, FLAG, TOLERATED, false, Always<false>},
    {CKA_ALWAYS_SENSITIVE, PRIV, FLAG, NEVER, false, Always<false>},
    {CKA_NEVER_EXTRACTABLE, PRIV, FLAG, NEVER, false, Always<false>},
    {CKA_WRAP_WITH_TRUSTED, PRIV, FLAG, TOLERATED, false, Always<false>},
    {CKA_ALWAYS_AUTHENTICATE, PRIV, FLAG, TOLERATED, false, Always<false>},
    {CKA_VALUE, PRIV | EC_ONLY, BYTES, NEVER, true, nullptr},
    {CKA_PRIVATE_EXPONENT, PRIV | RSA_ONLY, BYTES, NEVER, true, nullptr},
    {CKA_PRIME_1, PRIV | RSA_ONLY, BYTES, NEVER, true, nullptr},
    {CKA_PRIME_2, PRIV | RSA_ONLY, BYTES, NEVER, true, nullptr},
    {CKA_EXPONENT_1, PRIV | RSA_ONLY, BYTES, NEVER, true, nullptr},
    {CKA_EXPONENT_2, PRIV | RSA_ONLY, BYTES, NEVER, true, nullptr},
    {CKA_COEFFICIENT, PRIV | RSA_ONLY, BYTES, NEVER, true, nullptr},
    // Of public keys
    {CKA_VERIFY, PUB, FLAG, LATER, false, Signs},
    {CKA_VERIFY_RECOVER, PUB, FLAG, LATER, false, Always<false>},
    {CKA_ENCRYPT, PUB, FLAG, LATER, false, Encrypts},
    {CKA_WRAP, PUB, FLAG, LATER, false, Always<false>},
    {CKA_MODULUS_BITS, PUB | RSA_ONLY, NUMBER, NEVER, false, ModulusBits},
    // Of public keys and certificates: only a security officer may set it
    {CKA_TRUSTED, PUB | CERT, FLAG, NEVER, false, Always<false>},
    // Of certificates
    {CKA_CERTIFICATE_TYPE, CERT, NUMBER, NEVER, false, Number<CKC_X_509>},
    {CKA_CERTIFICATE_CATEGORY, CERT, NUMBER, CREATION, false, Category},
    {CKA_CHECK_VALUE, CERT, BYTES, NEVER, false, CheckValueOf},
    {CKA_SUBJECT, CERT, BYTES, CREATION, false, CertificatePart<&CertificateParts::subject>},
    {CKA_ISSUER, CERT, BYTES, LATER, false, CertificatePart<&CertificateParts::issuer>},
    {CKA_SERIAL_NUMBER, CERT, BYTES, LATER, false,
     CertificatePart<&CertificateParts::serialNumber>},
    {CKA_VALUE, CERT, BYTES, NEVER, false, ValueOf},
    {CKA_URL, CERT, BYTES, CREATION, false, Nothing},
    {CKA_HASH_OF_SUBJECT_PUBLIC_KEY, CERT, BYTES, CREATION, false, Nothing},
    {CKA_HASH_OF_ISSUER_PUBLIC_KEY, CERT, BYTES, CREATION, false, Nothing},
    {CKA_JAVA_MIDP_SECURITY_DOMAIN, CERT, NUMBER, CREATION, false, Number<0>},
    // Of data objects
    {CKA_APPLICATION, DATA, BYTES, LATER, false, Nothing},
    {CKA_OBJECT_ID, DATA, BYTES, LATER, false, Nothing},
    {CKA_VALUE, DATA, BYTES, LATER, false, ValueOf},
};

static unsigned int ClassBitOf(CK_OBJECT_CLASS cls) {
  switch (cls) {
    case CKO_PRIVATE_KEY:
      return PRIV;
    case CKO_PUBLIC_KEY:
      return PUB;
    case CKO_CERTIFICATE:
      return CERT;
    default:
      return DATA;
  }
}

const Attribute* FindAttribute(CK_OBJECT_CLASS cls, CK_ATTRIBUTE_TYPE type) {
  const unsigned int bit = ClassBitOf(cls);
  for (const Attribute& attribute : ATTRIBUTES)
    if (attribute.type == type && (attribute.classes & bit) != 0) return &attribute;
  return nullptr;
}

const Attribute* FindOf(const Object& object, CK_ATTRIBUTE_TYPE type) {
  const Attribute* const attribute = FindAttribute(object.cls, type);
  if (attribute == nullptr || !object.IsKey()) return attribute;
  const bool isRsa = object.key->kind == KeyKind::KEY_RSA;
  if ((attribute->classes & (isRsa ? EC_ONLY : RSA_ONLY)) != 0) return nullptr;
  return attribute;
}

bool GetValue(const Object& object, const Attribute& attribute, Value& value) {
  if (attribute.change != TOLERATED && object.set.Find(attribute.type, &value.bytes)) {
    // Numbers are kept as words.
    if (attribute.form == NUMBER && value.bytes.size() == 4) {
      const unsigned int word = be2int(value.bytes.data());
      value.Set(word == 0xFFFFFFFF ? UNKNOWN : static_cast<CK_ULONG>(word));
    }
    return true;
  }
  return attribute.derive(object, value);
}

// --- Reading -------------------------------------------------------------------------------------

static CK_RV AnswerOne(const Object& object, CK_ATTRIBUTE& asked) {
  const CK_ULONG room = asked.ulValueLen;
  asked.ulValueLen = CK_UNAVAILABLE_INFORMATION;
  const Attribute* const attribute = FindOf(object, asked.type);
  if (attribute == nullptr) return CKR_ATTRIBUTE_TYPE_INVALID;
  if (attribute->secret) return CKR_ATTRIBUTE_SENSITIVE;
  Value value;
  if (!GetValue(object, *attribute, value)) return CKR_FUNCTION_FAILED;
  if (asked.pValue != nullptr) {
    if (room < value.bytes.size()) return CKR_BUFFER_TOO_SMALL;
    if (!value.bytes.empty()) memcpy(asked.pValue, value.bytes.data(), value.bytes.size());
  }
  asked.ulValueLen = value.bytes.size();
  return CKR_OK;
}

CK_RV AnswerAttributes(const Object& object, CK_ATTRIBUTE* attributes, CK_ULONG count) {
  CK_RV result = CKR_OK;
  for (CK_ULONG i = 0; i < count; i++) {
    const CK_RV answered = AnswerOne(object, attributes[i]);
    if (answered != CKR_OK) result = answered;
  }
  return result;
}
