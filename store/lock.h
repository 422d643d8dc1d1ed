// The lock that whoever changes a device file holds on the file itself, from the read to the end of
// the rewrite: a record lock of the open file description (F_OFD_SETLK) over the whole file. Only
// who may write the file can take it, other files are not affected, and it ends with its process.
//
// Who may only read the file can hold a lock for reading, which keeps every lock for writing away.
// So there is a second way, for whom a lock for reading is in the way: a lock for writing on an
// empty file beside, NAME.lock, which only those can open who may write the device file, and then a
// lock for reading of one's own on the device file. Two holders can't be:
//   both the first way    two locks for writing on the device file
//   both the second way   two locks for writing on the file beside
//   one of each           a lock for reading and one for writing on the device file
// The file beside is removed by its holder; one that a crash has left is used by the next who
// comes.
//
// Readers take none: the digest tells them whether what they read is whole. Taken after the module
// lock, never before; never twice at the same time, not even by one thread: the second waits for
// the first. Cancellation is off while such a lock is held.
#ifndef VAKRO_STORE_LOCK_H
#define VAKRO_STORE_LOCK_H

#include "core/lock.h"
#include "core/owners.h"

#include <sys/stat.h>

enum class LockResult {
  HELD,     // also on a file system that knows no locks, where there is no other way
  MISSING,  // no regular file has this name
  BUSY,     // another holds it, and, for Take, gives no sign of life
  SHUT,     // this process may not write the file
  FAILED,   // memory, descriptors, a system call: the lock may well be free
};

// How long Take waits for a holder that shows no progress, in milliseconds. For tests to shorten.
extern int g_lockPatience;

struct FileLock {
  FileLock() = default;
  FileLock(const FileLock&) = delete;
  FileLock& operator=(const FileLock&) = delete;
  ~FileLock() { GiveBack(); }

  LockResult Try(const char* path);  // does not wait

  // Take waits for another holder as long as it gets on: the file or its backup changes.
  LockResult Take(const char* path, const char* backupPath);

  bool IsHeld() const { return file_.fd >= 0; }

  // Whether `path` is still the name of the file that was locked.
  bool Names(const char* path) const;

  void GiveBack();

 private:
  // A descriptor in the list of what a child does not keep.
  struct Listed {
    int fd = -1;
    int slot = 0;
    pid_t owner = 0;

    bool Open(const char* path, int flags);
    void Close();
    bool IsOurs() const;
  };

  LockResult TryBeside(const char* path, const struct stat& device);

  const NoCancellation uncancelled_;
  Listed file_;
  Listed beside_;
  UtilText besidePath_;
  bool isBesideOurs_ = false;  // we hold its lock, and it has its name
};

// A forked child must not keep the locks of its parent: they belong to the open file, and so to
// both. The descriptors stand in a list, which the child closes. The three are for the handlers of
// a fork; the first two enclose it.
extern "C" {
void PrepareLocksForFork(void);
void ResumeLocksInParent(void);
void CloseInheritedLocks(void);
}

#endif
