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

CK_RV AddSessionObject(Session& session, OwnedObject object, const Template& wanted,
                       CK_OBJECT_HANDLE* handle) {
  const CK_RV applied = wanted.ApplyTo(*object);
  if (applied != CKR_OK) return applied;
  object->place = Place::SESSION;
  object->owner = session.handle;
  object->handle = NewObjectHandle();
  const MutexLock lock(session.slot->state);
  if (!session.slot->sessionObjects.Add(object.get())) return CKR_HOST_MEMORY;
  *handle = object.release()->handle;
  return CKR_OK;
}

void DeleteSessionObject(Slot& slot, CK_OBJECT_HANDLE handle) {
  for (size_t i = 0; i < slot.sessionObjects.count; i++) {
    Object* const object = slot.sessionObjects[i];
    if (object->handle != handle) continue;
    slot.sessionObjects.RemoveAt(i);
    return Delete(object);
  }
}

// The objects of the change are not those of the slot; they have the same names.
CK_RV CommitMade(TokenChange& change, Made one, Made other) {
  if (!NameObjects(change.view)) return CKR_HOST_MEMORY;
  const Made made[] = {one, other};
  unsigned char names[2][NAME_DIGEST_SIZE] = {};
  for (size_t i = 0; i < 2; i++)
    if (made[i].handle != nullptr) memcpy(names[i], made[i].object->name, NAME_DIGEST_SIZE);
  const CK_RV committed = CommitTokenChange(change);
  if (committed != CKR_OK) return committed;
  for (size_t i = 0; i < 2; i++) {
    if (made[i].handle == nullptr) continue;
    const Object* const found = FindNamed(*change.slot.view, names[i]);
    if (found == nullptr) return CKR_FUNCTION_FAILED;
    *made[i].handle = found->handle;
  }
  return CKR_OK;
}
