// The lock between processes: one advisory lock on the folder of the device files. Threads of this
// process exclude each other by the module lock; the scan, which takes none, by this one.
#include "store/store.h"

#include <errno.h>
#include <sys/file.h>

// What the thread holds. A forked child inherits depth and descriptor, and the lock of a descriptor
// is shared with the parent; `owner` tells whose it is. The child drops an inherited descriptor
// without unlocking, so it neither believes that it holds the lock nor takes the parent's away; the
// parent unlocks expressly, so no descriptor left in a child keeps the lock.
struct HeldFolder {
  int depth;
  int fd;  // -1: working without the lock
  pid_t owner;
};
static thread_local HeldFolder t_held = {0, -1, 0};

static void Drop() {
  if (t_held.fd >= 0) close(t_held.fd);
  t_held = {0, -1, 0};
}

void LockFolder(const char* path) {
  if (t_held.depth > 0 && t_held.owner == getpid()) {
    t_held.depth++;
    return;
  }
  Drop();
  t_held = {1, OpenFolderOf(path), getpid()};
  if (t_held.fd < 0) return;
  while (flock(t_held.fd, LOCK_EX) != 0 && errno == EINTR) continue;
}

void UnlockFolder(void) {
  const bool ours = t_held.owner == getpid();
  if (ours && --t_held.depth > 0) return;
  if (ours && t_held.fd >= 0) flock(t_held.fd, LOCK_UN);
  Drop();
}
