// A clock in a thread of its own.
#include "tools/progress.h"

#include "tools/report.h"

#include <stdio.h>
#include <unistd.h>

Progress::Progress(std::string what) {
  if (!IsSteerable(STDERR_FILENO) || g_manner.quiet) return;
  clock = std::thread([this, what = std::move(what)] { Tick(what); });
}

void Progress::Tick(const std::string& what) {
  std::unique_lock lock(mutex);
  for (int seconds = 1;; seconds++) {
    if (done.wait_for(lock, std::chrono::seconds(1), [this] { return isDone; })) break;
    fprintf(stderr, "\r%s: %d s ", what.c_str(), seconds);
  }
  fprintf(stderr, "\r\x1b[K");  // the line is empty again
}

Progress::~Progress() {
  if (!clock.joinable()) return;
  {
    const std::lock_guard lock(mutex);
    isDone = true;
  }
  done.notify_one();
  clock.join();
}
