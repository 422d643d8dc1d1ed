// Stands before the allocators of the libraries and of OpenSSL, to count and to fail.
#include "platform_test.h"

#include <dlfcn.h>
#include <openssl/crypto.h>
#include <stdlib.h>

long g_live = 0;
long g_failAt = 0;

bool g_ourFailure = false;

static bool IsToFail(bool ours) {
  if (g_failAt == 0 || --g_failAt > 0) return false;
  g_ourFailure = ours;
  return true;
}

extern "C" void* vakro_malloc(size_t size, const char* file, int line) {
  static const auto real = reinterpret_cast<decltype(&vakro_malloc)>(dlsym(RTLD_NEXT, __func__));
  void* const memory = IsToFail(true) ? nullptr : real(size, file, line);
  if (memory != nullptr) __atomic_add_fetch(&g_live, 1, __ATOMIC_RELAXED);
  return memory;
}

extern "C" void vakro_free(void* memory) {
  static const auto real = reinterpret_cast<decltype(&vakro_free)>(dlsym(RTLD_NEXT, __func__));
  if (memory != nullptr) __atomic_sub_fetch(&g_live, 1, __ATOMIC_RELAXED);
  real(memory);
}

static void* SslMalloc(size_t size, const char*, int) {
  return IsToFail(false) ? nullptr : malloc(size);
}
static void* SslRealloc(void* memory, size_t size, const char*, int) {
  return IsToFail(true) ? nullptr : realloc(memory, size);
}
static void SslFree(void* memory, const char*, int) { free(memory); }
static const int g_isSet = CRYPTO_set_mem_functions(SslMalloc, SslRealloc, SslFree);

TEST(PlatformAlloc, StandsBeforeTheLibraries) {
  ASSERT_EQ(g_isSet, 1);
  const long before = g_live;
  VakroJson* const value = vakro_json_newarray();
  EXPECT_EQ(g_live, before + 1);
  vakro_json_free(value);
  EXPECT_EQ(g_live, before);
}
