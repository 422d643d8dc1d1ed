// The log.
#include "pkcs11/log.h"

#include "pkcs11/names.h"

#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>

static std::atomic<int> g_log{-1};

void OpenLog() {
  const char* const path = secure_getenv("VAKRO_PKCS11_LOG");
  if (path == nullptr || *path == '\0' || g_log.load() >= 0) return;
  g_log.store(open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY, 0600));
}

void CloseLog() {
  const int fd = g_log.exchange(-1);
  if (fd >= 0) close(fd);
}

// One write a line, so that those of several threads and processes don't mix.
static void WriteLine(int fd, const char* text) {
  char line[512];
  timespec now = {};
  clock_gettime(CLOCK_REALTIME, &now);
  tm parts = {};
  gmtime_r(&now.tv_sec, &parts);
  const int length =
      snprintf(line, sizeof line, "%02d:%02d:%02d.%03ld %d.%ld %s\n", parts.tm_hour, parts.tm_min,
               parts.tm_sec, now.tv_nsec / 1000000, getpid(), syscall(SYS_gettid), text);
  if (length <= 0) return;
  const size_t size =
      static_cast<size_t>(length) < sizeof line ? static_cast<size_t>(length) : sizeof line - 1;
  line[size - 1] = '\n';
  // A log that can't be written is no reason to fail.
  static_cast<void>(write(fd, line, size) == 0);
}

void LogReason(const char* format, ...) {
  const int fd = g_log.load(std::memory_order_relaxed);
  if (fd < 0) return;
  char text[400] = "  ";
  va_list arguments;
  va_start(arguments, format);
  vsnprintf(text + 2, sizeof text - 2, format, arguments);
  va_end(arguments);
  for (char* at = text; *at != '\0'; at++)
    if (static_cast<unsigned char>(*at) < ' ' || *at == 0x7F) *at = '?';  // a label may hold any
  WriteLine(fd, text);
}

CK_RV LogResult(const char* function, CK_RV result) {
  const int fd = g_log.load(std::memory_order_relaxed);
  if (fd < 0) return result;
  char text[128];
  const char* const name = NameOfResult(result);
  if (name != nullptr) {
    snprintf(text, sizeof text, "%s: %s", function, name);
  } else {
    snprintf(text, sizeof text, "%s: 0x%lx", function, result);
  }
  WriteLine(fd, text);
  return result;
}
