// The folder scan: what it loads and leaves alone. What it restores and removes, and how, is the
// part of faults_test.cpp and power_cut_test.cpp.
#include "tests/support/world.h"

#include <sys/stat.h>
#include <filesystem>

using ScanTest = ModuleTest;

TEST_F(ScanTest, OnlyDevicesCountAndNothingElseIsTouched) {
  const std::string good = StoredDevice().File(), damaged = Flipped(good, 20);
  for (const char* name : {"a", ".bak"}) Write(name, good);
  for (const char* name : {"b", "c", "c.bak", "d.bak"}) Write(name, damaged);
  Write("e", "");
  Write("f", "x");
  Write("g", Word(1) + Word(0xffffffc0));
  for (const char* folder : {"folder", "a.bak", "x.bak"})
    ASSERT_EQ(mkdir(Path(folder).c_str(), 0700), 0);
  ASSERT_EQ(mkfifo(Path("pipe").c_str(), 0600), 0);
  for (const char* link : {"link", "y.bak"}) ASSERT_EQ(symlink("nowhere", Path(link).c_str()), 0);
  EXPECT_EQ(string_endwiths(&"x.bak"[2], ".bak"), 0) << "read before the text";
  const Folder before = List();
  EXPECT_EQ(Rescan()->filePath, Path("a"));
  EXPECT_TRUE(List() == before);
}

TEST_F(ScanTest, SeventyDevicesOfLongNamesGiveSixtyFour) {
  const std::string name(250, 'n'), good = StoredDevice().File();
  for (int i = 0; i < 70; i++) Write(name + std::to_string(i) + (i < 10 ? ".bak" : ""), good);
  Write("orphan.bak", good);
  EXPECT_EQ(WithFault({.name = "vakro_malloc", .nth = 4}, DeviceGetAllDevices), nullptr)
      << "the list of names grows";
  const SetHandle set(DeviceGetAllDevices());
  EXPECT_EQ(DeviceGetDeviceCount(set.get()), 64);
  EXPECT_EQ(List().size(), 71u) << "what did not fit is left alone";
}

TEST_F(ScanTest, AnEmptyFolderHasNoDevicesAndAMissingOneGivesNull) {
  EXPECT_EQ(DeviceGetDeviceCount(SetHandle(DeviceGetAllDevices()).get()), 0);
  ASSERT_EQ(rmdir(folder_.c_str()), 0);
  EXPECT_EQ(DeviceGetAllDevices(), nullptr);
}

TEST_F(ScanTest, AFolderThatCannotBeReadGivesNull) {
  Write("dev", StoredDevice().File());
  const auto fails = [&](const Fault& fault) {
    SCOPED_TRACE(fault.name + " " + std::to_string(fault.nth));
    Refuses(0, nullptr, [&] { return SetHandle(WithFault(fault, DeviceGetAllDevices)) ? 1 : 0; });
  };
  fails({"opendir"});
  fails({"readdir"});
  // Both lists of names, the set.
  for (const long nth : {1, 2, 3}) fails({"vakro_malloc", nth});
}
