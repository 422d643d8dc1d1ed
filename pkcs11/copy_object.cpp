// C_CopyObject.
#include "core/openssl_owners.h"
#include "keypair/keypair.h"
#include "keypair/private_key.h"
#include "pkcs11/call.h"
#include "pkcs11/object_making.h"
#include "pkcs11/search.h"
#include "sm2/sm2.h"

namespace {
// An object's own attributes and then those of a template, as one template.
struct Merged {
  List<CK_ATTRIBUTE> attributes;
  List<Value*> values;
  ~Merged() {
    for (Value* value : values) Delete(value);
  }
  bool Add(CK_ATTRIBUTE_TYPE type, Span bytes) {
    return attributes.Add({type, const_cast<unsigned char*>(bytes.data()), bytes.size()});
  }
};
}  // namespace

static CK_RV CopyAttributes(const Object& object, const Template& changes, Merged& merged) {
  for (CK_ULONG i = 0; i < changes.count; i++)
    if (!merged.attributes.Add(changes.attributes[i])) return CKR_HOST_MEMORY;
  static constexpr CK_ATTRIBUTE_TYPE TYPES[] = {CKA_CLASS,
                                                CKA_TOKEN,
                                                CKA_PRIVATE,
                                                CKA_MODIFIABLE,
                                                CKA_LABEL,
                                                CKA_KEY_TYPE,
                                                CKA_ID,
                                                CKA_SUBJECT,
                                                CKA_START_DATE,
                                                CKA_END_DATE,
                                                CKA_DERIVE,
                                                CKA_VERIFY,
                                                CKA_ENCRYPT,
                                                CKA_MODULUS,
                                                CKA_PUBLIC_EXPONENT,
                                                CKA_EC_PARAMS,
                                                CKA_EC_POINT,
                                                CKA_VALUE,
                                                CKA_APPLICATION,
                                                CKA_OBJECT_ID,
                                                CKA_ISSUER,
                                                CKA_SERIAL_NUMBER,
                                                CKA_CERTIFICATE_TYPE};
  for (const CK_ATTRIBUTE_TYPE type : TYPES) {
    CK_ATTRIBUTE asked = {type, nullptr, 0};
    if (changes.Find(type) != nullptr || AnswerAttributes(object, &asked, 1) != CKR_OK) continue;
    Value* const value = New<Value>();
    if (value == nullptr || !merged.values.Add(value) ||
        !GetValue(object, *FindAttribute(object.cls, type), *value) ||
        !value->made.Assign(Span(value->made).data() == value->bytes.data() ? Span()
                                                                            : value->bytes))
      return CKR_HOST_MEMORY;
    if (!merged.Add(type, value->made.count > 0 ? Span(value->made) : value->bytes))
      return CKR_HOST_MEMORY;
  }
  return CKR_OK;
}

// The encoding of a keypair is memory of the crypto library, which makes it anew.
static bool EncodePublicKey(const ObjectKey& key, Keypair& keypair) {
  unsigned char* made = nullptr;
  int length = 0;
  if (key.kind == KeyKind::KEY_RSA) {
    const RsaKey rsa(EVP_PKEY_get1_RSA(key.publicKey->key));
    if (!rsa || ToRSAPublicKeyEncode(rsa.get(), &made, &length) != 1) return false;
  } else {
    const unsigned char* const y = key.point.end() - SM2_FIELD_SIZE;
    if (VakroPKICryptoEncodeECCPubKey(key.curve, y - SM2_FIELD_SIZE, SM2_FIELD_SIZE, y,
                                      SM2_FIELD_SIZE, &made, &length) != 1)
      return false;
  }
  keypair.publicKey = made;
  keypair.publicKeyLen = length;
  return true;
}

// A keypair of its own with the same keys, temporary.
static CK_RV CloneKeypair(const ObjectKey& key, OwnedKeypair& clone) {
  OwnedKeypair keypair(NewKeypair());
  PrivateKey fetched;
  if (!keypair || FetchPrivateKey(key.keypair, fetched) != VAKRO_OK) return CKR_HOST_MEMORY;
  keypair->algorithm = key.keypair->algorithm;
  keypair->bits = key.keypair->bits;
  keypair->isTemp = 1;
  keypair->curve = fetched.curve;
  keypair->privateKey = fetched.key.release();
  if (!EncodePublicKey(key, *keypair)) return CKR_HOST_MEMORY;
  clone = std::move(keypair);
  return CKR_OK;
}

// A private key of a session may be copied, to the token above all, as it may be used. One of the
// token stays where it is.
static CK_RV CopyPrivateKey(Session& session, CK_OBJECT_HANDLE handle, const Template& changes,
                            CK_OBJECT_HANDLE* made) {
  KeyUse use;
  Buffer set;
  {
    const MutexLock lock(session.slot->state);
    const Object* const object = FindObject(*session.slot, handle);
    if (object == nullptr) return CKR_OBJECT_HANDLE_INVALID;
    if (!set.Assign(object->set.stored)) return CKR_HOST_MEMORY;
    HoldKey(object->key);
    use.Reset(object->key);
  }
  auto* const key = static_cast<ObjectKey*>(use.key);
  const CK_RV may = CheckMayMake(session, changes.IsToken(), true);
  if (may != CKR_OK) return may;
  if (!changes.IsToken()) {
    OwnedObject object(NewKeyObject(CKO_PRIVATE_KEY, key));
    if (!object || !object->set.stored.Append(set)) return CKR_HOST_MEMORY;
    return AddSessionObject(session, std::move(object), changes, made);
  }
  OwnedKeypair keypair;
  const CK_RV cloned = CloneKeypair(*key, keypair);
  if (cloned != CKR_OK) return cloned;
  return StoreMadeKeypair(session, std::move(keypair), set, changes, {}, nullptr, made, nullptr);
}

CK_RV C_CopyObject(CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hObject, CK_ATTRIBUTE_PTR pTemplate,
                   CK_ULONG ulCount, CK_OBJECT_HANDLE_PTR phNewObject) {
  return InSession("C_CopyObject", hSession, [&](Session& session) -> CK_RV {
    const Template changes = {pTemplate, ulCount};
    if (phNewObject == nullptr || !changes.IsSound()) return CKR_ARGUMENTS_BAD;
    Merged merged;
    bool isPrivateKey = false;
    {
      const MutexLock lock(session.slot->state);
      const Object* const object = FindObject(*session.slot, hObject);
      if (object == nullptr) return CKR_OBJECT_HANDLE_INVALID;
      isPrivateKey = object->cls == CKO_PRIVATE_KEY;
      if ((isPrivateKey && object->IsToken()) || !object->set.Flag(CKA_COPYABLE, true))
        return CKR_ACTION_PROHIBITED;
      const CK_RV copied = isPrivateKey ? CKR_OK : CopyAttributes(*object, changes, merged);
      if (copied != CKR_OK) return copied;
    }
    if (isPrivateKey) return CopyPrivateKey(session, hObject, changes, phNewObject);
    return CreateObject(session, {merged.attributes.items, merged.attributes.count}, phNewObject);
  });
}
