// The program around the targets: libFuzzer drives the one named FUZZ_TARGET, or kept inputs are
// replayed, with any compiler: fuzz_replay TARGET FOLDER...
#include "fuzz/fuzz.h"

#ifdef FUZZ_TARGET
extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size) {
  RunTarget(FUZZ_TARGET, {reinterpret_cast<const char*>(data), size});
  return 0;
}
#else
#include <stdio.h>
#include <filesystem>
#include <fstream>
#include <iterator>

int main(int argc, char** argv) {
  int count = 0;
  for (int i = 2; i < argc; i++) {
    for (const auto& entry : std::filesystem::directory_iterator(argv[i])) {
      fprintf(stderr, "%s\n", entry.path().c_str());
      std::ifstream file(entry.path(), std::ios::binary);
      const std::string content(std::istreambuf_iterator<char>(file), {});
      // Exactly as long as the input, so that a sanitizer sees the first byte behind it.
      const std::vector<char> bytes(content.begin(), content.end());
      RunTarget(argv[1], {bytes.data(), bytes.size()});
      count++;
    }
  }
  fprintf(stderr, "%d inputs\n", count);
  return count > 0 ? 0 : 1;
}
#endif
