// The scan of the key folder: loads every device and mends what an interrupted rewrite has left.
//
// A rewrite (store/rewrite.cpp) that stopped half-way leaves a backup. Beside a good device file
// the backup is stale and goes; where the device file is missing or damaged the backup takes its
// place. A device file that could not be looked at, for want of memory or a descriptor, counts as
// neither: its backup is left alone.
#include "core/error_mark.h"
#include "core/owners.h"
#include "device/device.h"
#include "store/store.h"

#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

static char* CopyText(const char* text, size_t length, const char* suffix) {
  const size_t suffixLen = strlen(suffix);
  char* copy = Allocate<char>(length + suffixLen + 1, "device");
  if (copy == nullptr) return nullptr;
  memcpy(copy, text, length);
  memcpy(copy + length, suffix, suffixLen + 1);
  return copy;
}

static Found LoadFile(const char* path, OwnedDevice& device) {
  unsigned char* image = nullptr;
  unsigned int size = 0;
  const Found read = ReadImage(path, &image, &size);
  if (read != Found::GOOD) return read;
  const UtilBytes owned(image);
  Device* loaded = nullptr;
  const Found found = LoadImage(image, &loaded);
  if (found == Found::GOOD) device.reset(loaded);
  return found;
}

// remove() would take an empty folder too.
static bool IsFile(const char* path) {
  struct stat info;
  return lstat(path, &info) == 0 && !S_ISDIR(info.st_mode);
}

static void RemoveFile(const char* path) {
  if (IsFile(path)) remove(path);
}

// A good device file may still be in memory only, if the process that wrote it has died.
static void RemoveStaleBackup(const char* backupPath, const char* path) {
  if (IsFile(backupPath) && SyncFile(path)) remove(backupPath);
}

static void AddToSet(DeviceSet* set, OwnedDevice& device, UtilText& filePath,
                     UtilText& backupPath) {
  device->filePath = filePath.release();
  device->backupPath = backupPath.release();
  set->devices[set->count] = device.release();
  set->count++;
}

// Adds the device of a device file to the set and removes its stale backup.
static Found AddFromDeviceFile(DeviceSet* set, const char* path) {
  OwnedDevice device;
  const Found found = LoadFile(path, device);
  if (found != Found::GOOD) return found;
  UtilText filePath(CopyText(path, strlen(path), ""));
  UtilText backupPath(CopyText(path, strlen(path), BACKUP_SUFFIX));
  if (!filePath || !backupPath) return Found::UNKNOWN;
  RemoveStaleBackup(backupPath.get(), path);
  AddToSet(set, device, filePath, backupPath);
  return Found::GOOD;
}

static void AddFromName(DeviceSet* set, const char* name) {
  const UtilText path(GetFilePath(g_keyFolder, name));
  if (path) AddFromDeviceFile(set, path.get());
}

static bool Holds(const DeviceSet* set, const char* path) {
  for (int i = 0; i < set->count; i++) {
    if (strcmp(set->devices[i]->filePath, path) == 0) return true;
  }
  return false;
}

// A crash between any two steps leaves the content in the backup, the device file or both.
static void RestoreFromBackup(const char* backupPath, const char* path) {
  if (rename(backupPath, path) == 0) {
    SyncFolder(path);
    return;
  }
  if (CopyFileData(backupPath, path) == 1) RemoveFile(backupPath);
}

static void AddFromBackup(DeviceSet* set, const char* name) {
  const size_t nameLen = strlen(name) - strlen(BACKUP_SUFFIX);
  if (nameLen == 0) return;  // ".bak" is the backup of no file
  UtilText backupPath(GetFilePath(g_keyFolder, name));
  if (!backupPath) return;
  const size_t pathLen = strlen(backupPath.get()) - strlen(BACKUP_SUFFIX);
  UtilText path(CopyText(backupPath.get(), pathLen, ""));
  if (!path || string_endwiths(path.get(), BACKUP_SUFFIX)) return;
  if (access(backupPath.get(), F_OK) != 0) return;
  if (Holds(set, path.get())) return;  // stale, and could not be removed
  OwnedDevice device;
  if (LoadFile(backupPath.get(), device) != Found::GOOD) return;
  // Look at the device file again, now that a device has just been loaded without trouble: only a
  // file that is surely missing or damaged gives way to an older one.
  if (AddFromDeviceFile(set, path.get()) != Found::MISSING_OR_DAMAGED) return;
  AddToSet(set, device, path, backupPath);
  const Device* added = set->devices[set->count - 1];
  RestoreFromBackup(added->backupPath, added->filePath);
}

static void AddEach(DeviceSet* set, const char* names, unsigned int length,
                    void (*add)(DeviceSet*, const char*)) {
  for (unsigned int at = 0; at < length && set->count < MAX_DEVICES;
       at += static_cast<unsigned int>(strlen(names + at)) + 1)
    add(set, names + at);
}

DeviceSet* GetDeviceSetHandle(void) {
  const UtilText folder(GetFilePath(g_keyFolder, ""));
  if (!folder) return nullptr;
  const FolderLock folderLock(folder.get());
  char* files = nullptr;
  char* backups = nullptr;
  unsigned int filesLen = 0;
  unsigned int backupsLen = 0;
  if (GetAllCertificateKeyFileName(g_keyFolder, &files, &filesLen, &backups, &backupsLen) != 1)
    return nullptr;
  const UtilText ownedFiles(files);
  const UtilText ownedBackups(backups);
  OwnedSet set(NewDeviceSet());
  if (!set) return nullptr;
  AddEach(set.get(), files, filesLen, AddFromName);
  AddEach(set.get(), backups, backupsLen, AddFromBackup);
  return set.release();
}

DeviceSet* DeviceGetAllDevices(void) {
  const ErrorMark mark;
  return GetDeviceSetHandle();
}
