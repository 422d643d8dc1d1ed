// DeviceInit to DeviceEnd, each time in a fresh process: within this one OpenSSL would be warm.
#include "harness.h"
#include "world.h"

#include <stdio.h>

#include <filesystem>

int RunStartUp() {
  const double start = Now();
  const bool ok = DeviceInit() == 1 && DeviceEnd() == 1;
  printf("%.9f\n", Now() - start);
  return ok ? 0 : 1;
}

// Runs this program as its own child, which reports the seconds it took.
static double SecondsInAChild() {
  const std::string self = std::filesystem::read_symlink("/proc/self/exe").string();
  const std::string command = '"' + self + "\" " + START_UP_ARGUMENT;
  FILE* const child = popen(command.c_str(), "r");
  Check(child != nullptr, command);
  char line[64] = "";
  const bool read = fgets(line, sizeof(line), child) != nullptr;
  Check(pclose(child) == 0 && read, command);
  return std::stod(line);
}

void MeasureStartUp() {
  Measure("start and stop/fresh process", SecondsAtMost(0.010), []() -> std::vector<Contender> {
    return {{"DeviceInit, DeviceEnd", [](long calls) {
               double seconds = 0;
               for (long i = 0; i < calls; i++) seconds += SecondsInAChild();
               return seconds;
             }}};
  });
}
