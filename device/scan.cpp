// The scan of the key folder: loads every device and mends what an interrupted rewrite has left.
//
// A rewrite (store/rewrite.cpp) that stopped half-way leaves a backup. Beside a good device file
// the backup is stale and goes; where the device file is missing or damaged the backup takes its
// place. A device file that could not be looked at, for want of memory or a descriptor, counts as
// neither: its backup is left alone. Each file is put in order under its own lock; what another
// process has in hand is read and not touched.
#include "core/error_mark.h"
#include "core/owners.h"
#include "device/device.h"
#include "store/change.h"

#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

static constexpr int MOST_LOOKS = 3;  // at a file that changes all the while

// The path without its last BACKUP_SUFFIX, which it ends in; NULL when memory is out.
static UtilText WithoutSuffix(const char* path) {
  return Join("device", {{path, strlen(path) - strlen(BACKUP_SUFFIX)}});
}

static bool IsThere(const char* path) { return access(path, F_OK) == 0; }

static void AddToSet(DeviceSet* set, OwnedDevice& device, UtilText& filePath,
                     UtilText& backupPath) {
  device->filePath = filePath.release();
  device->backupPath = backupPath.release();
  set->devices[set->count] = device.release();
  set->count++;
}

// HasChanged says whether a file that has been looked at is another by now.
static bool HasChanged(const char* path, const FileImage& image) {
  struct stat now;
  const struct stat& then = image.status;
  return stat(path, &now) == 0 &&
         (now.st_ino != then.st_ino || now.st_size != then.st_size ||
          now.st_mtim.tv_sec != then.st_mtim.tv_sec || now.st_mtim.tv_nsec != then.st_mtim.tv_nsec);
}

// ReadFromFolder reads a file of which nothing is known; the folder may hold a hundred thousand
// that are no devices. One that looks damaged may be a device file that is being written: then a
// backup lies beside it, or it changes under the look.
static ReadResult ReadFromFolder(const char* path, const char* backupPath, FileImage* image) {
  ReadResult found = ReadImage(path, image);
  for (int look = 0; look < MOST_LOOKS && found == ReadResult::BAD; look++) {
    if (IsThere(backupPath)) {
      FileLock lock;
      const LockResult result = lock.Try(path);
      if (result == LockResult::HELD) return ReadImage(path, image);
      if (result != LockResult::BUSY) return found;
      found = ReadImage(backupPath, image);
      if (found == ReadResult::GOOD) return found;
    } else if (!HasChanged(path, *image) && (look > 0 || !image->bytes)) {
      return found;
    }
    found = ReadImage(path, image);
  }
  return found;
}

static void AddFromName(DeviceSet* set, const char* name) {
  UtilText path(GetFilePath(g_keyFolder, name));
  if (!path) return;
  UtilText backupPath = Join("device", {path.get(), BACKUP_SUFFIX});
  FileImage image;
  if (!backupPath || ReadFromFolder(path.get(), backupPath.get(), &image) != ReadResult::GOOD)
    return;
  Device* loaded = nullptr;
  if (LoadImage(image.bytes.get(), &loaded) != ReadResult::GOOD) return;
  OwnedDevice device(loaded);
  if (IsThere(backupPath.get())) RemoveStaleBackup(path.get(), backupPath.get());
  AddToSet(set, device, path, backupPath);
}

static bool Holds(const DeviceSet* set, const char* path) {
  for (int i = 0; i < set->count; i++) {
    if (strcmp(set->devices[i]->filePath, path) == 0) return true;
  }
  return false;
}

// IsBackupOfAnother says of a name that ends like a backup whether a device could be lost, were
// "x.bak.bak" to become "x.bak": where there is a device file "x", or a device in "x.bak" already,
// that would be taken for the backup of "x".
static bool IsBackupOfAnother(const char* path) {
  if (!string_endwiths(path, BACKUP_SUFFIX)) return false;
  const UtilText shorter = WithoutSuffix(path);
  struct stat info;
  FileImage image;
  return !shorter || lstat(shorter.get(), &info) == 0 ||
         ReadDeviceImage(path, &image) != ReadResult::BAD;
}

static void AddFromBackup(DeviceSet* set, const char* name) {
  if (strcmp(name, BACKUP_SUFFIX) == 0) return;  // the backup of no file
  UtilText backupPath(GetFilePath(g_keyFolder, name));
  if (!backupPath) return;
  UtilText path = WithoutSuffix(backupPath.get());
  if (!path || !IsThere(backupPath.get())) return;
  if (Holds(set, path.get()) || IsBackupOfAnother(path.get())) return;
  FileImage image;
  if (ReadDeviceImage(backupPath.get(), &image) != ReadResult::GOOD) return;
  // Only a file that is surely missing or damaged gives way to an older one.
  if (ReadCurrent(path.get(), backupPath.get(), false, ReadDeviceImage, &image) != ReadResult::GOOD)
    return;
  Device* loaded = nullptr;
  if (LoadImage(image.bytes.get(), &loaded) != ReadResult::GOOD) return;
  OwnedDevice device(loaded);
  if (IsThere(backupPath.get())) RemoveStaleBackup(path.get(), backupPath.get());
  AddToSet(set, device, path, backupPath);
}

static void AddEach(DeviceSet* set, const char* names, unsigned int length,
                    void (*add)(DeviceSet*, const char*)) {
  for (unsigned int at = 0; at < length && set->count < MAX_DEVICES;
       at += static_cast<unsigned int>(strlen(names + at)) + 1)
    add(set, names + at);
}

DeviceSet* GetDeviceSetHandle(void) {
  const NoCancellation uncancelled;
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
  return g_keyFolder == nullptr ? nullptr : GetDeviceSetHandle();
}
