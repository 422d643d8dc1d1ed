// Objects made, copied, changed and destroyed; keypairs generated and imported.
#include "core/openssl_owners.h"
#include "keypair/keypair.h"
#include "keypair/private_key.h"
#include "pkcs11/attribute.h"
#include "pkcs11/call.h"
#include "pkcs11/key_making.h"
#include "pkcs11/search.h"
#include "pkcs11/token_change.h"

namespace {
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
}  // namespace

// Who may make or change an object: a public one anyone, as far as sessions go; but what is kept on
// the token needs the PIN, under which the device file is written.
static CK_RV CheckMayWrite(const Session& session, bool isToken, bool isPrivate) {
  const Slot& slot = *session.slot;
  if (isToken && !session.CanWrite()) return CKR_SESSION_READ_ONLY;
  if (isToken && slot.login == Login::NONE) return CKR_USER_NOT_LOGGED_IN;
  if (isPrivate && slot.login != Login::USER) return CKR_USER_NOT_LOGGED_IN;
  return CKR_OK;
}

static CK_RV CheckMayMake(const Session& session, bool isToken, bool isPrivate) {
  const MutexLock lock(session.slot->state);
  return CheckMayWrite(session, isToken, isPrivate);
}

// Makes an object the session's and hands out its handle. Takes it over, also on failure.
static CK_RV AddSessionObject(Session& session, Object* object, CK_OBJECT_HANDLE* handle) {
  object->place = Place::SESSION;
  object->owner = session.handle;
  object->handle = NewObjectHandle();
  const MutexLock lock(session.slot->state);
  if (session.slot->sessionObjects.Add(object)) {
    *handle = object->handle;
    return CKR_OK;
  }
  Delete(object);
  return CKR_HOST_MEMORY;
}

namespace {
// An object of a change, to be found again when the change is done.
struct Named {
  unsigned char name[NAME_DIGEST_SIZE];
  Named(TokenChange& change, const Object& object) {
    NameObjects(change.view);
    memcpy(name, object.name, sizeof name);
  }
  CK_RV Handle(const Slot& slot, CK_OBJECT_HANDLE* handle) const {
    const Object* const object = FindNamed(*slot.view, name);
    if (object == nullptr) return CKR_FUNCTION_FAILED;
    *handle = object->handle;
    return CKR_OK;
  }
};
using OwnedObject = std::unique_ptr<Object, Release<Delete<Object>>>;
}  // namespace

// --- Keypairs ------------------------------------------------------------------------------------

// The label of the keypair in the file: what the client calls the key, as far as it goes there.
static void LabelKeypair(Keypair* keypair, Span label) {
  static constexpr char DEFAULT[] = "key";
  if (label.empty() || label.size() >= NAME_SIZE || memchr(label.data(), 0, label.size())) {
    memcpy(keypair->label, DEFAULT, sizeof(DEFAULT));
  } else {
    memcpy(keypair->label, label.data(), label.size());
    keypair->label[label.size()] = '\0';
  }
}

// What is known of a key that was made here.
static bool MarkMade(Object& object, CK_MECHANISM_TYPE mechanism) {
  unsigned char word[4];
  int2be(static_cast<unsigned int>(mechanism), word);
  bool marked = object.set.SetFlag(CKA_LOCAL, true) && object.set.Set(CKA_KEY_GEN_MECHANISM, word);
  if (object.cls == CKO_PRIVATE_KEY)
    marked = marked && object.set.SetFlag(CKA_ALWAYS_SENSITIVE, true) &&
             object.set.SetFlag(CKA_NEVER_EXTRACTABLE, true);
  return marked;
}

static ObjectKey* KeyOfKeypair(Keypair* keypair) {  // takes the keypair over
  return NewObjectKey({keypair->publicKey, static_cast<size_t>(keypair->publicKeyLen)}, keypair);
}

static CK_RV MakeSessionKey(Session& session, CK_OBJECT_CLASS cls, ObjectKey* key,
                            const Template& wanted, const CK_MECHANISM* mechanism,
                            CK_OBJECT_HANDLE* handle) {
  OwnedObject object(NewKeyObject(cls, key));
  if (!object || (mechanism != nullptr && !MarkMade(*object, mechanism->mechanism)))
    return CKR_HOST_MEMORY;
  const CK_RV applied = wanted.ApplyTo(*object);
  return applied == CKR_OK ? AddSessionObject(session, object.release(), handle) : applied;
}

// Stores a keypair, with what both templates say of its objects; `inherited` is what is known of
// the private key before. `publicHandle` NULL: the private key is all that the client makes, or the
// public key is to be the session's.
static CK_RV StoreMadeKeypair(Session& session, OwnedKeypair keypair, Span inherited,
                              const Template& privateKey, const Template& publicKey,
                              const CK_MECHANISM* mechanism, CK_OBJECT_HANDLE* privateHandle,
                              CK_OBJECT_HANDLE* publicHandle) {
  Attributes known;
  if (!known.stored.Assign(inherited)) return CKR_HOST_MEMORY;
  Span label = privateKey.Get(CKA_LABEL);
  if (label.empty()) known.Find(CKA_LABEL, &label);
  LabelKeypair(keypair.get(), label);
  TokenChange change(*session.slot);
  CK_RV result = BeginTokenChange(change);
  if (result != CKR_OK) return result;
  Object *priv = nullptr, *pub = nullptr;
  result = PutInKeypair(change, keypair.release(), &priv, &pub);
  if (result != CKR_OK) return result;
  if (mechanism != nullptr &&
      !(MarkMade(*priv, mechanism->mechanism) && MarkMade(*pub, mechanism->mechanism)))
    return CKR_HOST_MEMORY;
  if (!priv->set.stored.Append(inherited)) return CKR_HOST_MEMORY;
  result = privateKey.ApplyTo(*priv);
  if (result == CKR_OK && publicHandle != nullptr) result = publicKey.ApplyTo(*pub);
  if (result == CKR_OK && mechanism != nullptr && publicHandle == nullptr)
    result = pub->set.SetFlag(HIDDEN, true) ? CKR_OK : CKR_HOST_MEMORY;
  if (result != CKR_OK) return result;
  const Named namedPrivate(change, *priv), namedPublic(change, *pub);
  result = CommitTokenChange(change);
  if (result == CKR_OK) result = namedPrivate.Handle(change.slot, privateHandle);
  if (result == CKR_OK && publicHandle != nullptr)
    result = namedPublic.Handle(change.slot, publicHandle);
  return result;
}

static CK_RV StorePublicKey(Session& session, Span encoding, const Template& wanted,
                            const CK_MECHANISM* mechanism, CK_OBJECT_HANDLE* handle) {
  TokenChange change(*session.slot);
  CK_RV result = BeginTokenChange(change);
  if (result != CKR_OK) return result;
  // The public key of a keypair that was hidden comes back.
  Object* object = nullptr;
  for (Object* there : change.view.objects) {
    if (there->cls == CKO_PUBLIC_KEY && there->set.Flag(HIDDEN, false) &&
        IsSame(there->key->encoding, encoding))
      object = there;
  }
  if (object != nullptr) {
    object->set.stored.count = 0;
  } else {
    KeyUse key;
    key.Reset(NewObjectKey(encoding, nullptr));
    if (!key) return CKR_ATTRIBUTE_VALUE_INVALID;
    object = NewKeyObject(CKO_PUBLIC_KEY, static_cast<ObjectKey*>(key.key));
    if (!AddTokenObject(change.view, object, Place::TABLE)) return CKR_HOST_MEMORY;
  }
  if (mechanism != nullptr && !MarkMade(*object, mechanism->mechanism)) return CKR_HOST_MEMORY;
  result = wanted.ApplyTo(*object);
  if (result != CKR_OK) return result;
  const Named named(change, *object);
  result = CommitTokenChange(change);
  return result == CKR_OK ? named.Handle(change.slot, handle) : result;
}

static CK_RV Generate(Session& session, const CK_MECHANISM& mechanism, const Template& publicKey,
                      const Template& privateKey, CK_OBJECT_HANDLE* publicHandle,
                      CK_OBJECT_HANDLE* privateHandle) {
  const Mechanism* const row = FindMechanism(mechanism.mechanism);
  if (row == nullptr || row->scheme != Scheme::GENERATE) return CKR_MECHANISM_INVALID;
  if (mechanism.ulParameterLen != 0) return CKR_MECHANISM_PARAM_INVALID;
  KeyRequest request;
  CK_RV result = ReadRequest(*row, publicKey.attributes, publicKey.count, request);
  if (result != CKR_OK) return result;
  const bool storesPublic = publicKey.IsToken(), storesPrivate = privateKey.IsToken();
  result = CheckMayMake(session, storesPublic || storesPrivate, true);
  if (result != CKR_OK) return result;
  OwnedKeypair keypair;
  result = MakeKeypair(request, keypair);
  if (result != CKR_OK) return result;
  if (storesPrivate) {
    Buffer encoding;
    if (!encoding.Assign({keypair->publicKey, static_cast<size_t>(keypair->publicKeyLen)}))
      return CKR_HOST_MEMORY;
    result = StoreMadeKeypair(session, std::move(keypair), {}, privateKey, publicKey, &mechanism,
                              privateHandle, storesPublic ? publicHandle : nullptr);
    if (result != CKR_OK || storesPublic) return result;
    KeyUse key;
    key.Reset(NewObjectKey(encoding, nullptr));
    return key ? MakeSessionKey(session, CKO_PUBLIC_KEY, static_cast<ObjectKey*>(key.key),
                                publicKey, &mechanism, publicHandle)
               : CKR_HOST_MEMORY;
  }
  KeyUse key;
  key.Reset(KeyOfKeypair(keypair.release()));
  if (!key) return CKR_HOST_MEMORY;
  auto* const objectKey = static_cast<ObjectKey*>(key.key);
  result =
      storesPublic
          ? StorePublicKey(session, objectKey->encoding, publicKey, &mechanism, publicHandle)
          : MakeSessionKey(session, CKO_PUBLIC_KEY, objectKey, publicKey, &mechanism, publicHandle);
  if (result != CKR_OK) return result;
  return MakeSessionKey(session, CKO_PRIVATE_KEY, objectKey, privateKey, &mechanism, privateHandle);
}

// A class that a template names has to be the one that it is for.
static bool IsFor(const Template& wanted, CK_OBJECT_CLASS cls) {
  CK_ULONG named = cls;
  return wanted.Get(CKA_CLASS).empty() || (wanted.Number(CKA_CLASS, &named) && named == cls);
}

CK_RV C_GenerateKeyPair(CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism,
                        CK_ATTRIBUTE_PTR pPublicKeyTemplate, CK_ULONG ulPublicKeyAttributeCount,
                        CK_ATTRIBUTE_PTR pPrivateKeyTemplate, CK_ULONG ulPrivateKeyAttributeCount,
                        CK_OBJECT_HANDLE_PTR phPublicKey, CK_OBJECT_HANDLE_PTR phPrivateKey) {
  return InSession("C_GenerateKeyPair", hSession, [&](Session& session) -> CK_RV {
    const Template publicKey = {pPublicKeyTemplate, ulPublicKeyAttributeCount};
    const Template privateKey = {pPrivateKeyTemplate, ulPrivateKeyAttributeCount};
    if (pMechanism == nullptr || phPublicKey == nullptr || phPrivateKey == nullptr ||
        !IsTemplate(publicKey.attributes, publicKey.count) ||
        !IsTemplate(privateKey.attributes, privateKey.count))
      return CKR_ARGUMENTS_BAD;
    if (!IsFor(publicKey, CKO_PUBLIC_KEY) || !IsFor(privateKey, CKO_PRIVATE_KEY))
      return CKR_TEMPLATE_INCONSISTENT;
    return Generate(session, *pMechanism, publicKey, privateKey, phPublicKey, phPrivateKey);
  });
}

// --- C_CreateObject ------------------------------------------------------------------------------

static CK_RV CreatePrivateKey(Session& session, const Template& wanted, CK_OBJECT_HANDLE* handle) {
  OwnedKeypair keypair;
  const CK_RV imported = ImportKeypair(wanted.attributes, wanted.count, keypair);
  if (imported != CKR_OK) return imported;
  if (wanted.IsToken())
    return StoreMadeKeypair(session, std::move(keypair), {}, wanted, {}, nullptr, handle, nullptr);
  KeyUse key;
  key.Reset(KeyOfKeypair(keypair.release()));
  if (!key) return CKR_HOST_MEMORY;
  return MakeSessionKey(session, CKO_PRIVATE_KEY, static_cast<ObjectKey*>(key.key), wanted, nullptr,
                        handle);
}

static CK_RV CreatePublicKey(Session& session, const Template& wanted, CK_OBJECT_HANDLE* handle) {
  Buffer encoding;
  const CK_RV read = ReadPublicKey(wanted.attributes, wanted.count, encoding);
  if (read != CKR_OK) return read;
  if (wanted.IsToken()) return StorePublicKey(session, encoding, wanted, nullptr, handle);
  KeyUse key;
  key.Reset(NewObjectKey(encoding, nullptr));
  if (!key) return CKR_ATTRIBUTE_VALUE_INVALID;
  return MakeSessionKey(session, CKO_PUBLIC_KEY, static_cast<ObjectKey*>(key.key), wanted, nullptr,
                        handle);
}

static CK_RV CreateCertificate(Session& session, const Template& wanted, CK_OBJECT_HANDLE* handle) {
  CK_ULONG type = 0;
  if (!wanted.Number(CKA_CERTIFICATE_TYPE, &type)) return CKR_TEMPLATE_INCOMPLETE;
  if (type != CKC_X_509) return CKR_ATTRIBUTE_VALUE_INVALID;
  const Span bytes = wanted.Get(CKA_VALUE);
  if (bytes.empty()) return CKR_TEMPLATE_INCOMPLETE;
  if (bytes.size() > 0xFFFFFF) return CKR_ATTRIBUTE_VALUE_INVALID;
  if (!wanted.IsToken()) {
    OwnedObject object(NewCertificateObject(bytes));
    if (!object) return CKR_ATTRIBUTE_VALUE_INVALID;
    const CK_RV applied = wanted.ApplyTo(*object);
    return applied == CKR_OK ? AddSessionObject(session, object.release(), handle) : applied;
  }
  TokenChange change(*session.slot);
  CK_RV result = BeginTokenChange(change);
  Object* made = nullptr;
  if (result == CKR_OK) result = PutInCertificate(change, bytes, &made);
  if (result == CKR_OK) result = wanted.ApplyTo(*made);
  if (result != CKR_OK) return result;
  const Named named(change, *made);
  result = CommitTokenChange(change);
  return result == CKR_OK ? named.Handle(change.slot, handle) : result;
}

static CK_RV CreateData(Session& session, const Template& wanted, CK_OBJECT_HANDLE* handle) {
  const Span value = wanted.Get(CKA_VALUE);
  if (value.size() > 0xFFFFFF) return CKR_ATTRIBUTE_VALUE_INVALID;
  if (!wanted.IsToken()) {
    OwnedObject object(NewDataObject(0, value));
    if (!object) return CKR_HOST_MEMORY;
    const CK_RV applied = wanted.ApplyTo(*object);
    return applied == CKR_OK ? AddSessionObject(session, object.release(), handle) : applied;
  }
  TokenChange change(*session.slot);
  CK_RV result = BeginTokenChange(change);
  Object* made = nullptr;
  if (result == CKR_OK) result = PutInData(change, value, wanted.Flag(CKA_PRIVATE, false), &made);
  if (result == CKR_OK) result = wanted.ApplyTo(*made);
  if (result != CKR_OK) return result;
  const Named named(change, *made);
  result = CommitTokenChange(change);
  return result == CKR_OK ? named.Handle(change.slot, handle) : result;
}

static CK_RV Create(Session& session, const Template& wanted, CK_OBJECT_HANDLE* handle) {
  CK_ULONG cls = 0;
  if (!wanted.Number(CKA_CLASS, &cls)) return CKR_TEMPLATE_INCOMPLETE;
  const bool isPrivate = wanted.Flag(CKA_PRIVATE, cls == CKO_PRIVATE_KEY) || cls == CKO_PRIVATE_KEY;
  const CK_RV may = CheckMayMake(session, wanted.IsToken(), isPrivate);
  if (may != CKR_OK) return may;
  switch (cls) {
    case CKO_PRIVATE_KEY:
      return CreatePrivateKey(session, wanted, handle);
    case CKO_PUBLIC_KEY:
      return CreatePublicKey(session, wanted, handle);
    case CKO_CERTIFICATE:
      return CreateCertificate(session, wanted, handle);
    case CKO_DATA:
      return CreateData(session, wanted, handle);
    default:
      LogReason("objects of class %lu are not kept", cls);
      return CKR_ATTRIBUTE_VALUE_INVALID;
  }
}

CK_RV C_CreateObject(CK_SESSION_HANDLE hSession, CK_ATTRIBUTE_PTR pTemplate, CK_ULONG ulCount,
                     CK_OBJECT_HANDLE_PTR phObject) {
  return InSession("C_CreateObject", hSession, [&](Session& session) -> CK_RV {
    if (phObject == nullptr || pTemplate == nullptr || !IsTemplate(pTemplate, ulCount))
      return CKR_ARGUMENTS_BAD;
    return Create(session, {pTemplate, ulCount}, phObject);
  });
}

// --- C_CopyObject --------------------------------------------------------------------------------

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
    if (FindIn(changes.attributes, changes.count, type) != nullptr ||
        AnswerAttributes(object, &asked, 1) != CKR_OK)
      continue;
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
  keypair->publicKey = Allocate<unsigned char>(key.encoding.count, "pkcs11");
  if (keypair->publicKey == nullptr) return CKR_HOST_MEMORY;
  memcpy(keypair->publicKey, key.encoding.items, key.encoding.count);
  keypair->publicKeyLen = static_cast<int>(key.encoding.count);
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
    const CK_RV applied = changes.ApplyTo(*object);
    return applied == CKR_OK ? AddSessionObject(session, object.release(), made) : applied;
  }
  OwnedKeypair keypair;
  const CK_RV cloned = CloneKeypair(*key, keypair);
  if (cloned != CKR_OK) return cloned;
  return StoreMadeKeypair(session, std::move(keypair), set, changes, {}, nullptr, made, nullptr);
}

CK_RV C_CopyObject(CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hObject, CK_ATTRIBUTE_PTR pTemplate,
                   CK_ULONG ulCount, CK_OBJECT_HANDLE_PTR phNewObject) {
  return InSession("C_CopyObject", hSession, [&](Session& session) -> CK_RV {
    if (phNewObject == nullptr || !IsTemplate(pTemplate, ulCount)) return CKR_ARGUMENTS_BAD;
    const Template changes = {pTemplate, ulCount};
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
    return Create(session, {merged.attributes.items, merged.attributes.count}, phNewObject);
  });
}

// --- C_DestroyObject, C_SetAttributeValue --------------------------------------------------------

namespace {
// What is looked at before an object is changed.
struct Target {
  bool isToken = false;
  unsigned char name[NAME_DIGEST_SIZE] = {};
};
}  // namespace

static CK_RV FindTarget(Session& session, CK_OBJECT_HANDLE handle, CK_ATTRIBUTE_TYPE permission,
                        Target& target) {
  const Object* const object = FindObject(*session.slot, handle);
  if (object == nullptr) return CKR_OBJECT_HANDLE_INVALID;
  const CK_RV may = CheckMayWrite(session, object->IsToken(), object->IsPrivate());
  if (may != CKR_OK) return may;
  if (!object->set.Flag(permission, true)) return CKR_ACTION_PROHIBITED;
  target.isToken = object->IsToken();
  memcpy(target.name, object->name, sizeof target.name);
  return CKR_OK;
}

static CK_RV TakeOut(TokenChange& change, Object* object) {
  switch (object->cls) {
    case CKO_PRIVATE_KEY:
      return TakeOutKeypair(change, object);
    case CKO_CERTIFICATE:
      return TakeOutCertificate(change, object);
    case CKO_DATA:
      return TakeOutData(change, object);
    default:
      break;
  }
  if (object->place == Place::TABLE) {
    change.view.Remove(object);
    return CKR_OK;
  }
  // Half of a keypair that is still there.
  object->set.stored.count = 0;
  return object->set.SetFlag(HIDDEN, true) ? CKR_OK : CKR_HOST_MEMORY;
}

CK_RV C_DestroyObject(CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hObject) {
  return InSession("C_DestroyObject", hSession, [&](Session& session) -> CK_RV {
    Slot& slot = *session.slot;
    Target target;
    {
      const MutexLock lock(slot.state);
      const CK_RV found = FindTarget(session, hObject, CKA_DESTROYABLE, target);
      if (found != CKR_OK) return found;
      for (size_t i = 0; !target.isToken && i < slot.sessionObjects.count; i++) {
        if (slot.sessionObjects[i]->handle != hObject) continue;
        Delete(slot.sessionObjects[i]);
        slot.sessionObjects.RemoveAt(i);
        return CKR_OK;
      }
    }
    TokenChange change(slot);
    CK_RV result = BeginTokenChange(change);
    if (result != CKR_OK) return result;
    Object* const object = FindNamed(change.view, target.name);
    if (object == nullptr) return CKR_OBJECT_HANDLE_INVALID;  // another process was first
    result = TakeOut(change, object);
    return result == CKR_OK ? CommitTokenChange(change) : result;
  });
}

static CK_RV SetOf(TokenChange* change, Object& object, const Template& wanted) {
  // The value of a data object is no attribute of the table.
  const CK_ATTRIBUTE* const value =
      object.cls == CKO_DATA ? FindIn(wanted.attributes, wanted.count, CKA_VALUE) : nullptr;
  if (value == nullptr) return ApplyTemplate(object, wanted.attributes, wanted.count, false);
  if (value->ulValueLen > 0xFFFFFF) return CKR_ATTRIBUTE_VALUE_INVALID;
  for (CK_ULONG i = 0; i < wanted.count; i++) {
    if (&wanted.attributes[i] == value) continue;
    const CK_RV applied = ApplyTemplate(object, &wanted.attributes[i], 1, false);
    if (applied != CKR_OK) return applied;
  }
  const Span bytes(static_cast<const unsigned char*>(value->pValue), value->ulValueLen);
  if (change != nullptr) return SetData(*change, object, bytes);
  return object.value.Assign(bytes) ? CKR_OK : CKR_HOST_MEMORY;
}

static CK_RV SetSessionObject(Object& object, const Template& wanted) {
  Attributes before;
  if (!before.stored.Assign(object.set.stored)) return CKR_HOST_MEMORY;
  const CK_RV set = SetOf(nullptr, object, wanted);
  if (set != CKR_OK) object.set.stored.Swap(before.stored);
  return set;
}

CK_RV C_SetAttributeValue(CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hObject,
                          CK_ATTRIBUTE_PTR pTemplate, CK_ULONG ulCount) {
  return InSession("C_SetAttributeValue", hSession, [&](Session& session) -> CK_RV {
    if (pTemplate == nullptr || ulCount == 0 || !IsTemplate(pTemplate, ulCount))
      return CKR_ARGUMENTS_BAD;
    const Template wanted = {pTemplate, ulCount};
    Slot& slot = *session.slot;
    Target target;
    {
      const MutexLock lock(slot.state);
      const CK_RV found = FindTarget(session, hObject, CKA_MODIFIABLE, target);
      if (found != CKR_OK) return found;
      if (!target.isToken) return SetSessionObject(*FindObject(slot, hObject), wanted);
    }
    TokenChange change(slot);
    CK_RV result = BeginTokenChange(change);
    if (result != CKR_OK) return result;
    Object* const object = FindNamed(change.view, target.name);
    if (object == nullptr) return CKR_OBJECT_HANDLE_INVALID;
    result = SetOf(&change, *object, wanted);
    return result == CKR_OK ? CommitTokenChange(change) : result;
  });
}

// --- What there is nothing to do for -------------------------------------------------------------

// There are no secret keys.
CK_RV C_GenerateKey(CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR, CK_ATTRIBUTE_PTR, CK_ULONG,
                    CK_OBJECT_HANDLE_PTR) {
  return InSession("C_GenerateKey", hSession,
                   [](Session&) -> CK_RV { return CKR_FUNCTION_NOT_SUPPORTED; });
}

CK_RV C_WrapKey(CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR, CK_OBJECT_HANDLE, CK_OBJECT_HANDLE,
                CK_BYTE_PTR, CK_ULONG_PTR) {
  return InSession("C_WrapKey", hSession,
                   [](Session&) -> CK_RV { return CKR_FUNCTION_NOT_SUPPORTED; });
}

CK_RV C_UnwrapKey(CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR, CK_OBJECT_HANDLE, CK_BYTE_PTR,
                  CK_ULONG, CK_ATTRIBUTE_PTR, CK_ULONG, CK_OBJECT_HANDLE_PTR) {
  return InSession("C_UnwrapKey", hSession,
                   [](Session&) -> CK_RV { return CKR_FUNCTION_NOT_SUPPORTED; });
}

CK_RV C_DeriveKey(CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR, CK_OBJECT_HANDLE, CK_ATTRIBUTE_PTR,
                  CK_ULONG, CK_OBJECT_HANDLE_PTR) {
  return InSession("C_DeriveKey", hSession,
                   [](Session&) -> CK_RV { return CKR_FUNCTION_NOT_SUPPORTED; });
}
