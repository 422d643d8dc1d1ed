// The module's process-wide state and its locks. The small ones are plain static objects, so that
// they need no making and can be made anew in a child.
#include "core/lock.h"

#include <pthread.h>

#include <utility>

// A program may have globals by these names: the module keeps to its own.
#define PROTECTED __attribute__((visibility("protected")))
PROTECTED VakroLock* g_lock = nullptr;
PROTECTED VakroPKICryptoDevice* g_hSoftDevice = nullptr;
PROTECTED char* g_keyFolder = nullptr;
PROTECTED SM2Info* g_sm2 = nullptr;

namespace {
struct SmallLocks {
  pthread_mutex_t start = PTHREAD_MUTEX_INITIALIZER;
  pthread_mutex_t key = PTHREAD_MUTEX_INITIALIZER;
  pthread_mutex_t shield = PTHREAD_MUTEX_INITIALIZER;
  // Threads that compute hold it for reading. A fork that waits goes first, or it would wait for as
  // long as others sign without a pause.
  pthread_rwlock_t computing = PTHREAD_RWLOCK_WRITER_NONRECURSIVE_INITIALIZER_NP;
};
}  // namespace
static constinit SmallLocks g_small;

int DeviceLockDevice(Device* /*device*/) { return vakro_lock_lock(g_lock) == 1 ? 1 : 0; }

int DeviceUnlockDevice(Device* /*device*/) { return vakro_lock_unlock(g_lock) == 1 ? 1 : 0; }

StartLock::StartLock() { pthread_mutex_lock(&g_small.start); }
StartLock::~StartLock() { pthread_mutex_unlock(&g_small.start); }

// A thread that were cancelled inside would leave the fork waiting.
Computing::Computing() {
  pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancelState);
  pthread_rwlock_rdlock(&g_small.computing);
}

Computing::~Computing() {
  pthread_rwlock_unlock(&g_small.computing);
  pthread_setcancelstate(cancelState, nullptr);
}

void LetForksPass(void) {
  pthread_rwlock_unlock(&g_small.computing);
  pthread_rwlock_rdlock(&g_small.computing);
}

KeyLock::KeyLock() : held(pthread_mutex_lock(&g_small.key) == 0) {}
KeyLock::~KeyLock() {
  if (held) pthread_mutex_unlock(&g_small.key);
}

ShieldLock::ShieldLock() : held(pthread_mutex_lock(&g_small.shield) == 0) {}
ShieldLock::~ShieldLock() {
  if (held) pthread_mutex_unlock(&g_small.shield);
}

// Between prepare and what follows in the same thread; guarded by the start lock.
static bool g_heldForFork = false;
static VakroLock* g_childsLock = nullptr;   // made before the fork: a child should not allocate
static VakroLock* g_parentsLock = nullptr;  // in a child: as the fork left it, held, never freed

void HoldLocksForFork(void) {
  pthread_mutex_lock(&g_small.start);
  g_heldForFork = g_lock != nullptr && vakro_lock_lock(g_lock) == 1;
  g_childsLock = g_heldForFork ? vakro_lock_new() : nullptr;
  pthread_rwlock_wrlock(&g_small.computing);
  pthread_mutex_lock(&g_small.key);
  pthread_mutex_lock(&g_small.shield);
}

void GiveLocksBackInParent(void) {
  pthread_mutex_unlock(&g_small.shield);
  pthread_mutex_unlock(&g_small.key);
  pthread_rwlock_unlock(&g_small.computing);
  VakroLock* const spare = std::exchange(g_childsLock, nullptr);
  if (spare != nullptr) vakro_lock_free(spare);
  if (g_heldForFork) vakro_lock_unlock(g_lock);
  pthread_mutex_unlock(&g_small.start);
}

// The module lock can't be given back here: it knows its owner, and in the child that thread is
// another. Without a spare one every call that wants the lock fails, and none waits.
void RenewLocksInChild(void) {
  if (g_heldForFork) {
    g_parentsLock = g_lock;
    g_lock = std::exchange(g_childsLock, nullptr);
  }
  g_small = SmallLocks();
}
