// Keypairs generated, and how keys come to their objects.
#include "keypair/keypair.h"
#include "pkcs11/call.h"
#include "pkcs11/key_making.h"
#include "pkcs11/object_making.h"

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

static Span PublicKeyOf(const Keypair* keypair) {
  return {keypair->publicKey, static_cast<size_t>(keypair->publicKeyLen)};
}

ObjectKey* KeyOfKeypair(Keypair* keypair) { return NewObjectKey(PublicKeyOf(keypair), keypair); }

CK_RV MakeSessionKey(Session& session, CK_OBJECT_CLASS cls, ObjectKey* key, const Template& wanted,
                     const CK_MECHANISM* mechanism, CK_OBJECT_HANDLE* handle) {
  OwnedObject object(NewKeyObject(cls, key));
  if (!object || (mechanism != nullptr && !MarkMade(*object, mechanism->mechanism)))
    return CKR_HOST_MEMORY;
  return AddSessionObject(session, std::move(object), wanted, handle);
}

CK_RV StoreMadeKeypair(Session& session, OwnedKeypair keypair, Span inherited,
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
  return CommitMade(change, {priv, privateHandle}, {pub, publicHandle});
}

CK_RV StorePublicKey(Session& session, Span encoding, const Template& wanted,
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
  return result == CKR_OK ? CommitMade(change, {object, handle}) : result;
}

// A type that a template names has to be the mechanism's; SM2 keys may be called EC keys.
static bool IsOfType(const Template& wanted, KeyKind kind) {
  CK_ULONG type = 0;
  if (wanted.Find(CKA_KEY_TYPE) == nullptr) return true;
  if (!wanted.Number(CKA_KEY_TYPE, &type)) return false;
  if (kind == KeyKind::KEY_RSA) return type == CKK_RSA;
  return type == CKK_EC || (kind == KeyKind::KEY_SM2 && type == SM2KeyType());
}

static CK_RV Generate(Session& session, const CK_MECHANISM& mechanism, const Template& publicKey,
                      const Template& privateKey, CK_OBJECT_HANDLE* publicHandle,
                      CK_OBJECT_HANDLE* privateHandle) {
  const Mechanism* const row = FindMechanism(mechanism.mechanism);
  if (row == nullptr || row->scheme != Scheme::GENERATE) return CKR_MECHANISM_INVALID;
  if (mechanism.ulParameterLen != 0) return CKR_MECHANISM_PARAM_INVALID;
  KeyRequest request;
  CK_RV result = ReadRequest(*row, publicKey, request);
  if (result != CKR_OK) return result;
  if (!IsOfType(publicKey, request.kind) || !IsOfType(privateKey, request.kind))
    return CKR_TEMPLATE_INCONSISTENT;
  const bool storesPublic = publicKey.IsToken(), storesPrivate = privateKey.IsToken();
  result = CheckMayMake(session, storesPublic || storesPrivate, true);
  if (result != CKR_OK) return result;
  OwnedKeypair keypair;
  result = MakeKeypair(request, keypair);
  if (result != CKR_OK) return result;
  if (storesPublic && storesPrivate)
    return StoreMadeKeypair(session, std::move(keypair), {}, privateKey, publicKey, &mechanism,
                            privateHandle, publicHandle);
  // The session's half comes first, for it can be taken back.
  KeyUse use;
  use.Reset(storesPrivate ? NewObjectKey(PublicKeyOf(keypair.get()), nullptr)
                          : KeyOfKeypair(keypair.release()));
  if (!use) return CKR_HOST_MEMORY;
  auto* const key = static_cast<ObjectKey*>(use.key);
  CK_OBJECT_HANDLE made = CK_INVALID_HANDLE;
  if (storesPublic) {
    result = MakeSessionKey(session, CKO_PRIVATE_KEY, key, privateKey, &mechanism, &made);
    *privateHandle = made;
    if (result == CKR_OK)
      result = StorePublicKey(session, key->encoding, publicKey, &mechanism, publicHandle);
  } else {
    result = MakeSessionKey(session, CKO_PUBLIC_KEY, key, publicKey, &mechanism, &made);
    *publicHandle = made;
    if (result == CKR_OK)
      result = storesPrivate ? StoreMadeKeypair(session, std::move(keypair), {}, privateKey,
                                                publicKey, &mechanism, privateHandle, nullptr)
                             : MakeSessionKey(session, CKO_PRIVATE_KEY, key, privateKey, &mechanism,
                                              privateHandle);
  }
  if (result != CKR_OK) {
    const MutexLock lock(session.slot->state);
    DeleteSessionObject(*session.slot, made);
  }
  return result;
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
        !publicKey.IsSound() || !privateKey.IsSound())
      return CKR_ARGUMENTS_BAD;
    if (!IsFor(publicKey, CKO_PUBLIC_KEY) || !IsFor(privateKey, CKO_PRIVATE_KEY))
      return CKR_TEMPLATE_INCONSISTENT;
    return Generate(session, *pMechanism, publicKey, privateKey, phPublicKey, phPrivateKey);
  });
}
