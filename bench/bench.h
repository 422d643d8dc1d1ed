// A row puts an operation of the module beside the bare work beneath it and beside others that do
// the same. Each contender is a benchmark of its own, "row/what/who", of the same few lines; Google
// Benchmark repeats and mixes them, bench/report.py makes ratios of them and holds the targets.
#ifndef VAKRO_BENCH_H
#define VAKRO_BENCH_H

#include "core/openssl_owners.h"
#include "core/owners.h"
#include "tests/support/device_file.h"

#include <benchmark/benchmark.h>

#include <functional>
#include <memory>
#include <string>

using Call = std::function<bool()>;  // says whether it worked
struct Measured {
  Call call;
  std::function<void()> before = nullptr;  // in front of every call, left out of the time
};
using Make = std::function<Measured()>;

// Adds a contender; whose name is a function of the module's is the row's own. `make` is called
// before the first call, and once for each thread.
benchmark::internal::Benchmark* Add(const std::string& row, const std::string& who,
                                    const Make& make);

void Check(bool ok, const std::string& what);  // throws

// The families.
void AddKeyOperations();  // keys.cpp
void AddDevices();        // devices.cpp
void AddSm2Peers();  // peers.cpp: other libraries' SM2, as far as they were there to build with

// Options, and folders that go in the end; each has a trailing slash.
extern bool g_quick;          // every row once, on small folders
extern std::string g_disk;    // on the disk
extern std::string g_memory;  // where flushing costs nothing

#endif
