// Sessions: an application's view of one slot, with its operations and its session objects.
#ifndef VAKRO_PKCS11_SESSION_H
#define VAKRO_PKCS11_SESSION_H

#include "pkcs11/operation.h"

#include <pthread.h>

#include <atomic>

struct Slot;
struct Search;

struct Session {
  CK_SESSION_HANDLE handle = 0;
  CK_FLAGS flags = 0;                                 // CKF_RW_SESSION, CKF_SERIAL_SESSION
  Slot* slot = nullptr;                               // lives until C_Finalize
  pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;  // taken before any lock of the slot
  std::atomic<unsigned int> references{1};
  bool closed = false;       // under `mutex`; the session may still be held, but is no more
  Operations operations;     // under `mutex`
  Search* search = nullptr;  // of C_FindObjectsInit; under `mutex`

  bool CanWrite() const { return (flags & CKF_RW_SESSION) != 0; }
};

// A session that is found by its handle and locked for a scope; false when there is none.
struct SessionLock {
  Session* const session;
  explicit SessionLock(CK_SESSION_HANDLE handle);
  SessionLock(const SessionLock&) = delete;
  SessionLock& operator=(const SessionLock&) = delete;
  ~SessionLock();
  explicit operator bool() const { return session != nullptr; }
  Session& operator*() const { return *session; }
};

#endif
