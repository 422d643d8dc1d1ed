// The harness: a row is one operation and its contenders, the module's function first, beside it
// what the function rests on and what else does the same. A repetition runs the contenders in
// short slices, one after the other in changing order, so that noise hits all alike, and reports
// for each the median time of a call. bench/report.py makes ratios of it.
#ifndef VAKRO_BENCH_HARNESS_H
#define VAKRO_BENCH_HARNESS_H

#include <time.h>

#include <barrier>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

struct Options {
  double seconds = 0.15;  // of one repetition of one row
  double slice = 0.001;   // seconds
  bool quick = false;     // every operation a few times, on small folders: does it still work?
  std::string disk;       // a folder on the disk, with a trailing slash
  std::string memory;     // one in memory, where flushing costs nothing
};
extern Options g_options;

// The clock of a row: processor time of the thread, so that other work on the machine leaves the
// figures alone, or time on the wall where an operation waits, for the disk or other threads.
extern clockid_t g_clock;

inline double Now(clockid_t clock = g_clock) {
  timespec time = {};
  clock_gettime(clock, &time);
  return static_cast<double>(time.tv_sec) + 1e-9 * static_cast<double>(time.tv_nsec);
}

// `run` makes that many calls and returns the seconds they took; it throws when one fails.
struct Contender {
  std::string name;
  std::function<double(long calls)> run;
};

// What the project wants of a row: a bound on time(module) / time(second contender), or on the
// module's seconds.
struct Target {
  const char* counter = nullptr;
  double value = 0;
};
inline Target CostAtMost(double ratio) { return {"max_cost", ratio}; }
inline Target RateAtLeast(double ratio) { return {"min_rate", ratio}; }
inline Target SecondsAtMost(double seconds) { return {"max_seconds", seconds}; }

// Measure adds a row. `make` is called before its first repetition and may be slow.
void Measure(const std::string& name, Target target, std::function<std::vector<Contender>()> make,
             clockid_t clock = CLOCK_THREAD_CPUTIME_ID);

inline void Check(bool ok, const std::string& what) {
  if (!ok) throw std::runtime_error(what + " failed");
}

// Timed measures `call`, which says whether it worked.
template <class Call>
Contender Timed(std::string name, Call call) {
  return {name, [name, call = std::move(call)](long calls) mutable {
            const double start = Now();
            for (long i = 0; i < calls; i++) Check(call(), name);
            return Now() - start;
          }};
}

// TimedAfter runs `before` in front of every call and leaves it out of the time.
template <class Before, class Call>
Contender TimedAfter(std::string name, Before before, Call call) {
  return {name, [name, before = std::move(before), call = std::move(call)](long calls) mutable {
            double seconds = 0;
            for (long i = 0; i < calls; i++) {
              before();
              const double start = Now();
              const bool ok = call();
              seconds += Now() - start;
              Check(ok, name);
            }
            return seconds;
          }};
}

// Threaded measures copies of `call` side by side in `count` threads, on the wall: the seconds in
// which all of them together make one call.
template <class Call>
Contender Threaded(std::string name, int count, Call call) {
  return {name, [name, count, call = std::move(call)](long calls) {
            std::barrier line(count + 1);
            std::vector<char> worked(static_cast<size_t>(count), 1);
            std::vector<std::thread> threads;
            for (char& ok : worked) {
              threads.emplace_back([&line, &ok, calls, own = call]() mutable {
                line.arrive_and_wait();  // runs
                line.arrive_and_wait();  // starts
                for (long i = 0; i < calls; i++) ok = ok && own();
                line.arrive_and_wait();
              });
            }
            line.arrive_and_wait();
            const double start = Now(CLOCK_MONOTONIC);
            line.arrive_and_wait();
            line.arrive_and_wait();
            const double seconds = Now(CLOCK_MONOTONIC) - start;
            for (std::thread& thread : threads) thread.join();
            for (const char ok : worked) Check(ok, name);
            return seconds / count;
          }};
}

// The families.
void MeasureKeyOperations();  // key_operations.cpp: RSA and ECDSA
void MeasureGeneration();
void MeasureThreads();
void MeasureSm2();      // sm2.cpp
void MeasureDevices();  // devices.cpp: PIN, scan, rewrites, stored keys
void MeasureStartUp();  // start_up.cpp

#endif
