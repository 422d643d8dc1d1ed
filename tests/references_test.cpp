// References: when a device is freed, as sequences of calls.
#include "tests/support/world.h"

using ReferencesTest = ModuleTest;

// A letter a call, then the device's count after it, "-" when it is gone by then: d and k take a
// device and a keypair handle, D and K give one back, S gives the set back, g generates a keypair
// and keeps its handle, x deletes the keypair of the last handle.
TEST_F(ReferencesTest, DecideWhenADeviceDies) {
  const std::pair<int, std::string> cases[] = {
      {0, "S-"},              // no keypairs: the set alone
      {3, "d5 S4 D-"},        // a device handle outlives the set
      {3, "d5 k6 D5 S4 K-"},  // a keypair handle keeps the device
      {1, "k3 k4 S3 K2 K-"},  // two handles of one keypair
      {1, "g4 K3 S-"},        // a new keypair adds two
      {2, "k4 x2 K2 S-"},     // a deletion takes two away
      {1, "g4 x2 K2 S-"},     // made, then deleted
      {1, "k3 S2 x- K-"},     // deleted through the last reference
  };
  const ECCKeypairParams p256 = {CURVE_P256, 0};
  for (const auto& [keypairs, steps] : cases) {
    StoredDevice stored = {.keypairs = {}};
    for (int i = 1; i <= keypairs; i++) stored.keypairs.push_back(StoredKeypair{.type = i}.Json());
    Write("dev", stored.File());
    const long live = LiveAllocations();
    DeviceSet* const set = DeviceGetAllDevices();
    Device* const device = set->devices[0];
    ASSERT_EQ(DeviceVerifyPwd(device, 1, PIN, nullptr), 1);
    Keypair* keypair = nullptr;
    const std::map<char, std::function<bool()>> calls = {
        {'d', [&] { return DeviceGetDevice(set, 0) == device; }},
        {'D', [&] { return DeviceFreeDevice(device) == 1; }},
        {'k', [&] { return (keypair = DeviceGetKeypair(device, 0)) != nullptr; }},
        {'K', [&] { return DeviceFreeKeypair(keypair) == 1; }},
        {'S', [&] { return DeviceFreeDevices(set) == 1; }},
        {'x', [&] { return DeviceDeleteKeypair(keypair) == 1; }},
        {'g', [&] { return (keypair = Generate(device, 4, 256, &p256).release()) != nullptr; }}};
    for (size_t i = 0; i < steps.size(); i += 3) {
      SCOPED_TRACE(std::to_string(keypairs) + " keypairs: " + steps.substr(0, i + 2));
      EXPECT_TRUE(calls.at(steps[i])());
      const char count = steps[i + 1];
      EXPECT_TRUE(count == '-' || device->refCount == static_cast<unsigned int>(count - '0'));
    }
    EXPECT_EQ(LiveAllocations(), live) << steps;
  }
}
