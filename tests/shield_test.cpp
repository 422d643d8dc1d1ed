// What holds secrets between calls is kept from swap and from core dumps.
#include "tests/support/world.h"

#include "core/shield.h"
#include "device/change.h"

#include <sys/mman.h>
#include <sys/resource.h>
#include <fstream>
#include <sstream>

namespace {
// Of the flags that the kernel has for the page at `address`: lo, locked; dd, not dumped.
std::string FlagsAt(const void* address) {
  std::ifstream maps("/proc/self/smaps");
  bool here = false;
  for (std::string line; std::getline(maps, line);) {
    void *begin = nullptr, *end = nullptr;
    if (sscanf(line.c_str(), "%p-%p ", &begin, &end) == 2) here = begin <= address && address < end;
    if (!here || !line.starts_with("VmFlags:")) continue;
    std::istringstream flags(line.substr(8));
    std::string found;
    for (std::string flag; flags >> flag;)
      if (flag == "lo" || flag == "dd") found += flag;
    return found;
  }
  return "unmapped";
}
// The flags of a shielded page. The sanitizers leave out what locks memory.
std::string Shielded() {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  return "dd";
#else
  return "lodd";
#endif
}
}  // namespace

using ShieldTest = ModuleTest;

TEST_F(ShieldTest, ThePinIsShieldedForAsLongAsItIsKept) {
  const DeviceHandle device = Load();
  const char* const first = device->pin;
  EXPECT_EQ(FlagsAt(first), Shielded());
  EXPECT_EQ(DeviceChangePwd(device.get(), PIN_TYPE_USER, PIN, "another", nullptr), 1);
  const char* const second = device->pin;
  EXPECT_EQ(FlagsAt(second), Shielded());
  Device* loaded = nullptr;
  ASSERT_EQ(LoadDevice(Path("dev").c_str(), &loaded), 1);
  const OwnedDevice fresh(loaded);
  ASSERT_EQ(TakeOverKeys(fresh.get(), device.get()), 1);
  FreePin(device.get());
  EXPECT_EQ(FlagsAt(fresh->pin), Shielded()) << "the copy of another record";
  FreePin(fresh.get());
  EXPECT_EQ(FlagsAt(first), "");
  EXPECT_EQ(FlagsAt(second), "");
}

TEST_F(ShieldTest, WhatSigningKeepsIsShielded) {
  const DeviceHandle device =
      Load(StoredDevice{.keypairs = {StoredKeypair{.key = &TestSm2()}.Json()}}.File());
  FreePin(device.get());
  Keypair* const keypair = device->keypairs[0];
  EXPECT_EQ(FlagsAt(&keypair->signingFactor), "");
  unsigned char e[32] = {}, signature[80];
  int length = 0;
  EXPECT_EQ(DeviceSign(keypair, ALGORITHM_SM2_SIGN, nullptr, e, 32, signature, 80, &length), 1);
  EXPECT_EQ(FlagsAt(&keypair->signingFactor), Shielded());
}

TEST_F(ShieldTest, SecretsShareTheirPages) {
  const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  auto* const memory = static_cast<char*>(
      mmap(nullptr, 3 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
  ASSERT_NE(memory, MAP_FAILED);
  const auto flags = [&] {
    return FlagsAt(memory) + "," + FlagsAt(memory + page) + "," + FlagsAt(memory + 2 * page);
  };
  ShieldSecret(memory + 10, 10);
  EXPECT_EQ(flags(), Shielded() + ",,");
  ShieldSecret(memory + page - 1, 2);  // over the edge
  ShieldSecret(memory + page + 5, page - 5);
  EXPECT_EQ(flags(), Shielded() + "," + Shielded() + ",");
  UnshieldSecret(memory + page + 5);
  UnshieldSecret(memory + 11);  // not the beginning of one
  EXPECT_EQ(flags(), Shielded() + "," + Shielded() + ",");
  UnshieldSecret(memory + page - 1);
  EXPECT_EQ(flags(), Shielded() + ",,");
  UnshieldSecret(memory + 10);
  EXPECT_EQ(flags(), ",,");
  munmap(memory, 3 * page);
}

// Where the process may lock nothing, everything works all the same, and dumps leave the PIN out.
TEST_F(ShieldTest, ALimitIsNoFailure) {
  rlimit limit;
  ASSERT_EQ(getrlimit(RLIMIT_MEMLOCK, &limit), 0);
  const rlimit none = {0, limit.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_MEMLOCK, &none), 0);
  const DeviceHandle device = Load();
  EXPECT_TRUE(FlagsAt(device->pin).ends_with("dd"));  // root may lock in spite of the limit
  EXPECT_EQ(setrlimit(RLIMIT_MEMLOCK, &limit), 0);
}
