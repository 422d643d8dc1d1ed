// What the platform tests share: owners, hex, and failing allocations. platform_alloc.cpp puts
// itself before the allocators of the libraries and of OpenSSL.
#ifndef VAKRO_TESTS_PLATFORM_TEST_H
#define VAKRO_TESTS_PLATFORM_TEST_H

#include "vakro_crypto.h"
#include "vakro_util.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

extern long g_live;        // buffers of the libraries that were not released
extern long g_failAt;      // the allocation that fails, counted down; 0: none
extern bool g_ourFailure;  // the last that failed was the libraries', not OpenSSL's

// FailEachAllocation runs `step` with the first, then the second … allocation failing, until none
// fails. `step` says whether all went well, which OpenSSL alone may manage in spite of a failure,
// and leaves nothing behind.
template <class Step>
void FailEachAllocation(Step step) {
  ASSERT_TRUE(step()) << "undisturbed";  // also lets OpenSSL make what it keeps
  const long before = g_live;
  bool failed = true;
  for (long n = 1; failed; n++) {
    g_failAt = n;
    const bool ok = step();
    failed = g_failAt == 0;
    if (!failed || g_ourFailure) {
      EXPECT_NE(ok, failed) << "allocation " << n;
    }
    EXPECT_EQ(g_live, before) << "allocation " << n;
  }
  g_failAt = 0;
}

template <auto Free>
struct Release {
  template <class T>
  void operator()(T* p) const {
    Free(p);
  }
};
using Json = std::unique_ptr<VakroJson, Release<vakro_json_free>>;
using SoftDevice = std::unique_ptr<VakroPKICryptoDevice, Release<VakroPKICryptoFreeDevice>>;
using Hash = std::unique_ptr<VakroPKICryptoHash, Release<VakroPKICryptoFreeHash>>;
using Mac = std::unique_ptr<VakroPKICryptoMac, Release<VakroPKICryptoFreeMac>>;
using Cipher = std::unique_ptr<VakroPKICryptoCipher, Release<VakroPKICryptoFreeCipher>>;

// What a function hands out: room for it, released at the end.
struct Out {
  unsigned char* bytes = nullptr;
  int length = -1;
  ~Out() { VakroPKICryptoFreeMemory(bytes); }
  char** text() { return reinterpret_cast<char**>(&bytes); }
  std::string str() const { return {reinterpret_cast<char*>(bytes), static_cast<size_t>(length)}; }
  bool untouched() const { return bytes == nullptr && length == -1; }
};

inline const unsigned char* Data(std::string_view bytes) {
  return reinterpret_cast<const unsigned char*>(bytes.data());
}
inline int Length(std::string_view bytes) { return static_cast<int>(bytes.size()); }

// A copy without a NUL behind it, so that the address sanitizer sees a byte read too many.
struct Exact {
  std::unique_ptr<char[]> bytes;
  explicit Exact(std::string_view text) : bytes(new char[text.size()]) {
    text.copy(bytes.get(), text.size());
  }
  const unsigned char* data() const { return reinterpret_cast<unsigned char*>(bytes.get()); }
};

// The parts of a text between blanks or, where parts hold blanks, other separators.
inline std::vector<std::string> Split(std::string_view text, std::string_view separators = " \n") {
  std::vector<std::string> parts;
  while (true) {
    text.remove_prefix(std::min(text.find_first_not_of(separators), text.size()));
    if (text.empty()) return parts;
    parts.emplace_back(text.substr(0, text.find_first_of(separators)));
    text.remove_prefix(parts.back().size());
  }
}

// Hex to bytes; blanks are for the reader.
inline std::string Unhex(std::string_view hex) {
  std::string bytes;
  int digits = 0, value = 0;
  for (const char c : hex) {
    if (c == ' ' || c == '\n') continue;
    value = value * 16 + (c <= '9' ? c - '0' : (c | 32) - 'a' + 10);
    if (++digits % 2 != 0) continue;
    bytes += static_cast<char>(value);
    value = 0;
  }
  return bytes;
}

#endif
