// The module's process-wide state and the scopes of its locks.
//
// Whoever holds more than one takes them in this order: StartLock, ModuleLock, Computing, KeyLock,
// ShieldLock.
#ifndef VAKRO_CORE_LOCK_H
#define VAKRO_CORE_LOCK_H

#include "vakro_crypto.h"
#include "vakro_device.h"
#include "vakro_util.h"

#include <pthread.h>

struct SM2Info;  // sm2/sm2.h

// A program that reads a global of the library must do so where it stands. Left to itself, g++ has
// the program keep a copy, which the library would not see. Without this attribute (other
// compilers than g++ for x86) -fPIC does the same; clang++ does so by itself.
#if __has_attribute(nodirect_extern_access)
#define VAKRO_GLOBAL extern __attribute__((nodirect_extern_access))
#else
#define VAKRO_GLOBAL extern
#endif

extern "C" {

// NULL while the module is stopped; written by DeviceInit and DeviceEnd.

VAKRO_GLOBAL VakroLock* g_lock;
VAKRO_GLOBAL VakroPKICryptoDevice* g_hSoftDevice;
VAKRO_GLOBAL char* g_keyFolder;  // vakro_free; with a trailing slash
VAKRO_GLOBAL SM2Info* g_sm2;     // NULL also when SM2 is not available

}  // extern "C"

// For a scope no other thread can end this one with pthread_cancel, as it could in the middle of a
// file call, with a lock held and a file half written. Scopes nest.
struct NoCancellation {
  int before = PTHREAD_CANCEL_ENABLE;
  NoCancellation() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before); }
  NoCancellation(const NoCancellation&) = delete;
  NoCancellation& operator=(const NoCancellation&) = delete;
  ~NoCancellation() { pthread_setcancelstate(before, nullptr); }
};

// The module lock for a scope. Check `held` before anything else.
struct ModuleLock {
  const NoCancellation uncancelled;
  const bool held;
  ModuleLock() : held(DeviceLockDevice(nullptr) == 1) {}
  ModuleLock(const ModuleLock&) = delete;
  ModuleLock& operator=(const ModuleLock&) = delete;
  ~ModuleLock() {
    if (held) DeviceUnlockDevice(nullptr);
  }
};

// Start and end of the module wait for each other, and for a fork.
struct StartLock {
  StartLock();
  StartLock(const StartLock&) = delete;
  StartLock& operator=(const StartLock&) = delete;
  ~StartLock();
};

// Computing marks a thread that uses OpenSSL without holding the module lock: a fork waits until
// there is none. OpenSSL's own locks do not survive a fork; a child that inherits one that another
// thread held waits for it forever. Any number of threads compute at a time. Not nested; nothing
// is waited for meanwhile, and no lock but KeyLock taken.
struct Computing {
  Computing();
  Computing(const Computing&) = delete;
  Computing& operator=(const Computing&) = delete;
  ~Computing();

 private:
  int cancelState;  // of the thread, before
};

// LetForksPass is called between two steps of a computation that takes long. OpenSSL must hold
// nothing then: its callbacks while it looks for primes are such a place.
void LetForksPass(void);

// KeyLock guards privateKey, curve and what is kept for signing, of all keypairs. It is held for a
// few assignments; nothing is computed, allocated or freed meanwhile.
struct KeyLock {
  const bool held;
  KeyLock();
  KeyLock(const KeyLock&) = delete;
  KeyLock& operator=(const KeyLock&) = delete;
  ~KeyLock();
};

// ShieldLock guards the list of core/shield.h.
struct ShieldLock {
  const bool held;
  ShieldLock();
  ShieldLock(const ShieldLock&) = delete;
  ShieldLock& operator=(const ShieldLock&) = delete;
  ~ShieldLock();
};

// What a fork asks of the locks, in the forking thread: to take them all before, and afterwards to
// give them back in the parent and to make them anew, free, in the child.
void HoldLocksForFork(void);
void GiveLocksBackInParent(void);
void RenewLocksInChild(void);

#endif
