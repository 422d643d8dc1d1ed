// Start, stop and the lock.
#include "tests/support/answers.h"

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

TEST_F(LifecycleTest, ASecondStartChangesNothing) {
  const std::tuple running(g_lock, g_hSoftDevice, g_keyFolder, g_sm2);
  const long live = LiveAllocations();
  EXPECT_EQ(DeviceInit(), 1);
  EXPECT_EQ(running, std::tuple(g_lock, g_hSoftDevice, g_keyFolder, g_sm2));
  EXPECT_EQ(LiveAllocations(), live);
  EXPECT_EQ(DeviceEnd(), 1);
  EXPECT_EQ(g_lock, nullptr);
}

TEST_F(LifecycleTest, TheKeyFolderIsCopiedAndEndsInASlash) {
  std::string folder = "/tmp/a";
  EXPECT_EQ(DeviceSetKeyFolder(folder.data()), 1);
  folder = "/tmp/b/";
  EXPECT_STREQ(g_keyFolder, "/tmp/a/");
  EXPECT_EQ(DeviceSetKeyFolder(folder.data()), 1);
  const auto fails = [&](const char* name) {
    EXPECT_EQ(DeviceSetKeyFolder(name), 0);
    EXPECT_STREQ(g_keyFolder, "/tmp/b/");
  };
  fails(nullptr);
  fails("");
  WithFault({.name = "vakro_malloc"}, [&] { fails("/tmp/c"); });
  EXPECT_EQ(DeviceEnd(), 1);
  EXPECT_EQ(DeviceSetKeyFolder("/tmp/c"), 0);
  EXPECT_EQ(DeviceGetAllDevices(), nullptr);
  EXPECT_EQ(g_keyFolder, nullptr);
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
