// Which secrets are shielded, and the pages that they share.
#include "core/shield.h"

#include "core/lock.h"

#include <errno.h>
#include <stdint.h>
#include <sys/mman.h>
#include <unistd.h>

namespace {
struct Range {
  uintptr_t begin, end;
};
}  // namespace

static constexpr int MAX_SECRETS = 1024;
static Range g_secrets[MAX_SECRETS];
static int g_secretCount = 0;

static Range PagesOf(const Range& secret) {
  const auto page = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
  return {secret.begin / page * page, (secret.end + page - 1) / page * page};
}

static bool HoldsASecret(const Range& page) {
  for (int i = 0; i < g_secretCount; i++)
    if (g_secrets[i].begin < page.end && page.begin < g_secrets[i].end) return true;
  return false;
}

// A process that locks all that comes has every new page in memory at once.
static bool HostLocksEverything() {
  const auto size = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  void* const page = mmap(nullptr, size, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (page == MAP_FAILED) return true;
  unsigned char isPresent = 1;
  mincore(page, size, &isPresent);
  munmap(page, size);
  return (isPresent & 1) != 0;
}

void ShieldSecret(const void* bytes, size_t length) {
  if (bytes == nullptr || length == 0) return;
  const auto begin = reinterpret_cast<uintptr_t>(bytes);
  const int kept = errno;
  const ShieldLock lock;
  if (!lock.held) return;
  for (int i = 0; i < g_secretCount; i++)
    if (g_secrets[i].begin == begin) return;
  if (g_secretCount == MAX_SECRETS) return;
  g_secrets[g_secretCount++] = {begin, begin + length};
  const Range pages = PagesOf({begin, begin + length});
  void* const at = reinterpret_cast<void*>(pages.begin);
  mlock(at, pages.end - pages.begin);
  madvise(at, pages.end - pages.begin, MADV_DONTDUMP);
  errno = kept;
}

void UnshieldSecret(const void* bytes) {
  const auto begin = reinterpret_cast<uintptr_t>(bytes);
  const int kept = errno;
  const ShieldLock lock;
  if (!lock.held) return;
  int at = 0;
  while (at < g_secretCount && g_secrets[at].begin != begin) at++;
  if (at == g_secretCount) return;
  const Range pages = PagesOf(g_secrets[at]);
  g_secrets[at] = g_secrets[--g_secretCount];

  const auto size = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
  const bool unlock = !HostLocksEverything();
  for (uintptr_t page = pages.begin; page < pages.end; page += size) {
    if (HoldsASecret({page, page + size})) continue;
    if (unlock) munlock(reinterpret_cast<void*>(page), size);
    madvise(reinterpret_cast<void*>(page), size, MADV_DODUMP);
  }
  errno = kept;
}
