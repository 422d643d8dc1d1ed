// References: when a device is freed, as sequences of calls.
#include "tests/support/world.h"

using ReferencesTest = ModuleTest;

// A letter a call, then the device's count after it, "-" when it is gone by then: d and k take a
// device and a keypair handle, D and K give one back, S gives the set back, g generates a keypair
// and keeps its handle, x deletes the keypair of the last handle.
TEST_F(ReferencesTest, DecideWhenADeviceDies) {
  const struct {
    const char* what;
    int keypairs;
    std::string steps;
  } cases[] = {
      {"no keypairs: the set alone", 0, "S-"},
      {"a device handle outlives the set", 3, "d5 S4 D-"},
      {"a keypair handle keeps the device", 3, "d5 k6 D5 S4 K-"},
      {"two handles of one keypair", 1, "k3 k4 S3 K2 K-"},
      {"a new keypair adds two", 1, "g4 K3 S-"},
      {"a deletion takes two away", 2, "k4 x2 K2 S-"},
      {"made, then deleted", 1, "g4 x2 K2 S-"},
      {"deleted through the last reference", 1, "k3 S2 x- K-"},
  };
  const ECCKeypairParams p256 = {CURVE_P256, 0};
  for (const auto& c : cases) {
    StoredDevice stored = {.keypairs = {}};
    for (int i = 1; i <= c.keypairs; i++)
      stored.keypairs.push_back(StoredKeypair{.type = i}.Json());
    Write("dev", stored.File());
    const long live = LiveAllocations();
    DeviceSet* const set = DeviceGetAllDevices();
    Device* const device = set->devices[0];
    ASSERT_EQ(DeviceVerifyPwd(device, 1, PIN, nullptr), 1);
    Keypair* keypair = nullptr;
    const auto call = [&](char letter) {
      if (letter == 'd') return DeviceGetDevice(set, 0) == device;
      if (letter == 'D') return DeviceFreeDevice(device) == 1;
      if (letter == 'k') return (keypair = DeviceGetKeypair(device, 0)) != nullptr;
      if (letter == 'K') return DeviceFreeKeypair(keypair) == 1;
      if (letter == 'S') return DeviceFreeDevices(set) == 1;
      if (letter == 'x') return DeviceDeleteKeypair(keypair) == 1;
      return DeviceGenerateKeypair(device, 4, 256, &p256, 9, "n", &keypair) == 1;
    };
    for (size_t i = 0; i < c.steps.size(); i += 3) {
      SCOPED_TRACE(std::string(c.what) + ": " + c.steps.substr(0, i + 2));
      EXPECT_TRUE(call(c.steps[i]));
      const char count = c.steps[i + 1];
      EXPECT_TRUE(count == '-' || device->refCount == static_cast<unsigned int>(count - '0'));
    }
    EXPECT_EQ(LiveAllocations(), live) << c.what;
  }
}
