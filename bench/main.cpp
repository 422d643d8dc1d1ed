// Options, folders, how a contender runs, and the start of the module.
#include "bench.h"

#include <openssl/crypto.h>
#include <stdio.h>
#include <stdlib.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <map>
#include <mutex>
#include <stdexcept>
#include <string_view>

bool g_quick = false;
std::string g_disk = ".", g_memory = "/dev/shm";
static bool g_failed = false;

void Check(bool ok, const std::string& what) {
  if (!ok) throw std::runtime_error(what + " failed");
}

benchmark::internal::Benchmark* Add(const std::string& row, const std::string& who,
                                    const Make& make) {
  const auto made = std::make_shared<std::map<int, Measured>>();  // by thread
  const auto run = [=](benchmark::State& state) {
    static std::mutex making;
    Measured* measured = nullptr;  // in its place: calls may keep a state from run to run
    try {
      const std::lock_guard lock(making);
      if (!made->contains(state.thread_index())) (*made)[state.thread_index()] = make();
      measured = &(*made)[state.thread_index()];
    } catch (const std::exception& error) {
      state.SkipWithError(error.what());
      g_failed = true;
      return;
    }
    for ([[maybe_unused]] auto iteration : state) {
      if (measured->before) {
        state.PauseTiming();
        measured->before();
        state.ResumeTiming();
      }
      if (measured->call()) continue;
      state.SkipWithError("it does not work");
      g_failed = true;
      break;
    }
  };
  auto* const added = benchmark::RegisterBenchmark((row + '/' + who).c_str(), run);
  return g_quick ? added->Iterations(1) : added;
}

// DeviceInit to DeviceEnd, by this program run again with --start-up: here OpenSSL would be warm.
static double SecondsOfStart() {
  const auto start = std::chrono::steady_clock::now();
  if (DeviceInit() != 1 || DeviceEnd() != 1) return -1;
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

static void StartAndStop(benchmark::State& state) {
  const std::string self = std::filesystem::read_symlink("/proc/self/exe");
  for ([[maybe_unused]] auto iteration : state) {
    FILE* const child = popen(('"' + self + "\" --start-up").c_str(), "r");
    double seconds = -1;
    if (child == nullptr || fscanf(child, "%lf", &seconds) != 1 || seconds < 0) {
      state.SkipWithError("the child has failed");
      g_failed = true;
    }
    if (child != nullptr) pclose(child);
    state.SetIterationTime(seconds);
  }
}

static bool TakeOption(std::string_view argument) {
  const auto value = [&](std::string_view name, std::string& place) {
    if (!argument.starts_with(name)) return false;
    place = argument.substr(name.size());
    return true;
  };
  if (argument == "--quick") return g_quick = true;
  return value("--disk=", g_disk) || value("--memory=", g_memory);
}

int main(int argc, char** argv) {
  if (argc == 2 && std::string_view(argv[1]) == "--start-up") {
    printf("%.9f\n", SecondsOfStart());
    return 0;
  }
  argc = static_cast<int>(std::remove_if(argv + 1, argv + argc, TakeOption) - argv);
  for (std::string* folder : {&g_disk, &g_memory}) {
    *folder += "/bench-XXXXXX";
    if (mkdtemp(folder->data()) == nullptr) return 2;
    *folder += '/';
  }
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
  benchmark::AddCustomContext("openssl", OPENSSL_VERSION_TEXT);
  benchmark::AddCustomContext("compiler", __VERSION__);
  if (DeviceInit() != 1) return 2;
  benchmark::RegisterBenchmark("start and stop/fresh process/DeviceInit, DeviceEnd", StartAndStop)
      ->UseManualTime();
  AddKeyOperations();
  AddSm2Peers();
  AddDevices();
  benchmark::RunSpecifiedBenchmarks();
  benchmark::ClearRegisteredBenchmarks();  // with the handles that the contenders hold
  DeviceEnd();
  for (const std::string& folder : {g_disk, g_memory}) std::filesystem::remove_all(folder);
  return g_failed ? 1 : 0;
}
