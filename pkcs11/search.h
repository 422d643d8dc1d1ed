// Searches for objects, and how calls reach one.
#ifndef VAKRO_PKCS11_SEARCH_H
#define VAKRO_PKCS11_SEARCH_H

#include "pkcs11/slot.h"

void EndSearch(Session& session);  // ends one that is active. Caller holds the session

// Whether a session may know of the object. Caller holds the slot's `state`.
bool IsVisible(const Slot& slot, const Object& object);

// FindObject returns an object that the session may know of, or NULL. Caller holds `state`.
Object* FindObject(const Slot& slot, CK_OBJECT_HANDLE handle);

#endif
