// Slots: one for each device of the key folder, and one for the token that is not there yet.
//
// Locks of a slot, in this order: `work`, then `state`. `work` is held through whatever takes long
// (reading and writing the file, deriving keys from the PIN), `state` for moments, by those who
// look at the token or publish another state of it. A session's mutex comes before both, the
// module's locks after. None of them is ever held with another slot's.
#ifndef VAKRO_PKCS11_SLOT_H
#define VAKRO_PKCS11_SLOT_H

#include "pkcs11/object.h"
#include "pkcs11/session.h"

#include <time.h>

enum class Login { NONE, USER, SO };

// What a stat tells of a file; another one means another content.
struct Stamp {
  unsigned long device = 0, inode = 0;
  long size = 0;
  timespec modified = {}, changed = {};
  bool settled = false;  // written long enough before the look that a later write shows
};

struct Slot {
  CK_SLOT_ID id = 0;
  UtilText path;  // of the device file; NULL for the slot of the token that is not there yet
  pthread_mutex_t work = PTHREAD_MUTEX_INITIALIZER;
  pthread_mutex_t state = PTHREAD_MUTEX_INITIALIZER;

  // Changed under both locks, read under either.
  Device* device = nullptr;  // DeviceFreeDevice; its keys are there while someone is logged in
  View* view = nullptr;
  Stamp stamp;
  bool gone = false;      // the file is no more
  bool event = false;     // it has come or gone, and C_WaitForSlotEvent has not said so yet
  bool writable = false;  // by this process
  Login login = Login::NONE;

  // Under `state`.
  List<Object*> sessionObjects;  // owned
  CK_ULONG sessions = 0, writers = 0;
};

struct MutexLock {
  pthread_mutex_t& mutex;
  explicit MutexLock(pthread_mutex_t& of) : mutex(of) { pthread_mutex_lock(&mutex); }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;
  ~MutexLock() { pthread_mutex_unlock(&mutex); }
};

inline constexpr CK_SLOT_ID FREE_SLOT = 0;
inline constexpr CK_ULONG MIN_PIN_SIZE = 4;  // of a new PIN; one that is there may be any
inline constexpr CK_ULONG MAX_PIN_SIZE = 255;

using OwnedDeviceHandle = std::unique_ptr<Device, Release<DeviceFreeDevice>>;

// --- The list of slots (slot.cpp) ----------------------------------------------------------------

CK_RV OpenSlots();   // by C_Initialize
void CloseSlots();   // by C_Finalize, when no session and no call is left
void ForgetSlots();  // in a child process: those of its parent, which stay where they are

// FindSlot returns the slot with this id, or NULL. It lives until C_Finalize.
Slot* FindSlot(CK_SLOT_ID id);

// RefreshSlots looks whether devices have come or gone.
CK_RV RefreshSlots();

// AddSlot makes a slot for a device file that has just been made; until the slots are listed again
// it answers to FREE_SLOT, too. NULL without memory.
Slot* AddSlot(const char* path);

// --- One token (token.cpp) -----------------------------------------------------------------------

// Refresh makes the slot's state that of its file, for the price of a stat where nothing changed.
// CKR_OK; CKR_TOKEN_NOT_PRESENT when the file is no more; CKR_DEVICE_ERROR when it can't be looked
// at now, CKR_HOST_MEMORY. Takes both locks, in turn.
CK_RV Refresh(Slot& slot);

// Reload is Refresh without a look at the time. Caller holds `work`.
CK_RV Reload(Slot& slot);

// Publish makes a record, which it takes over, also on failure, the slot's. Caller holds `work`.
CK_RV Publish(Slot& slot, Device* device, const Stamp& stamp);

// LogUnopened names the keypairs that don't open under a PIN that was refused.
void LogUnopened(Device* device, const char* pin);

// LookAt stamps a file: 1; 0 it is not there; -1 that can't be told now.
int LookAt(const char* path, Stamp& stamp);

// EndLogin wipes the keys. Caller holds `work`. Operations with them end in EndPrivateWork, which
// takes the sessions' mutexes and must be called without any lock.
void EndLogin(Slot& slot);
void EndPrivateWork(Slot& slot);

// --- Sessions (sessions.cpp) ---------------------------------------------------------------------

void CloseSessions();              // by C_Finalize: all
void ForgetSessions();             // in a child process
void CloseSessionsOf(Slot* slot);  // of one slot

// DropObjects deletes the session objects that belong to the session; 0: all. Caller holds `state`.
void DropObjects(Slot& slot, CK_SESSION_HANDLE owner);

#endif
