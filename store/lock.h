// The lock that whoever changes a device file holds on the file itself, from the read to the end of
// the rewrite: a record lock of the open file description (F_OFD_SETLK) over the whole file. Only
// who may write the file can take it, other files are not affected, and it ends with its process.
//
// Readers take none: the digest tells them whether what they read is whole. Taken after the module
// lock, never before; never twice at the same time, not even by one thread: the second waits for
// the first. Cancellation is off while such a lock is held.
#ifndef VAKRO_STORE_LOCK_H
#define VAKRO_STORE_LOCK_H

#include "core/lock.h"

#include <sys/types.h>

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

  bool IsHeld() const { return fd_ >= 0; }

  // Whether `path` is still the name of the file that was locked.
  bool Names(const char* path) const;

  void GiveBack();

 private:
  bool Open(const char* path);

  const NoCancellation uncancelled_;
  int fd_ = -1;
  int slot_ = 0;  // in the list of what a child does not keep
  pid_t owner_ = 0;
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
