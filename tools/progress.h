// The time that has passed, shown while something takes long; on a terminal only.
#ifndef VAKRO_TOOLS_PROGRESS_H
#define VAKRO_TOOLS_PROGRESS_H

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

// Shows `what` and the seconds on standard error while it lives, from the first second on.
struct Progress {
  explicit Progress(std::string what);
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;
  ~Progress();

 private:
  void Tick(const std::string& what);
  std::mutex mutex;
  std::condition_variable done;
  bool isDone = false;
  std::thread clock;
};

#endif
