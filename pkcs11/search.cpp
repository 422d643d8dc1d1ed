// Finding objects, reading their attributes, and taking their keys for operations.
#include "pkcs11/search.h"

#include "pkcs11/call.h"
#include "pkcs11/template.h"

struct Search {
  List<CK_OBJECT_HANDLE> found;
  size_t given = 0;
};

void EndSearch(Session& session) {
  Delete(session.search);
  session.search = nullptr;
}

bool IsVisible(const Slot& slot, const Object& object) {
  if (object.set.Flag(HIDDEN, false)) return false;
  return slot.login == Login::USER || !object.IsPrivate();
}

Object* FindObject(const Slot& slot, CK_OBJECT_HANDLE handle) {
  Object* found = slot.view != nullptr ? slot.view->Find(handle) : nullptr;
  if (found == nullptr) {
    for (Object* object : slot.sessionObjects)
      if (object->handle == handle) found = object;
  }
  return found != nullptr && IsVisible(slot, *found) ? found : nullptr;
}

static bool AddMatches(const Slot& slot, const List<Object*>& objects, const Template& wanted,
                       Search& search) {
  for (const Object* object : objects) {
    if (!IsVisible(slot, *object) || !wanted.Matches(*object)) continue;
    if (!search.found.Add(object->handle)) return false;
  }
  return true;
}

CK_RV C_FindObjectsInit(CK_SESSION_HANDLE hSession, CK_ATTRIBUTE_PTR pTemplate, CK_ULONG ulCount) {
  return InSession("C_FindObjectsInit", hSession, [&](Session& session) -> CK_RV {
    const Template wanted = {pTemplate, ulCount};
    if (!wanted.IsSound()) return CKR_ARGUMENTS_BAD;
    if (session.search != nullptr) return CKR_OPERATION_ACTIVE;
    Slot& slot = *session.slot;
    const CK_RV refreshed = Refresh(slot);
    if (refreshed == CKR_TOKEN_NOT_PRESENT) return CKR_DEVICE_REMOVED;
    if (refreshed != CKR_OK) return refreshed;
    Search* const search = New<Search>();
    if (search == nullptr) return CKR_HOST_MEMORY;
    session.search = search;
    const MutexLock lock(slot.state);
    if (AddMatches(slot, slot.view->objects, wanted, *search) &&
        AddMatches(slot, slot.sessionObjects, wanted, *search))
      return CKR_OK;
    EndSearch(session);
    return CKR_HOST_MEMORY;
  });
}

CK_RV C_FindObjects(CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE_PTR phObject,
                    CK_ULONG ulMaxObjectCount, CK_ULONG_PTR pulObjectCount) {
  return InSession("C_FindObjects", hSession, [&](Session& session) -> CK_RV {
    if (pulObjectCount == nullptr || (phObject == nullptr && ulMaxObjectCount > 0))
      return CKR_ARGUMENTS_BAD;
    Search* const search = session.search;
    if (search == nullptr) return CKR_OPERATION_NOT_INITIALIZED;
    CK_ULONG count = 0;
    while (count < ulMaxObjectCount && search->given < search->found.count)
      phObject[count++] = search->found[search->given++];
    *pulObjectCount = count;
    return CKR_OK;
  });
}

CK_RV C_FindObjectsFinal(CK_SESSION_HANDLE hSession) {
  return InSession("C_FindObjectsFinal", hSession, [](Session& session) -> CK_RV {
    if (session.search == nullptr) return CKR_OPERATION_NOT_INITIALIZED;
    EndSearch(session);
    return CKR_OK;
  });
}

CK_RV C_GetAttributeValue(CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hObject,
                          CK_ATTRIBUTE_PTR pTemplate, CK_ULONG ulCount) {
  return InSession("C_GetAttributeValue", hSession, [&](Session& session) -> CK_RV {
    if (pTemplate == nullptr || ulCount == 0) return CKR_ARGUMENTS_BAD;
    const MutexLock lock(session.slot->state);
    const Object* const object = FindObject(*session.slot, hObject);
    if (object == nullptr) return CKR_OBJECT_HANDLE_INVALID;
    return AnswerAttributes(*object, pTemplate, ulCount);
  });
}

CK_RV C_GetObjectSize(CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hObject, CK_ULONG_PTR pulSize) {
  return InSession("C_GetObjectSize", hSession, [&](Session& session) -> CK_RV {
    if (pulSize == nullptr) return CKR_ARGUMENTS_BAD;
    const MutexLock lock(session.slot->state);
    const Object* const object = FindObject(*session.slot, hObject);
    if (object == nullptr) return CKR_OBJECT_HANDLE_INVALID;
    *pulSize = object->set.stored.count + object->certificate.count + object->value.count +
               (object->IsKey() ? object->key->encoding.count : 0);
    return CKR_OK;
  });
}

CK_RV FetchKey(Session& session, CK_OBJECT_HANDLE handle, CK_ATTRIBUTE_TYPE usage, KeyUse& use) {
  const MutexLock lock(session.slot->state);
  const Object* const object = FindObject(*session.slot, handle);
  if (object == nullptr || !object->IsKey()) {
    // Private keys can't be told from nothing by one who is not logged in.
    return CKR_KEY_HANDLE_INVALID;
  }
  const Attribute* const attribute = FindAttribute(object->cls, usage);  // not of the other half
  Value value;
  if (attribute == nullptr || object->key->publicKey == nullptr ||
      !GetValue(*object, *attribute, value) || value.bytes.empty() || value.bytes[0] == CK_FALSE)
    return CKR_KEY_FUNCTION_NOT_PERMITTED;
  HoldKey(object->key);
  use.Reset(object->key);
  return CKR_OK;
}
