// What drives the targets: libFuzzer the one that FUZZ_TARGET makes; elsewhere each is a test over
// the files in corpus/TARGET/accepted and corpus/TARGET/refused.
#include "fuzz/fuzz.h"

#include <filesystem>

bool FuzzTest::Try(std::string_view input) {
  const auto exact = std::make_unique<char[]>(input.size());
  input.copy(exact.get(), input.size());
  FixRandom();
  return Run({exact.get(), input.size()});
}

// Each byte changed, in all ways where the input is short; the input cut short; one byte more.
static std::vector<std::string> Changes(const std::string& input) {
  std::vector<std::string> all = {input + '\0'};
  const unsigned int step = input.size() > 90 ? 127 : 1;  // 127: 0x01, 0x80, 0xff
  for (size_t at = 0; at < input.size(); at++) {
    for (unsigned int bits = 1; bits < 256; bits += step)
      all.push_back(Flipped(input, at, static_cast<unsigned char>(bits)));
    all.push_back(input.substr(0, at));
  }
  return all;
}

void FuzzTest::TestBody() {
  const std::string name = testing::UnitTest::GetInstance()->current_test_info()->name();
  for (const std::string kind : {"accepted", "refused"})
    for (const auto& entry : std::filesystem::directory_iterator(FUZZ_CORPUS + name + '/' + kind)) {
      SCOPED_TRACE(entry.path());
      const std::string input = ReadText(entry.path());
      EXPECT_EQ(Try(input), kind == "accepted");
      for (const std::string& changed : Changes(input)) {
        Try(changed);
        ASSERT_FALSE(HasFailure()) << "changed to " << Hex(changed);
      }
    }
}

#ifdef FUZZ_TARGET
FuzzTest* FUZZ_TARGET();

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size) {
  static const std::unique_ptr<FuzzTest> target(FUZZ_TARGET());
  target->Try({reinterpret_cast<const char*>(data), size});
  if (testing::Test::HasFailure()) abort();
  return 0;
}
#endif
