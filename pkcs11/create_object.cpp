// C_CreateObject: keys, certificates and data that were made elsewhere.
#include "pkcs11/call.h"
#include "pkcs11/key_making.h"
#include "pkcs11/object_making.h"

static CK_RV CreatePrivateKey(Session& session, const Template& wanted, CK_OBJECT_HANDLE* handle) {
  OwnedKeypair keypair;
  const CK_RV imported = ImportKeypair(wanted, keypair);
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
  const CK_RV read = ReadPublicKey(wanted, encoding);
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
  const CK_RV typed = wanted.Require(CKA_CERTIFICATE_TYPE, &type);
  if (typed != CKR_OK) return typed;
  if (type != CKC_X_509) return CKR_ATTRIBUTE_VALUE_INVALID;
  const Span bytes = wanted.Get(CKA_VALUE);
  if (bytes.empty()) return CKR_TEMPLATE_INCOMPLETE;
  CertificateParts parts;
  if (bytes.size() > 0xFFFFFF || !ParseCertificate(bytes, parts))
    return CKR_ATTRIBUTE_VALUE_INVALID;
  if (!wanted.IsToken()) {
    OwnedObject object(NewCertificateObject(bytes));
    if (!object) return CKR_HOST_MEMORY;
    return AddSessionObject(session, std::move(object), wanted, handle);
  }
  TokenChange change(*session.slot);
  CK_RV result = BeginTokenChange(change);
  Object* made = nullptr;
  if (result == CKR_OK) result = PutInCertificate(change, bytes, &made);
  if (result == CKR_OK) result = wanted.ApplyTo(*made);
  return result == CKR_OK ? CommitMade(change, {made, handle}) : result;
}

static CK_RV CreateData(Session& session, const Template& wanted, CK_OBJECT_HANDLE* handle) {
  const Span value = wanted.Get(CKA_VALUE);
  if (value.size() > 0xFFFFFF) return CKR_ATTRIBUTE_VALUE_INVALID;
  if (!wanted.IsToken()) {
    OwnedObject object(NewDataObject(0, value));
    if (!object) return CKR_HOST_MEMORY;
    return AddSessionObject(session, std::move(object), wanted, handle);
  }
  TokenChange change(*session.slot);
  CK_RV result = BeginTokenChange(change);
  Object* made = nullptr;
  if (result == CKR_OK) result = PutInData(change, value, wanted.Flag(CKA_PRIVATE, false), &made);
  if (result == CKR_OK) result = wanted.ApplyTo(*made);
  return result == CKR_OK ? CommitMade(change, {made, handle}) : result;
}

CK_RV CreateObject(Session& session, const Template& wanted, CK_OBJECT_HANDLE* handle) {
  CK_ULONG cls = 0;
  const CK_RV named = wanted.Require(CKA_CLASS, &cls);
  if (named != CKR_OK) return named;
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
    const Template wanted = {pTemplate, ulCount};
    if (phObject == nullptr || pTemplate == nullptr || !wanted.IsSound()) return CKR_ARGUMENTS_BAD;
    return CreateObject(session, wanted, phObject);
  });
}
