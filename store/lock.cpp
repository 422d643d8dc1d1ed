// The lock on a device file: taken, waited for, given back.
#include "store/lock.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>
#include <utility>

int g_lockPatience = 10000;

static constexpr long SHORTEST_PAUSE = 1, LONGEST_PAUSE = 50;  // between two attempts, milliseconds
static constexpr int MOST_ROUNDS = 100;  // a name that changes more often is no file to work on

static LockResult WhyNotOpened() {
  switch (errno) {
    case ENOENT:
    case ENOTDIR:
    case ELOOP:
    case EISDIR:
    case ENXIO:  // a socket
    case ENODEV:
      return LockResult::MISSING;
    case EACCES:
    case EPERM:
    case EROFS:
    case ETXTBSY:
      return LockResult::SHUT;
    default:
      return LockResult::FAILED;
  }
}

static int SetLock(int fd, short type) {
  struct flock whole = {};  // from the first byte on, however long the file becomes
  whole.l_type = type;
  whole.l_whence = SEEK_SET;
  int result = 0;
  do result = fcntl(fd, F_OFD_SETLK, &whole);
  while (result != 0 && errno == EINTR);
  return result;
}

static LockResult WhyNotLocked() {
  switch (errno) {
    case EAGAIN:
    case EACCES:
      return LockResult::BUSY;
    case EINVAL:
    case ENOSYS:
    case EOPNOTSUPP:
      return LockResult::HELD;  // there are no locks here
    default:
      return LockResult::FAILED;
  }
}

static bool IsSameFile(const struct stat& a, const struct stat& b) {
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

bool FileLock::Names(const char* path) const {
  struct stat opened, named;
  return fd_ >= 0 && fstat(fd_, &opened) == 0 && stat(path, &named) == 0 &&
         IsSameFile(opened, named);
}

LockResult FileLock::Try(const char* path) {
  for (int round = 0; round < MOST_ROUNDS; round++) {
    GiveBack();
    if (!Open(path)) return WhyNotOpened();
    struct stat opened;
    LockResult result = LockResult::HELD;
    if (fstat(fd_, &opened) != 0)
      result = LockResult::FAILED;
    else if (!S_ISREG(opened.st_mode))
      result = LockResult::MISSING;
    else if (SetLock(fd_, F_WRLCK) != 0)
      result = WhyNotLocked();
    if (result != LockResult::HELD) {
      GiveBack();
      return result;
    }
    // The former holder may have put another file in its place.
    struct stat named;
    if (stat(path, &named) == 0) {
      if (IsSameFile(opened, named)) return LockResult::HELD;
    } else if (WhyNotOpened() != LockResult::MISSING) {
      break;
    }
  }
  GiveBack();
  return LockResult::FAILED;
}

// --- The list of what a child does not keep ------------------------------------------------------

static constexpr int SLOTS = 256;  // of threads that work on files at one time

namespace {
struct OpenLocks {
  pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
  int slots[SLOTS] = {};  // a descriptor and 1, or 0
};
}  // namespace
static constinit OpenLocks g_open;

// A descriptor is made and listed in one step, which no fork comes between.
bool FileLock::Open(const char* path) {
  if (pthread_mutex_lock(&g_open.mutex) != 0) {
    errno = ENOMEM;
    return false;
  }
  int slot = 0;
  while (slot < SLOTS && g_open.slots[slot] != 0) slot++;
  errno = EMFILE;
  // Without O_NONBLOCK a pipe that has taken the file's place would be waited for.
  if (slot < SLOTS) fd_ = open(path, O_RDWR | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
  if (fd_ >= 0) g_open.slots[slot] = fd_ + 1;
  slot_ = slot;
  owner_ = getpid();
  pthread_mutex_unlock(&g_open.mutex);
  return fd_ >= 0;
}

void FileLock::GiveBack() {
  const int fd = std::exchange(fd_, -1);
  if (fd < 0 || owner_ != getpid())
    return;  // a child has closed it, and it is not its to give back
  const int usual = errno;
  // A child that was made without the handlers may still have the descriptor, and with it the lock.
  SetLock(fd, F_UNLCK);
  const bool locked = pthread_mutex_lock(&g_open.mutex) == 0;
  g_open.slots[slot_] = 0;
  close(fd);
  if (locked) pthread_mutex_unlock(&g_open.mutex);
  errno = usual;
}

void PrepareLocksForFork(void) { pthread_mutex_lock(&g_open.mutex); }

void ResumeLocksInParent(void) { pthread_mutex_unlock(&g_open.mutex); }

void CloseInheritedLocks(void) {
  g_open.mutex = PTHREAD_MUTEX_INITIALIZER;
  for (int& slot : g_open.slots) {
    if (slot != 0) close(slot - 1);
    slot = 0;
  }
}

// --- Waiting -------------------------------------------------------------------------------------

namespace {
// What changes while a holder works.
struct Signs {
  struct stat file, backup;  // zeros for one that is not there
};
}  // namespace

static Signs LookAt(const char* path, const char* backupPath) {
  Signs signs;
  if (stat(path, &signs.file) != 0) memset(&signs.file, 0, sizeof(signs.file));
  if (lstat(backupPath, &signs.backup) != 0) memset(&signs.backup, 0, sizeof(signs.backup));
  return signs;
}

static bool IsSameState(const struct stat& a, const struct stat& b) {
  return IsSameFile(a, b) && a.st_size == b.st_size && a.st_mtim.tv_sec == b.st_mtim.tv_sec &&
         a.st_mtim.tv_nsec == b.st_mtim.tv_nsec && a.st_ctim.tv_sec == b.st_ctim.tv_sec &&
         a.st_ctim.tv_nsec == b.st_ctim.tv_nsec;
}

static long Now() {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec * 1000 + now.tv_nsec / 1000000;
}

void Pause(long milliseconds) {
  const struct timespec pause = {milliseconds / 1000, milliseconds % 1000 * 1000000};
  nanosleep(&pause, nullptr);  // a signal may cut it short
}

LockResult FileLock::Take(const char* path, const char* backupPath) {
  LockResult result = Try(path);
  if (result != LockResult::BUSY) return result;
  Signs last = LookAt(path, backupPath);
  long since = Now();
  for (long pause = SHORTEST_PAUSE;;
       pause = pause * 2 < LONGEST_PAUSE ? pause * 2 : LONGEST_PAUSE) {
    Pause(pause);
    result = Try(path);
    if (result != LockResult::BUSY) return result;
    const Signs now = LookAt(path, backupPath);
    if (!IsSameState(now.file, last.file) || !IsSameState(now.backup, last.backup)) {
      last = now;
      since = Now();
    } else if (Now() - since >= g_lockPatience) {
      errno = ETIMEDOUT;
      return LockResult::BUSY;
    }
  }
}
