// Start and stop of the module, and what becomes of it in a forked child.
#include "core/error_mark.h"
#include "core/lock.h"
#include "core/owners.h"
#include "device/device.h"
#include "sm2/sm2.h"
#include "store/lock.h"

#include <pthread.h>
#include <string.h>
#include <utility>

static constexpr char KEY_FOLDER[] = "/etc/.VAKRO/SoftwareCert/";

char* GetCertificatKeyFilePath(void) {
  char* path = Allocate<char>(sizeof(KEY_FOLDER), "device");
  if (path != nullptr) memcpy(path, KEY_FOLDER, sizeof(KEY_FOLDER));
  return path;
}

int DeviceSetKeyFolder(const char* folder) {
  const StartLock lock;
  if (g_keyFolder == nullptr || folder == nullptr || folder[0] == '\0') return VAKRO_FAILED;
  char* const path = GetFilePath(folder, "");
  if (path == nullptr) return VAKRO_FAILED;
  vakro_free(std::exchange(g_keyFolder, path));
  return VAKRO_OK;
}

// A fork waits for the threads inside the module, so that the child inherits it between two calls
// and can use it. The handlers stay for as long as the library is loaded, and go with it.
static void Prepare() {
  HoldLocksForFork();
  PrepareLocksForFork();
}

static void ResumeInParent() {
  ResumeLocksInParent();
  GiveLocksBackInParent();
}

static void ResumeInChild() {
  CloseInheritedLocks();
  RenewLocksInChild();
}

static bool HandleForks() {
  static bool handled = false;
  if (!handled) handled = pthread_atfork(Prepare, ResumeInParent, ResumeInChild) == 0;
  return handled;
}

int DeviceInit(void) {
  const ErrorMark mark;
  const StartLock starting;
  if (g_lock != nullptr) return VAKRO_OK;  // what runs goes on
  if (!HandleForks()) return VAKRO_FAILED;
  Lock lock(vakro_lock_new());
  if (!lock) return VAKRO_FAILED;
  SoftDevice softDevice(VakroPKICryptoGetPseudoDevice());
  if (!softDevice) return VAKRO_FAILED;
  UtilText keyFolder(GetCertificatKeyFilePath());
  if (!keyFolder) return VAKRO_FAILED;
  g_lock = lock.release();
  g_hSoftDevice = softDevice.release();
  g_keyFolder = keyFolder.release();
  g_sm2 = NewSM2Info();  // NULL is no failure: the module then goes without SM2
  return VAKRO_OK;
}

int DeviceEnd(void) {
  const StartLock ending;
  FreeIfSet<vakro_lock_free>(g_lock);
  g_lock = nullptr;
  FreeIfSet<VakroPKICryptoFreeDevice>(g_hSoftDevice);
  g_hSoftDevice = nullptr;
  FreeIfSet<vakro_free>(g_keyFolder);
  g_keyFolder = nullptr;
  FreeSM2Info(g_sm2);
  g_sm2 = nullptr;
  return VAKRO_OK;
}
