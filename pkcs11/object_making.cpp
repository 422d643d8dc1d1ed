// What the calls that make objects share.
#include "pkcs11/object_making.h"

CK_RV CheckMayWrite(const Session& session, bool isToken, bool isPrivate) {
  const Slot& slot = *session.slot;
  if (isToken && !session.CanWrite()) return CKR_SESSION_READ_ONLY;
  if (isToken && slot.login == Login::NONE) return CKR_USER_NOT_LOGGED_IN;
  if (isPrivate && slot.login != Login::USER) return CKR_USER_NOT_LOGGED_IN;
  return CKR_OK;
}

CK_RV CheckMayMake(const Session& session, bool isToken, bool isPrivate) {
  const MutexLock lock(session.slot->state);
  return CheckMayWrite(session, isToken, isPrivate);
}

CK_RV AddSessionObject(Session& session, Object* object, CK_OBJECT_HANDLE* handle) {
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

void DeleteSessionObject(Slot& slot, CK_OBJECT_HANDLE handle) {
  for (size_t i = 0; i < slot.sessionObjects.count; i++) {
    Object* const object = slot.sessionObjects[i];
    if (object->handle != handle) continue;
    slot.sessionObjects.RemoveAt(i);
    return Delete(object);
  }
}

Named::Named(TokenChange& change, const Object& object) {
  NameObjects(change.view);
  memcpy(name, object.name, sizeof name);
}

CK_RV Named::Handle(const Slot& slot, CK_OBJECT_HANDLE* handle) const {
  const Object* const object = FindNamed(*slot.view, name);
  if (object == nullptr) return CKR_FUNCTION_FAILED;
  *handle = object->handle;
  return CKR_OK;
}
