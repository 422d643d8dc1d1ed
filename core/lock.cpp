// The module's process-wide state and its one lock.
#include "core/lock.h"

VakroLock* g_lock = nullptr;
VakroPKICryptoDevice* g_hSoftDevice = nullptr;
char* g_keyFolder = nullptr;
SM2Info* g_sm2 = nullptr;

int DeviceLockDevice(Device* /*device*/) { return vakro_lock_lock(g_lock) == 1 ? 1 : 0; }

int DeviceUnlockDevice(Device* /*device*/) { return vakro_lock_unlock(g_lock) == 1 ? 1 : 0; }
