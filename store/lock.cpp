// The lock on a device file: taken, waited for, given back.
#include "store/lock.h"

#include "store/inside.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>
#include <utility>

int g_lockPatience = 10000;

static constexpr long SHORTEST_PAUSE = 1, LONGEST_PAUSE = 50;  // between two attempts, milliseconds
static constexpr char LOCK_SUFFIX[] = ".lock";
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

static struct flock Whole(short type) {
  struct flock whole = {};  // from the first byte on, however long the file becomes
  whole.l_type = type;
  whole.l_whence = SEEK_SET;
  return whole;
}

static int SetLock(int fd, short type) {
  struct flock whole = Whole(type);
  int result = 0;
  do result = fcntl(fd, F_OFD_SETLK, &whole);
  while (result != 0 && errno == EINTR);
  return result;
}

// Whether what keeps a lock for writing away is a lock for reading.
static bool IsReadLocked(int fd) {
  struct flock other = Whole(F_WRLCK);
  return fcntl(fd, F_OFD_GETLK, &other) == 0 && other.l_type == F_RDLCK;
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
  return IsHeld() && fstat(file_.fd, &opened) == 0 && stat(path, &named) == 0 &&
         IsSameFile(opened, named);
}

LockResult FileLock::Try(const char* path) {
  for (int round = 0; round < MOST_ROUNDS; round++) {
    GiveBack();
    if (!file_.Open(path, O_RDWR)) return WhyNotOpened();
    struct stat opened;
    LockResult result = LockResult::HELD;
    if (fstat(file_.fd, &opened) != 0)
      result = LockResult::FAILED;
    else if (!S_ISREG(opened.st_mode))
      result = LockResult::MISSING;
    else if (SetLock(file_.fd, F_WRLCK) != 0)
      result = WhyNotLocked();
    if (result == LockResult::BUSY && IsReadLocked(file_.fd)) result = TryBeside(path, opened);
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

// --- The second way ------------------------------------------------------------------------------

// Here are locks, or nobody would have been in the way.
static LockResult WhyNotBeside() {
  return WhyNotLocked() == LockResult::BUSY ? LockResult::BUSY : LockResult::FAILED;
}

// The rule that all rests on: while someone holds the lock on the file that has the name, nobody
// else removes it or puts another in its place.
LockResult FileLock::TryBeside(const char* path, const struct stat& device) {
  besidePath_ = Join("json", {path, LOCK_SUFFIX});
  if (!besidePath_) return LockResult::FAILED;
  const char* beside = besidePath_.get();
  const bool isMade = beside_.Open(beside, O_WRONLY | O_CREAT | O_EXCL);
  if (!isMade && (errno != EEXIST || !beside_.Open(beside, O_WRONLY | O_NOFOLLOW)))
    // Another may just be making it, or be removing it.
    return errno == EACCES || errno == ENOENT ? LockResult::BUSY : LockResult::FAILED;
  if (SetLock(beside_.fd, F_WRLCK) != 0) return WhyNotBeside();
  struct stat opened, named;
  if (fstat(beside_.fd, &opened) != 0) return LockResult::FAILED;
  // In a folder where all may make files a stranger could exchange his under the lock.
  if (opened.st_uid != geteuid() && opened.st_uid != device.st_uid && opened.st_uid != 0)
    return LockResult::BUSY;
  if (lstat(beside, &named) != 0 || !IsSameFile(opened, named)) return LockResult::BUSY;
  if (!S_ISREG(opened.st_mode) || opened.st_size != 0) return LockResult::FAILED;  // not ours
  isBesideOurs_ = true;
  struct stat like = device;
  like.st_mode &= S_IWUSR | S_IWGRP | S_IWOTH;
  if (!TakeOwnerAndMode(beside_.fd, like)) return LockResult::FAILED;
  return SetLock(file_.fd, F_RDLCK) == 0 ? LockResult::HELD : WhyNotBeside();
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
bool FileLock::Listed::Open(const char* path, int flags) {
  if (pthread_mutex_lock(&g_open.mutex) != 0) {
    errno = ENOMEM;
    return false;
  }
  slot = 0;
  while (slot < SLOTS && g_open.slots[slot] != 0) slot++;
  errno = EMFILE;
  // Without O_NONBLOCK a pipe that has taken the file's place would be waited for.
  if (slot < SLOTS)
    fd = open(path, flags | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, static_cast<mode_t>(S_IWUSR));
  if (fd >= 0) g_open.slots[slot] = fd + 1;
  owner = getpid();
  pthread_mutex_unlock(&g_open.mutex);
  return fd >= 0;
}

// A child has closed what it inherited, and it is not its to give back.
bool FileLock::Listed::IsOurs() const { return fd >= 0 && owner == getpid(); }

void FileLock::Listed::Close() {
  if (IsOurs()) {
    // A child that was made without the handlers may still have the descriptor, and with it the
    // lock.
    SetLock(fd, F_UNLCK);
    const bool locked = pthread_mutex_lock(&g_open.mutex) == 0;
    g_open.slots[slot] = 0;
    close(fd);
    if (locked) pthread_mutex_unlock(&g_open.mutex);
  }
  fd = -1;
}

void FileLock::GiveBack() {
  const int usual = errno;
  if (std::exchange(isBesideOurs_, false) && beside_.IsOurs()) unlink(besidePath_.get());
  beside_.Close();
  file_.Close();
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

void Pause(long milliseconds) {
  struct timespec pause = {milliseconds / 1000, milliseconds % 1000 * 1000000};
  while (nanosleep(&pause, &pause) != 0 && errno == EINTR) continue;  // a signal cut it short
}

LockResult FileLock::Take(const char* path, const char* backupPath) {
  LockResult result = Try(path);
  if (result != LockResult::BUSY) return result;
  Signs last = LookAt(path, backupPath);
  // What is counted are our own pauses: where nobody gets on, since the machine is busy or asleep,
  // it is no holder's fault.
  long waited = 0;
  for (long pause = SHORTEST_PAUSE;;
       pause = pause * 2 < LONGEST_PAUSE ? pause * 2 : LONGEST_PAUSE) {
    Pause(pause);
    waited += pause;
    result = Try(path);
    if (result != LockResult::BUSY) return result;
    const Signs now = LookAt(path, backupPath);
    if (!IsSameState(now.file, last.file) || !IsSameState(now.backup, last.backup)) {
      last = now;
      waited = 0;
    } else if (waited >= g_lockPatience) {
      errno = ETIMEDOUT;
      return LockResult::BUSY;
    }
  }
}
