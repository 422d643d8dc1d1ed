// Runs a fuzz target over kept inputs, as an ordinary program for any compiler: every argument is a
// file, or a folder of files.
#include "fuzz/fuzz.h"

#include <stdio.h>
#include <filesystem>
#include <fstream>
#include <sstream>

static void Run(const std::filesystem::path& path) {
  std::ostringstream content;
  content << std::ifstream(path, std::ios::binary).rdbuf();
  const std::string bytes = content.str();
  fprintf(stderr, "%s\n", path.c_str());
  // Exactly as long as the input, so that a sanitizer sees the first byte behind it.
  const std::unique_ptr<unsigned char[]> input(new unsigned char[bytes.size()]);
  std::copy(bytes.begin(), bytes.end(), input.get());
  LLVMFuzzerTestOneInput(input.get(), bytes.size());
}

int main(int argc, char** argv) {
  int count = 0;
  for (int i = 1; i < argc; i++) {
    const std::filesystem::path path(argv[i]);
    if (!std::filesystem::is_directory(path)) {
      Run(path);
      count++;
      continue;
    }
    for (const auto& entry : std::filesystem::directory_iterator(path)) {
      Run(entry.path());
      count++;
    }
  }
  fprintf(stderr, "%d inputs\n", count);
  return count > 0 ? 0 : 1;
}
