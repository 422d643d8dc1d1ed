// Objects destroyed and changed: C_DestroyObject, C_SetAttributeValue.
#include "pkcs11/call.h"
#include "pkcs11/object_making.h"
#include "pkcs11/search.h"

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
      if (!target.isToken) return DeleteSessionObject(slot, hObject), CKR_OK;
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
  const CK_ATTRIBUTE* const value = object.cls == CKO_DATA ? wanted.Find(CKA_VALUE) : nullptr;
  if (value == nullptr) return wanted.ApplyTo(object, false);
  if (value->ulValueLen > 0xFFFFFF) return CKR_ATTRIBUTE_VALUE_INVALID;
  for (CK_ULONG i = 0; i < wanted.count; i++) {
    if (&wanted.attributes[i] == value) continue;
    const CK_RV applied = Template{&wanted.attributes[i], 1}.ApplyTo(object, false);
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
    const Template wanted = {pTemplate, ulCount};
    if (ulCount == 0 || !wanted.IsSound()) return CKR_ARGUMENTS_BAD;
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
