// Start, stop and the lock.
#include "sm2/sm2.h"
#include "tests/support/world.h"

#include <thread>

using LifecycleTest = ModuleTest;

TEST_F(LifecycleTest, AFailedStartLeavesTheModuleStopped) {
  EXPECT_EQ(DeviceEnd(), 1);
  for (const char* name : {"vakro_lock_new", "VakroPKICryptoGetPseudoDevice", "vakro_malloc",
                           "EC_GROUP_new", "none"}) {
    SCOPED_TRACE(name);
    const long live = LiveAllocations();
    const int started = WithFault({.name = name}, DeviceInit);
    EXPECT_EQ(started, name[0] == 'E' || name[0] == 'n');  // the curve costs SM2 alone
    EXPECT_TRUE((g_lock && g_hSoftDevice && g_keyFolder) == (started == 1));
    EXPECT_EQ(g_sm2 != nullptr, name[0] == 'n');
    EXPECT_STREQ(g_keyFolder, started == 1 ? "/etc/.VAKRO/SoftwareCert/" : nullptr);
    EXPECT_EQ(DeviceEnd() & DeviceEnd(), 1);
    EXPECT_TRUE(!g_lock && !g_hSoftDevice && !g_keyFolder && !g_sm2);
    EXPECT_EQ(LiveAllocations(), live);
  }
}

TEST_F(LifecycleTest, WithoutSm2EverythingElseWorks) {
  FreeSM2Info(std::exchange(g_sm2, nullptr));
  const auto supported = [](int algorithm, int cls, const int& curve) {
    return DeviceIsSupportedAlgorithm2(nullptr, algorithm, 0, cls, &curve);
  };
  EXPECT_EQ(supported(ALGORITHM_ECC, 7, CURVE_SM2) + supported(ALGORITHM_SM2_SIGN, 5, 0) +
                supported(ALGORITHM_SM2_ENCRYPT, 2, 0x7000),
            0);
  EXPECT_EQ(supported(ALGORITHM_ECC, 7, CURVE_P256) & supported(ALGORITHM_ECDSA_SIGN, 5, 0), 1);
  const DeviceHandle device = Load();
  Keypair* keypair = nullptr;
  PublicKey* key = nullptr;
  const auto generate = [&](const ECCKeypairParams& params) {
    return DeviceGenerateKeypair(device.get(), 4, 256, &params, 9, "n", &keypair);
  };
  const std::string &pair = TestSm2().pair, &encoding = TestSm2().publicKey;
  for (const int temporary : {0, 1})
    Refuses(0, device.get(), [&] { return generate({CURVE_SM2, temporary}); });
  Refuses(0, device.get(), [&] {
    return DeviceImportKeypair(device.get(), Raw(pair), Len(pair), 9, "n", &keypair);
  });
  EXPECT_EQ(DeviceImportPublicKey(nullptr, Raw(encoding), Len(encoding), &key), 0);
  ASSERT_EQ(generate({CURVE_P256, 0}), 1);
  EXPECT_EQ(DeviceFreeKeypair(keypair), 1);
}

TEST_F(LifecycleTest, TheLockIsRecursiveAndBelongsToOneThread) {
  EXPECT_EQ(WithFault({.name = "vakro_lock_lock"}, [] { return DeviceLockDevice(nullptr); }), 0);
  EXPECT_EQ(DeviceUnlockDevice(nullptr), 0);
  EXPECT_EQ(DeviceLockDevice(nullptr) & DeviceLockDevice(nullptr), 1);
  std::thread([] { EXPECT_EQ(DeviceUnlockDevice(nullptr), 0); }).join();
  const DeviceHandle device = Load();  // takes it again
  EXPECT_EQ(DeviceUnlockDevice(nullptr) & DeviceUnlockDevice(nullptr), 1);
  EXPECT_EQ(DeviceUnlockDevice(nullptr), 0);
}
