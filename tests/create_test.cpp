// New devices: made whole and under one name each; and the anchor, which gives a device a PIN
// before it has keys. That nothing is overwritten a session with the tool shows.
#include "device/create.h"

#include "device/anchor.h"
#include "tests/support/world.h"

#include <sys/stat.h>

using CreateTest = ModuleTest;

TEST_F(CreateTest, ANewDeviceIsThereWithItsPin) {
  char* made = nullptr;
  ASSERT_EQ(CreateDevice(nullptr, "office", "1234", &made), 1);
  const UtilText path(made);
  struct stat info;
  ASSERT_EQ(stat(path.get(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0600u);
  EXPECT_EQ(List().size(), 1u) << "nothing else is left";
  const DeviceHandle device = Rescan();
  EXPECT_EQ(strlen(device->serialNumber), 16u);
  EXPECT_STREQ(device->label, "office");
  EXPECT_TRUE(FindAnchor(device.get()) != nullptr && device->refCount == 2);
  EXPECT_EQ(DeviceVerifyPwd(device.get(), 1, "1235", nullptr), VAKRO_WRONG_PIN);
  EXPECT_EQ(DeviceVerifyPwd(device.get(), 1, "1234", nullptr), 1);
}

TEST_F(CreateTest, WhereAFileCannotBeLinkedItIsWrittenUnderItsName) {
  for (const int why : {EACCES, ENOENT, EOPNOTSUPP}) {
    const Hook hook{[&](const ImportCall& call) { return call.name == "linkat" ? why : 0; }};
    EXPECT_EQ(CreateDevice(nullptr, "office", nullptr, nullptr), 1) << strerror(why);
  }
  const Hook hook{Fault{"linkat"}};
  EXPECT_EQ(CreateDevice(nullptr, "office", nullptr, nullptr), 0);
  EXPECT_EQ(List().size(), 3u);
}

TEST_F(CreateTest, WithoutAPinTheFirstOneCounts) {
  ASSERT_EQ(CreateDevice("1", "empty", nullptr, nullptr), 1);
  EXPECT_EQ(Rescan()->keypairCount, 0);
  const DeviceHandle device = Rescan();
  EXPECT_EQ(MakeAnchor(device.get(), "first"), 1);
  EXPECT_EQ(MakeAnchor(device.get(), "first"), 1) << "is there already";
  EXPECT_EQ(MakeAnchor(Rescan().get(), "second"), VAKRO_WRONG_PIN);
  EXPECT_EQ(Rescan("first")->keypairCount, 1);
}

TEST_F(CreateTest, SerialNumbersHaveAFileEach) {
  const std::string longest(63, '.');  // each of which is escaped
  for (const char* serial :
       {"1/2", "1_2", "1_2F2", "../x", ".bak", "a.bak", "-", "\xff", "A", "a", longest.c_str()}) {
    EXPECT_EQ(CreateDevice(serial, "x", nullptr, nullptr), 1) << serial;
    EXPECT_EQ(CreateDevice(serial, "x", nullptr, nullptr), VAKRO_ALREADY_EXISTS) << serial;
  }
  const SetHandle set(DeviceGetAllDevices());
  EXPECT_EQ(set->count, 11);
}
