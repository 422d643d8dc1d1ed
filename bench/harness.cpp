// The rows, their rounds, and main.
#include "harness.h"

#include "world.h"

#include <benchmark/benchmark.h>
#include <openssl/crypto.h>

#include <algorithm>
#include <iterator>
#include <memory>
#include <numeric>
#include <random>
#include <string_view>

Options g_options;
clockid_t g_clock = CLOCK_THREAD_CPUTIME_ID;

namespace {
struct Row {
  Target target;
  clockid_t clock;
  std::function<std::vector<Contender>()> make;
  std::vector<Contender> contenders = {};
  std::vector<long> calls = {};  // in a slice
};

std::vector<std::unique_ptr<Row>> g_rows;
bool g_failed = false;
constexpr long MAX_CALLS = 1'000'000;
#ifdef __clang__
constexpr char COMPILER[] = "clang " __clang_version__;
#else
constexpr char COMPILER[] = "g++ " __VERSION__;
#endif

double Median(std::vector<double>& samples) {
  const auto middle = samples.begin() + static_cast<std::ptrdiff_t>(samples.size() / 2);
  std::nth_element(samples.begin(), middle, samples.end());
  return *middle;
}

long CallsInASlice(const Contender& contender) {
  if (g_options.quick) return 1;
  contender.run(1);
  const double seconds = std::max(contender.run(1), 1e-8);
  return std::clamp(static_cast<long>(g_options.slice / seconds), 1L, MAX_CALLS);
}

void Prepare(Row& row) {
  if (!row.contenders.empty()) return;
  row.contenders = row.make();
  for (const Contender& contender : row.contenders) row.calls.push_back(CallsInASlice(contender));
}

// Median seconds of a call, by contender.
std::vector<double> RunRounds(const Row& row) {
  static std::mt19937 random;
  const size_t count = row.contenders.size();
  std::vector<std::vector<double>> samples(count);
  std::vector<size_t> order(count);
  std::iota(order.begin(), order.end(), size_t{0});
  const double start = Now(CLOCK_MONOTONIC);
  do {
    std::shuffle(order.begin(), order.end(), random);
    for (const size_t i : order)
      samples[i].push_back(row.contenders[i].run(row.calls[i]) / static_cast<double>(row.calls[i]));
  } while (Now(CLOCK_MONOTONIC) - start < g_options.seconds);
  std::vector<double> medians;
  std::transform(samples.begin(), samples.end(), std::back_inserter(medians), Median);
  return medians;
}

void Report(benchmark::State& state, const Row& row, const std::vector<double>& medians) {
  state.SetIterationTime(medians[0]);
  for (size_t i = 0; i < medians.size(); i++)
    state.counters[std::to_string(i) + ' ' + row.contenders[i].name] = medians[i];
  if (row.target.counter != nullptr) state.counters[row.target.counter] = row.target.value;
}

// One iteration is a whole repetition: the rounds count for themselves.
void Run(benchmark::State& state, Row& row) {
  for ([[maybe_unused]] auto iteration : state) {
    g_clock = row.clock;
    try {
      Prepare(row);
      Report(state, row, RunRounds(row));
    } catch (const std::exception& error) {
      g_failed = true;
      state.SkipWithError(error.what());
      break;
    }
  }
}

// Takes the harness's own arguments; the others are the benchmark library's.
bool ReadOption(std::string_view argument) {
  const auto value = [&](std::string_view name, auto set) {
    if (!argument.starts_with(name)) return false;
    set(std::string(argument.substr(name.size())));
    return true;
  };
  const auto quick = [](auto) {
    g_options.quick = true;
    g_options.seconds = 0;
  };
  return value("--quick", quick) ||
         value("--seconds=", [](auto text) { g_options.seconds = std::stod(text); }) ||
         value("--disk=", [](auto text) { g_options.disk = text; }) ||
         value("--memory=", [](auto text) { g_options.memory = text; });
}
}  // namespace

void Measure(const std::string& name, Target target, std::function<std::vector<Contender>()> make,
             clockid_t clock) {
  g_rows.push_back(std::make_unique<Row>(Row{target, clock, std::move(make)}));
  benchmark::RegisterBenchmark(name.c_str(), Run, std::ref(*g_rows.back()))
      ->UseManualTime()
      ->Iterations(1)
      ->Unit(benchmark::kMicrosecond);
}

int main(int argc, char** argv) {
  if (argc == 2 && std::string_view(argv[1]) == START_UP_ARGUMENT) return RunStartUp();
  g_options.disk = ".";
  g_options.memory = "/dev/shm";
  argc = static_cast<int>(std::remove_if(argv + 1, argv + argc, ReadOption) - argv);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
  const World world(&g_options.disk, &g_options.memory);
  benchmark::AddCustomContext("openssl", OpenSSL_version(OPENSSL_VERSION));
  benchmark::AddCustomContext("compiler", COMPILER);
  benchmark::AddCustomContext("disk", FileSystemOf(g_options.disk));
  benchmark::AddCustomContext("memory", FileSystemOf(g_options.memory));
  MeasureKeyOperations();
  MeasureSm2();
  MeasureThreads();
  MeasureGeneration();
  MeasureDevices();
  MeasureStartUp();
  benchmark::RunSpecifiedBenchmarks();
  g_rows.clear();  // with the handles that the contenders hold
  return g_failed ? 1 : 0;
}
