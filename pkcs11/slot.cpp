// The list of slots.
#include "pkcs11/slot.h"

#include "core/lock.h"
#include "device/change.h"
#include "device/device.h"
#include "pkcs11/call.h"
#include "pkcs11/digest.h"
#include "pkcs11/module.h"

#include <errno.h>
#include <stdlib.h>

static List<Slot*>* g_slots;  // owned; in the order in which programs are shown them
static Slot* g_freeSlot;
static Slot* g_made;  // by the last C_InitToken on the free slot
static Stamp g_folder;
static pthread_mutex_t g_listMutex = PTHREAD_MUTEX_INITIALIZER;  // of the list, for moments
static pthread_mutex_t g_folderMutex =
    PTHREAD_MUTEX_INITIALIZER;  // one look at the folder at a time

static void FreeSlot(Slot* slot) {
  if (slot == nullptr) return;
  DropObjects(*slot, 0);
  Delete(slot->view);
  DeviceFreeDevice(slot->device);
  Delete(slot);
}

void ForgetSlots() {
  g_slots = nullptr;
  g_freeSlot = g_made = nullptr;
  g_folder = {};
  g_listMutex = g_folderMutex = PTHREAD_MUTEX_INITIALIZER;
}

void CloseSlots() {
  if (g_slots != nullptr) {
    for (Slot* slot : *g_slots) FreeSlot(slot);
    Delete(g_slots);
  }
  FreeSlot(g_freeSlot);
  ForgetSlots();
}

CK_RV OpenSlots() {
  g_slots = New<List<Slot*>>();
  g_freeSlot = New<Slot>();
  if (g_slots == nullptr || g_freeSlot == nullptr) return CKR_HOST_MEMORY;
  g_freeSlot->id = FREE_SLOT;
  const CK_RV refreshed = RefreshSlots();
  for (Slot* slot : *g_slots) slot->event = false;  // they were there at the start
  return refreshed;
}

Slot* FindSlot(CK_SLOT_ID id) {
  const MutexLock lock(g_listMutex);
  if (id == FREE_SLOT) return g_made != nullptr ? g_made : g_freeSlot;
  for (Slot* slot : *g_slots)
    if (slot->id == id) return slot;
  return nullptr;
}

// The id of a device's slot comes from its serial number, so that every process finds the same.
// Where two have the same, the later one takes the next that is free. Below 2^31: some programs
// read ids into an int. FREE_SLOT when memory is out. Caller holds the list.
static CK_SLOT_ID NewSlotId(const char* serialNumber) {
  unsigned char digest[SHA256_DIGEST_LENGTH];
  if (!Sha256(BytesOf(serialNumber), digest)) return FREE_SLOT;
  CK_SLOT_ID id = be2int(digest) & 0x7FFFFFFF;
  for (size_t i = 0; i < g_slots->count; i++) {
    if (id == FREE_SLOT || (*g_slots)[i]->id == id) {
      id = (id + 1) & 0x7FFFFFFF;
      i = static_cast<size_t>(-1);  // from the start
    }
  }
  return id;
}

static Slot* FindPath(const char* path) {
  const MutexLock lock(g_listMutex);
  for (Slot* slot : *g_slots)
    if (strcmp(slot->path.get(), path) == 0) return slot;
  return nullptr;
}

// A slot that is not in the list yet; NULL with `result` set where the file is no device, or can't
// be looked at.
static Slot* LoadSlot(const char* path, CK_RV& result) {
  Slot* const slot = New<Slot>();
  result = CKR_HOST_MEMORY;
  if (slot == nullptr) return nullptr;
  slot->path = Join("pkcs11", {path});
  if (slot->path) {
    const MutexLock work(slot->work);
    result = Reload(*slot);
  }
  if (result == CKR_OK) return slot;
  FreeSlot(slot);
  return nullptr;
}

namespace {
// What one look at the folder finds.
struct FolderLook {
  List<Slot*> fresh;
  bool complete = true;  // nothing that could not be looked at
  ~FolderLook() {
    for (Slot* slot : fresh) FreeSlot(slot);
  }
};
}  // namespace

static CK_RV LookAtName(const char* path, FolderLook& found) {
  Slot* const known = FindPath(path);
  if (known != nullptr) {
    const CK_RV refreshed = Refresh(*known);
    if (refreshed == CKR_DEVICE_ERROR) found.complete = false;
    return refreshed == CKR_HOST_MEMORY ? CKR_HOST_MEMORY : CKR_OK;
  }
  for (const Slot* slot : found.fresh)
    if (strcmp(slot->path.get(), path) == 0) return CKR_OK;
  CK_RV result = CKR_OK;
  Slot* const slot = LoadSlot(path, result);
  if (slot == nullptr) {
    LogReason("%s is passed over: %s", path,
              result == CKR_TOKEN_NOT_PRESENT ? "no device" : "it can't be read now");
    if (result != CKR_TOKEN_NOT_PRESENT) found.complete = false;
    return result == CKR_HOST_MEMORY ? CKR_HOST_MEMORY : CKR_OK;
  }
  if (found.fresh.Add(slot)) return CKR_OK;
  FreeSlot(slot);
  return CKR_HOST_MEMORY;
}

static CK_RV LookAtNames(const char* names, unsigned int length, size_t suffixLen,
                         FolderLook& found) {
  for (unsigned int at = 0; at < length;) {
    const size_t nameLen = strlen(names + at);
    const UtilText path(GetFilePath(g_keyFolder, names + at));
    if (!path) return CKR_HOST_MEMORY;
    path[strlen(path.get()) - suffixLen] = '\0';
    if (nameLen > suffixLen) {
      const CK_RV looked = LookAtName(path.get(), found);
      if (looked != CKR_OK) return looked;
    }
    at += static_cast<unsigned int>(nameLen) + 1;
  }
  return CKR_OK;
}

static CK_RV LookAtFolder(FolderLook& found) {
  char *rawFiles = nullptr, *rawBackups = nullptr;
  unsigned int filesLen = 0, backupsLen = 0;
  if (GetAllCertificateKeyFileName(g_keyFolder, &rawFiles, &filesLen, &rawBackups, &backupsLen) !=
      1) {
    LogReason("the key folder %s can't be listed", g_keyFolder);
    found.complete = false;
    return CKR_OK;  // there are no devices, as far as can be seen
  }
  const UtilText files(rawFiles), backups(rawBackups);
  const CK_RV looked = LookAtNames(rawFiles, filesLen, 0, found);
  if (looked != CKR_OK) return looked;
  // Loading a device puts its file back where a crash has left a backup only.
  return LookAtNames(rawBackups, backupsLen, sizeof(BACKUP_SUFFIX) - 1, found);
}

static int BySerialNumber(const void* a, const void* b) {
  const Slot* const one = *static_cast<Slot* const*>(a);
  const Slot* const other = *static_cast<Slot* const*>(b);
  const int serials = strcmp(one->device->serialNumber, other->device->serialNumber);
  return serials != 0 ? serials : strcmp(one->path.get(), other->path.get());
}

static CK_RV AddToList(Slot* slot) {
  const MutexLock lock(g_listMutex);
  slot->id = NewSlotId(slot->device->serialNumber);
  slot->event = true;
  return slot->id != FREE_SLOT && g_slots->Add(slot) ? CKR_OK : CKR_HOST_MEMORY;
}

static bool HasFolderChanged(Stamp& now) {
  if (LookAt(g_keyFolder, now) != 1) return true;
  return !g_folder.settled || !(now.inode == g_folder.inode && now.device == g_folder.device &&
                                now.modified.tv_sec == g_folder.modified.tv_sec &&
                                now.modified.tv_nsec == g_folder.modified.tv_nsec);
}

CK_RV RefreshSlots() {
  const MutexLock turn(g_folderMutex);
  Stamp now;
  if (!HasFolderChanged(now)) return CKR_OK;
  FolderLook found;
  const CK_RV looked = LookAtFolder(found);
  if (looked != CKR_OK) return looked;
  if (found.fresh.count > 0)
    qsort(found.fresh.items, found.fresh.count, sizeof(Slot*), BySerialNumber);
  while (found.fresh.count > 0) {
    if (g_slots->count >= MAX_DEVICES) {
      LogReason("the folder holds more than %d devices", MAX_DEVICES);
      break;
    }
    const CK_RV added = AddToList(found.fresh[0]);
    if (added != CKR_OK) return added;
    found.fresh.RemoveAt(0);
  }
  g_folder = now;
  if (!found.complete) g_folder.settled = false;
  // Those that went are found out one by one.
  for (size_t i = 0; i < g_slots->count; i++) Refresh(*(*g_slots)[i]);
  return CKR_OK;
}

Slot* AddSlot(const char* path) {
  const MutexLock turn(g_folderMutex);
  Slot* slot = FindPath(path);
  if (slot == nullptr) {
    CK_RV result = CKR_OK;
    slot = LoadSlot(path, result);
    if (slot == nullptr) return nullptr;
    if (AddToList(slot) != CKR_OK) {
      FreeSlot(slot);
      return nullptr;
    }
  }
  const MutexLock lock(g_listMutex);
  g_made = slot;
  return slot;
}

// --- Calls ---------------------------------------------------------------------------------------

static bool IsPresent(Slot& slot) {
  const MutexLock lock(slot.state);
  return slot.device != nullptr && !slot.gone;
}

CK_RV C_GetSlotList(CK_BBOOL /*tokenPresent*/, CK_SLOT_ID_PTR pSlotList, CK_ULONG_PTR pulCount) {
  return InCall("C_GetSlotList", [&]() -> CK_RV {
    if (pulCount == nullptr) return CKR_ARGUMENTS_BAD;
    const CK_RV refreshed = RefreshSlots();
    if (refreshed != CKR_OK) return refreshed;
    const MutexLock lock(g_listMutex);
    g_made = nullptr;
    const CK_ULONG room = *pulCount;
    CK_ULONG count = 0;
    for (Slot* slot : *g_slots) {
      if (!IsPresent(*slot)) continue;
      if (pSlotList != nullptr && count < room) pSlotList[count] = slot->id;
      count++;
    }
    if (pSlotList != nullptr && count < room) pSlotList[count] = FREE_SLOT;
    *pulCount = ++count;
    return pSlotList != nullptr && room < count ? CKR_BUFFER_TOO_SMALL : CKR_OK;
  });
}

CK_RV C_GetSlotInfo(CK_SLOT_ID slotID, CK_SLOT_INFO_PTR pInfo) {
  return InCall("C_GetSlotInfo", [&]() -> CK_RV {
    if (pInfo == nullptr) return CKR_ARGUMENTS_BAD;
    Slot* const slot = FindSlot(slotID);
    if (slot == nullptr) return CKR_SLOT_ID_INVALID;
    *pInfo = {};
    char description[sizeof pInfo->slotDescription + 1] = "Soft device to be made";
    if (slot->path) {
      Refresh(*slot);
      const MutexLock lock(slot->state);
      const char* const serial = slot->device != nullptr ? slot->device->serialNumber : "";
      snprintf(description, sizeof description, "Soft device %.48s", serial);
      pInfo->flags = slot->gone ? CKF_REMOVABLE_DEVICE : CKF_TOKEN_PRESENT | CKF_REMOVABLE_DEVICE;
    } else {
      pInfo->flags = CKF_TOKEN_PRESENT;
    }
    PadText(description, pInfo->slotDescription, sizeof pInfo->slotDescription);
    PadText(LIBRARY_NAME, pInfo->manufacturerID, sizeof pInfo->manufacturerID);
    return CKR_OK;
  });
}

static bool TakeEvent(CK_SLOT_ID& id) {
  const MutexLock list(g_listMutex);
  for (Slot* slot : *g_slots) {
    const MutexLock lock(slot->state);
    if (!std::exchange(slot->event, false)) continue;
    id = slot->id;
    return true;
  }
  return false;
}

CK_RV C_WaitForSlotEvent(CK_FLAGS flags, CK_SLOT_ID_PTR pSlot, CK_VOID_PTR pReserved) {
  return InCall("C_WaitForSlotEvent", [&]() -> CK_RV {
    if (pSlot == nullptr || pReserved != nullptr) return CKR_ARGUMENTS_BAD;
    for (;;) {
      const CK_RV refreshed = RefreshSlots();
      if (refreshed != CKR_OK) return refreshed;
      if (TakeEvent(*pSlot)) return CKR_OK;
      if ((flags & CKF_DONT_BLOCK) != 0) return CKR_NO_EVENT;
      if (!RestInCall()) return CKR_CRYPTOKI_NOT_INITIALIZED;
    }
  });
}

// A valid slot for functions that need no more.
static CK_RV CheckSlot(CK_SLOT_ID slotID) {
  return FindSlot(slotID) != nullptr ? CKR_OK : CKR_SLOT_ID_INVALID;
}

CK_RV C_GetMechanismList(CK_SLOT_ID slotID, CK_MECHANISM_TYPE_PTR pMechanismList,
                         CK_ULONG_PTR pulCount) {
  return InCall("C_GetMechanismList", [&]() -> CK_RV {
    const CK_RV checked = CheckSlot(slotID);
    return checked == CKR_OK ? AnswerMechanismList(pMechanismList, pulCount) : checked;
  });
}

CK_RV C_GetMechanismInfo(CK_SLOT_ID slotID, CK_MECHANISM_TYPE type, CK_MECHANISM_INFO_PTR pInfo) {
  return InCall("C_GetMechanismInfo", [&]() -> CK_RV {
    const CK_RV checked = CheckSlot(slotID);
    return checked == CKR_OK ? AnswerMechanismInfo(type, pInfo) : checked;
  });
}
