// The current content of a device file: from the file, or, where an interrupted rewrite has left it
// missing or damaged, from its backup, which then takes the file's place. Only the holder of the
// file's lock puts anything in order; everybody else may still read.
#include "store/inside.h"

#include <errno.h>
#include <fcntl.h>

static constexpr int MOST_ROUNDS = 8;  // of looks at files that change all the while

ReadResult ReadDeviceImage(const char* path, FileImage* image) {
  const ReadResult read = ReadImage(path, image);
  if (read != ReadResult::GOOD) return read;
  Device* loaded = nullptr;
  const ReadResult found = LoadImage(image->bytes.get(), &loaded);
  FreeDevice(loaded);
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

void RemoveStaleBackup(const char* path, const char* backupPath) {
  FileLock lock;
  FileImage image;
  // What was good before the lock was taken may have been left half-written since.
  if (lock.Try(path) != LockResult::HELD || ReadDeviceImage(path, &image) != ReadResult::GOOD)
    return;
  // A good device file may still be in memory only, if the process that wrote it has died.
  if (SyncFile(path)) RemoveFile(backupPath);
}

// MoveOver puts the backup in the place of the device file; `image` is its content.
static bool MoveOver(const char* path, const char* backupPath, const FileImage& image) {
  if (rename(backupPath, path) == 0) return SyncFolder(path);
  // A crash between any two steps leaves the content in the backup, the device file or both.
  const File file = OpenEmptied(path, &image.status);
  if (!WriteOut(file, image.bytes.get(), image.size) || !SyncFolder(path)) return false;
  RemoveFile(backupPath);
  return true;
}

// SettleHeld reads a device file whose lock is held, and restores it if need be.
static ReadResult SettleHeld(const char* path, const char* backupPath, bool mustRestore,
                             ReadResult (*read)(const char*, FileImage*), FileImage* image) {
  ReadResult found = read(path, image);
  if (found != ReadResult::BAD) return found;
  found = read(backupPath, image);
  if (found != ReadResult::GOOD) return found;
  const bool restored = MoveOver(path, backupPath, *image);
  return restored || !mustRestore ? ReadResult::GOOD : ReadResult::UNKNOWN;
}

static bool IsRegular(const char* path) {
  struct stat info;
  return stat(path, &info) == 0 && S_ISREG(info.st_mode);
}

// MoveIn gives a device file that is missing its name back. The lock is the backup's own, since
// there is no device file to lock. HELD: look again, there may be a device file now, whoever has
// put it there. MISSING: there is no good backup either.
static LockResult MoveIn(const char* path, const char* backupPath, bool wait,
                         ReadResult (*read)(const char*, FileImage*)) {
  FileLock lock;
  const LockResult result = wait ? lock.Take(backupPath, path) : lock.Try(backupPath);
  if (result == LockResult::MISSING && IsRegular(path)) return LockResult::HELD;
  if (result != LockResult::HELD) return result;
  FileImage image;
  const ReadResult found = read(backupPath, &image);
  if (found == ReadResult::BAD) return LockResult::MISSING;
  if (found == ReadResult::UNKNOWN) return LockResult::FAILED;
  if (IsRegular(path)) return LockResult::HELD;
  if (rename(backupPath, path) == 0)
    return SyncFolder(path) ? LockResult::HELD : LockResult::FAILED;
  // An empty file can be locked, and is restored like any damaged one.
  const Descriptor made(open(path, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, S_IRUSR | S_IWUSR));
  return made.fd >= 0 ? LockResult::HELD : LockResult::FAILED;
}

ReadResult ReadCurrent(const char* path, const char* backupPath, bool mustRestore,
                       ReadResult (*read)(const char*, FileImage*), FileImage* image) {
  LockResult result = LockResult::FAILED;
  for (int round = 0; round < MOST_ROUNDS; round++) {
    ReadResult found = read(path, image);
    if (found != ReadResult::BAD) return found;
    FileLock lock;
    result = lock.Try(path);
    if (result == LockResult::HELD) return SettleHeld(path, backupPath, mustRestore, read, image);
    if (result == LockResult::FAILED) return ReadResult::UNKNOWN;

    found = read(backupPath, image);
    if (found == ReadResult::UNKNOWN) return found;
    if (result == LockResult::MISSING) {
      if (found == ReadResult::BAD && !IsRegular(path)) return found;
      const LockResult moved = MoveIn(path, backupPath, false, read);
      if (moved == LockResult::HELD || moved == LockResult::MISSING) continue;
      const bool mayRead = moved != LockResult::FAILED || !mustRestore;
      return mayRead && found == ReadResult::GOOD ? found : ReadResult::UNKNOWN;
    }
    if (found == ReadResult::GOOD) return found;
    Pause(1L << round);  // whoever held the lock may just have removed the backup, and be done
  }
  return result == LockResult::SHUT ? ReadResult::BAD : ReadResult::UNKNOWN;
}

ReadResult LockCurrent(const char* path, const char* backupPath, FileLock* lock, FileImage* image) {
  for (int round = 0; round < MOST_ROUNDS; round++) {
    LockResult result = lock->Take(path, backupPath);
    if (result == LockResult::HELD) {
      const ReadResult found = SettleHeld(path, backupPath, true, ReadImage, image);
      // The backup that has taken the file's place is another file, with a lock of its own.
      if (found != ReadResult::GOOD || lock->Names(path)) return found;
      continue;
    }
    if (result != LockResult::MISSING) return ReadResult::UNKNOWN;
    result = MoveIn(path, backupPath, true, ReadImage);
    if (result == LockResult::MISSING) return ReadResult::BAD;
    if (result != LockResult::HELD) return ReadResult::UNKNOWN;
  }
  return ReadResult::UNKNOWN;
}
