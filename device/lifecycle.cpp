// Start and stop of the module.
#include "core/owners.h"
#include "device/device.h"
#include "sm2/sm2.h"

#include <string.h>
#include <utility>

static constexpr char KEY_FOLDER[] = "/etc/.VAKRO/SoftwareCert/";

char* GetCertificatKeyFilePath(void) {
  char* path = Allocate<char>(sizeof(KEY_FOLDER), "device");
  if (path != nullptr) memcpy(path, KEY_FOLDER, sizeof(KEY_FOLDER));
  return path;
}

int DeviceSetKeyFolder(const char* folder) {
  if (g_keyFolder == nullptr || folder == nullptr || folder[0] == '\0') return VAKRO_FAILED;
  char* const path = GetFilePath(folder, "");
  if (path == nullptr) return VAKRO_FAILED;
  vakro_free(std::exchange(g_keyFolder, path));
  return VAKRO_OK;
}

int DeviceInit(void) {
  if (g_lock != nullptr) return VAKRO_OK;  // what runs goes on
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
