// The lock: a recursive POSIX mutex.
#include "vakro_util.h"

#include <pthread.h>

struct VakroLock {
  pthread_mutex_t mutex;
};

VakroLock* vakro_lock_new(void) {
  pthread_mutexattr_t attributes;
  if (pthread_mutexattr_init(&attributes) != 0) return nullptr;
  auto* lock = static_cast<VakroLock*>(vakro_malloc(sizeof(VakroLock), "util", __LINE__));
  const bool made = lock != nullptr &&
                    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE) == 0 &&
                    pthread_mutex_init(&lock->mutex, &attributes) == 0;
  pthread_mutexattr_destroy(&attributes);
  if (made) return lock;
  vakro_free(lock);
  return nullptr;
}

int vakro_lock_lock(VakroLock* lock) {
  return lock != nullptr && pthread_mutex_lock(&lock->mutex) == 0 ? 1 : 0;
}

int vakro_lock_unlock(VakroLock* lock) {
  return lock != nullptr && pthread_mutex_unlock(&lock->mutex) == 0 ? 1 : 0;
}

void vakro_lock_free(VakroLock* lock) {
  if (lock == nullptr) return;
  pthread_mutex_destroy(&lock->mutex);
  vakro_free(lock);
}
