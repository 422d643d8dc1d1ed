// The program around the targets: libFuzzer drives the one named FUZZ_TARGET, or kept inputs are
// replayed and changed a little, with any compiler: fuzz_replay TARGET FOLDER...
#include "fuzz/fuzz.h"

#ifdef FUZZ_TARGET
extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size) {
  Targets().at(FUZZ_TARGET)({reinterpret_cast<const char*>(data), size});
  return 0;
}
#else
#include <stdio.h>
#include <filesystem>
#include <fstream>
#include <iterator>

// Runs the input, and the input with one byte changed: in all ways and places where it is short.
static void Replay(Target target, const std::string& input) {
  target(input);
  const size_t step = 1 + input.size() / 500;
  const int next = input.size() > 64 ? 127 : 1;
  for (size_t at = 0; at < input.size(); at += step) {
    // Exactly as long as the input, so that a sanitizer sees the first byte behind it.
    std::vector<char> bytes(input.begin(), input.end());
    for (int bits = 0; bits < 256; bits += next) {
      bytes[at] = static_cast<char>(input[at] ^ bits);
      target({bytes.data(), bytes.size()});
    }
  }
}

int main(int argc, char** argv) {
  int count = 0;
  for (int i = 2; i < argc; i++) {
    for (const auto& entry : std::filesystem::directory_iterator(argv[i])) {
      fprintf(stderr, "%s\n", entry.path().c_str());
      std::ifstream file(entry.path(), std::ios::binary);
      Replay(Targets().at(argv[1]), {std::istreambuf_iterator<char>(file), {}});
      count++;
    }
  }
  fprintf(stderr, "%d inputs\n", count);
  return count > 0 ? 0 : 1;
}
#endif
