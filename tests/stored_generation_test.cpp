// A keypair that is stored is made while no lock is held; what has changed meanwhile counts.
#include "tests/support/world.h"

#include <openssl/rsa.h>
#include <thread>

namespace {

class StoredGenerationTest : public ModuleTest {
 protected:
  // Generates a keypair; `meanwhile` runs while the key is being made.
  template <class Meanwhile>
  int Generate(const Meanwhile& meanwhile) {
    bool ran = false;
    const auto ask = [&](const ImportCall& call) {
      if (call.name == "EC_KEY_generate_key" && !std::exchange(ran, true)) meanwhile();
      return 0;
    };
    const Hook hook{ask};
    const ECCKeypairParams p256 = {CURVE_P256, 0};
    Keypair* made = nullptr;
    const int result =
        DeviceGenerateKeypair(device_.get(), ALGORITHM_ECC, 256, &p256, 9, "new", &made);
    EXPECT_TRUE(ran);
    EXPECT_EQ(made != nullptr, result == 1);
    made_.reset(made);
    return result;
  }

  DeviceHandle device_ = Load();
  KeypairHandle made_;
};

}  // namespace

TEST_F(StoredGenerationTest, NobodyWaitsForTheKey) {
  const auto others = [] {
    EXPECT_EQ(DeviceLockDevice(nullptr), 1);  // it would wait for good
    EXPECT_EQ(DeviceUnlockDevice(nullptr), 1);
  };
  EXPECT_EQ(Generate([&] { std::thread(others).join(); }), 1);
  EXPECT_EQ(device_->refCount, 4U) << "two keypairs and their handles";
}

TEST_F(StoredGenerationTest, WhatHasChangedMeanwhileCounts) {
  struct {
    const char* what;
    int want;
    std::function<void()> meanwhile;
  } const rows[] = {
      {"type and label are taken", -6, [&] { Import(device_.get(), TestSm2().pair); }},
      {"the device is full", 0, [&] { device_->maxKeypairs = device_->keypairCount; }},
      {"no PIN any more", -8, [&] { FreePin(device_.get()); }},
      {"another PIN", 1,
       [&] { EXPECT_EQ(DeviceChangePwd(device_.get(), 1, PIN, "other", nullptr), 1); }},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    device_ = Load();
    EXPECT_EQ(Generate(row.meanwhile), row.want);
    EXPECT_EQ(device_->refCount,
              static_cast<unsigned int>(device_->keypairCount) + 1 + (row.want == 1));
  }
  EXPECT_EQ(Rescan("other")->keypairCount, 2) << "the new key stands under the new PIN";
}

TEST_F(StoredGenerationTest, TheDeviceOutlivesTheCallersHandle) {
  EXPECT_EQ(Generate([&] { DeviceFreeDevice(device_.release()); }), 1);
  EXPECT_EQ(made_->device->keypairCount, 2);
}
