// The token in a slot: its state made that of the file, and what it says of itself.
#include "core/lock.h"
#include "core/openssl_owners.h"
#include "device/anchor.h"
#include "device/change.h"
#include "device/device.h"
#include "keypair/keypair.h"
#include "pkcs11/call.h"
#include "pkcs11/digest.h"
#include "pkcs11/module.h"
#include "pkcs11/slot.h"
#include "pkcs11/view.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

// --- Looking -------------------------------------------------------------------------------------

// Times of files advance in ticks of up to 10 ms: a file that was written just now may be written
// again within the same one.
static bool IsLongAgo(const timespec& then) {
  timespec now = {};
  clock_gettime(CLOCK_REALTIME, &now);
  const long long passed =
      (now.tv_sec - then.tv_sec) * 1000LL + (now.tv_nsec - then.tv_nsec) / 1000000;
  return passed > 50 || passed < -1000;  // far in the future: another clock's
}

int LookAt(const char* path, Stamp& stamp) {
  struct stat info;
  if (stat(path, &info) != 0) return errno == ENOENT || errno == ENOTDIR ? 0 : -1;
  stamp.device = info.st_dev;
  stamp.inode = info.st_ino;
  stamp.size = info.st_size;
  stamp.modified = info.st_mtim;
  stamp.changed = info.st_ctim;
  stamp.settled = IsLongAgo(info.st_mtim) && IsLongAgo(info.st_ctim);
  return 1;
}

static bool IsSameTime(const timespec& a, const timespec& b) {
  return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

static bool IsSameStamp(const Stamp& a, const Stamp& b) {
  return a.device == b.device && a.inode == b.inode && a.size == b.size &&
         IsSameTime(a.modified, b.modified) && IsSameTime(a.changed, b.changed);
}

static bool IsCurrent(Slot& slot) {
  Stamp now;
  if (LookAt(slot.path.get(), now) != 1) return false;
  const MutexLock lock(slot.state);
  return slot.device != nullptr && !slot.gone && slot.stamp.settled && IsSameStamp(slot.stamp, now);
}

CK_RV Refresh(Slot& slot) {
  if (!slot.path) return CKR_OK;
  if (IsCurrent(slot)) return CKR_OK;
  const MutexLock work(slot.work);
  return IsCurrent(slot) ? CKR_OK : Reload(slot);
}

// Names the keypairs that don't open, for one who wonders why a PIN is refused.
void LogUnopened(Device* device, const char* pin) {
  for (int i = 0; i < device->keypairCount; i++) {
    const Keypair* const keypair = device->keypairs[i];
    int curve = 0;
    const EvpKey key(DecryptKeyPair(keypair->algorithm, keypair, pin, &curve));
    if (!key) LogReason("keypair '%s' does not open under this PIN", keypair->label);
  }
}

CK_RV Reload(Slot& slot) {
  Stamp stamp;
  const int looked = LookAt(slot.path.get(), stamp);
  if (looked < 0) return CKR_DEVICE_ERROR;
  Device* fresh = nullptr;
  const int loaded = LoadDevice(slot.path.get(), &fresh);
  if (loaded < 0) return CKR_DEVICE_ERROR;
  if (loaded == 0) {
    if (slot.device == nullptr) return CKR_TOKEN_NOT_PRESENT;
    LogReason("the device file %s is gone or damaged", slot.path.get());
    EndLogin(slot);
    const MutexLock lock(slot.state);
    if (!slot.gone) slot.gone = slot.event = true;
    return CKR_TOKEN_NOT_PRESENT;
  }
  if (looked == 0) stamp = {};  // it has been restored meanwhile
  if (slot.login != Login::NONE) {
    const int taken = TakeOverKeys(fresh, slot.device);
    if (taken == VAKRO_FAILED) {
      DeviceFreeDevice(fresh);
      return CKR_HOST_MEMORY;
    }
    if (taken != VAKRO_OK) {
      LogReason("the file's PIN has been changed elsewhere: nobody is logged in any more");
      EndLogin(slot);
    }
  }
  return Publish(slot, fresh, stamp);
}

// --- Publishing ----------------------------------------------------------------------------------

CK_RV Publish(Slot& slot, Device* device, const Stamp& stamp) {
  OwnedDeviceHandle fresh(device);
  View* view = New<View>();
  if (view == nullptr) return CKR_HOST_MEMORY;
  if (LoadTokenView(device, slot.view, *view) != 1) {
    Delete(view);
    return CKR_HOST_MEMORY;
  }
  {
    const MutexLock lock(slot.state);
    std::swap(slot.view, view);
    device = std::exchange(slot.device, fresh.release());
    slot.stamp = stamp;
    slot.stamp.settled = stamp.settled && slot.view->hasAllDatas && slot.view->isComplete;
    if (slot.gone) slot.event = true;
    slot.gone = false;
    slot.writable = faccessat(AT_FDCWD, slot.path.get(), W_OK, AT_EACCESS) == 0;
  }
  // Operations may still hold keys of the former record.
  Delete(view);
  DeviceFreeDevice(device);
  return CKR_OK;
}

void EndLogin(Slot& slot) {
  const MutexLock lock(slot.state);
  slot.login = Login::NONE;
  if (slot.device == nullptr) return;
  // Handles of private objects do not come back with the next login.
  for (Object* object : slot.view->objects)
    if (object->IsPrivate()) object->handle = NewObjectHandle();
  const ModuleLock module;
  if (!module.held) return;
  for (int i = 0; i < slot.device->keypairCount; i++)
    SetPrivateKey(slot.device->keypairs[i], nullptr, -1);
  FreePin(slot.device);
}

// --- What it says of itself ----------------------------------------------------------------------

// Sixteen characters: longer serial numbers are told apart by a digest.
static bool WriteSerialNumber(const char* serialNumber, CK_CHAR (&field)[16]) {
  unsigned char digest[SHA256_DIGEST_LENGTH];
  if (strlen(serialNumber) <= sizeof field) {
    PadText(serialNumber, field, sizeof field);
    return true;
  }
  if (!Sha256(BytesOf(serialNumber), digest)) return false;
  char text[sizeof field + 1];
  for (size_t i = 0; i < sizeof field / 2; i++) snprintf(text + 2 * i, 3, "%02X", digest[i]);
  PadText(text, field, sizeof field);
  return true;
}

static CK_FLAGS TokenFlags(const Slot& slot) {
  CK_FLAGS flags = CKF_RNG | CKF_LOGIN_REQUIRED;
  if (!slot.writable) flags |= CKF_WRITE_PROTECTED;
  // Without a keypair the device takes any PIN, so it has none.
  if (slot.device->keypairCount > 0) flags |= CKF_TOKEN_INITIALIZED;
  if (slot.device->keypairCount > 0 && !slot.view->hasSoPin) flags |= CKF_USER_PIN_INITIALIZED;
  return flags;
}

CK_RV C_GetTokenInfo(CK_SLOT_ID slotID, CK_TOKEN_INFO_PTR pInfo) {
  return InCall("C_GetTokenInfo", [&]() -> CK_RV {
    if (pInfo == nullptr) return CKR_ARGUMENTS_BAD;
    Slot* const slot = FindSlot(slotID);
    if (slot == nullptr) return CKR_SLOT_ID_INVALID;
    const CK_RV refreshed = Refresh(*slot);
    if (refreshed != CKR_OK) return refreshed;
    *pInfo = {};
    const MutexLock lock(slot->state);
    const bool isFree = slot->device == nullptr;
    PadText(isFree ? "" : slot->device->label, pInfo->label, sizeof pInfo->label);
    PadText(LIBRARY_NAME, pInfo->manufacturerID, sizeof pInfo->manufacturerID);
    PadText("Soft device", pInfo->model, sizeof pInfo->model);
    if (!WriteSerialNumber(isFree ? "" : slot->device->serialNumber, pInfo->serialNumber))
      return CKR_HOST_MEMORY;
    pInfo->flags = isFree ? CKF_RNG | CKF_LOGIN_REQUIRED : TokenFlags(*slot);
    pInfo->firmwareVersion = {0, 2};
    pInfo->ulMaxSessionCount = pInfo->ulMaxRwSessionCount = CK_EFFECTIVELY_INFINITE;
    pInfo->ulSessionCount = slot->sessions;
    pInfo->ulRwSessionCount = slot->writers;
    pInfo->ulMaxPinLen = MAX_PIN_SIZE;
    pInfo->ulMinPinLen = MIN_PIN_SIZE;
    pInfo->ulTotalPublicMemory = pInfo->ulFreePublicMemory = CK_UNAVAILABLE_INFORMATION;
    pInfo->ulTotalPrivateMemory = pInfo->ulFreePrivateMemory = CK_UNAVAILABLE_INFORMATION;
    PadText("", pInfo->utcTime, sizeof pInfo->utcTime);  // there is no clock
    return CKR_OK;
  });
}
