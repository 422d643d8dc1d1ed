// The module's process-wide state and the scope of its one lock.
#ifndef VAKRO_CORE_LOCK_H
#define VAKRO_CORE_LOCK_H

#include "vakro_crypto.h"
#include "vakro_device.h"
#include "vakro_util.h"

struct SM2Info;  // sm2/sm2.h

extern "C" {

// NULL while the module is stopped; written by DeviceInit and DeviceEnd.

extern VakroLock* g_lock;
extern VakroPKICryptoDevice* g_hSoftDevice;
extern char* g_keyFolder;  // vakro_free; with a trailing slash
extern SM2Info* g_sm2;     // NULL also when SM2 is not available

}  // extern "C"

// The module lock for a scope. Check `held` before anything else.
struct ModuleLock {
  const bool held;
  ModuleLock() : held(DeviceLockDevice(nullptr) == 1) {}
  ModuleLock(const ModuleLock&) = delete;
  ModuleLock& operator=(const ModuleLock&) = delete;
  ~ModuleLock() {
    if (held) DeviceUnlockDevice(nullptr);
  }
};

#endif
