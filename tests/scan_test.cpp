// The folder scan: what it loads, restores and removes, and what it leaves alone.
#include "tests/support/world.h"

#include <sys/stat.h>
#include <filesystem>

class ScanTest : public ModuleTest {
 protected:
  const std::string new_ = StoredDevice{.label = "new"}.File();
  const std::string old_ = StoredDevice{.label = "old"}.File();

  // The labels that a scan finds, in order.
  static std::string Scan(const Fault& fault = {.nth = 0}) {
    const SetHandle set(WithFault(fault, DeviceGetAllDevices));
    std::string labels = set ? "" : "NULL";
    for (int i = 0; i < DeviceGetDeviceCount(set.get()); i++)
      labels += std::string(set->devices[i]->label) + " ";
    return labels;
  }
  // d is damaged, - missing, anything else whole.
  static std::string Content(char state, const std::string& good) {
    return state == '-' ? "" : state == 'd' ? Flipped(good, 20) : good;
  }
  void Put(const std::string& name, const std::string& content) const {
    remove(Path(name).c_str());
    if (!content.empty()) Write(name, content);
  }
};

TEST_F(ScanTest, DeviceFileAndBackupInEveryState) {
  const struct {
    const char *before, *labels, *after;
  } cases[] = {{"nn", "new ", "n-"}, {"nd", "new ", "n-"}, {"n-", "new ", "n-"},
               {"do", "old ", "o-"}, {"dd", "", "dd"},     {"d-", "", "d-"},
               {"-o", "old ", "o-"}, {"-d", "", "-d"},     {"--", "", "--"}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.before);
    Put("dev", Content(c.before[0], new_));
    Put("dev.bak", Content(c.before[1], old_));
    for (const char* labels : {c.labels, c.labels}) {  // a second scan finds the same
      EXPECT_EQ(Scan(), labels);
      EXPECT_TRUE(Read("dev") == Content(c.after[0], c.after[0] == 'o' ? old_ : new_));
      EXPECT_TRUE(Read("dev.bak") == Content(c.after[1], old_));
    }
  }
}

TEST_F(ScanTest, ARestoreKeepsModeAndPaths) {
  for (const char* broken : {"none", "rename"}) {
    SCOPED_TRACE(broken);
    remove(Path("dev").c_str());
    Write("dev.bak", old_, 0640);
    const auto before = List()["dev.bak"];
    const SetHandle set(WithFault({.name = broken}, DeviceGetAllDevices));
    EXPECT_EQ(set->devices[0]->filePath, Path("dev"));
    EXPECT_EQ(set->devices[0]->backupPath, Path("dev.bak"));
    EXPECT_TRUE(List()["dev"] == before && List().size() == 1);
  }
}

TEST_F(ScanTest, AStaleBackupThatStaysIsSkipped) {
  Write("dev", new_);
  Write("dev.bak", old_);
  EXPECT_EQ(Scan({.name = "remove|unlink", .andLater = true}), "new ");
  EXPECT_TRUE(Read("dev") == new_);
}

TEST_F(ScanTest, OnlyFilesCountAndNoneStopsTheScan) {
  Write("a", new_);
  Write("b", Flipped(new_, 30));
  Write("c", "");
  Write("d", "x");
  Write("e", Word(1) + Word(0xffffffc0));
  Write(".bak", old_);
  for (const char* folder : {"folder", "a.bak", "x.bak"})
    ASSERT_EQ(mkdir(Path(folder).c_str(), 0700), 0);
  ASSERT_EQ(mkfifo(Path("pipe").c_str(), 0600), 0);
  ASSERT_EQ(symlink("nowhere", Path("link").c_str()), 0);
  EXPECT_EQ(string_endwiths(&"x.bak"[2], ".bak"), 0) << "read before the text";
  EXPECT_EQ(Scan(), "new ");
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder_), {}), 11);
}

TEST_F(ScanTest, SeventyDevicesOfLongNamesGiveSixtyFour) {
  const std::string name(250, 'n');
  for (int i = 0; i < 10; i++) Write(name + std::to_string(i) + ".bak", old_);
  const SetHandle restored(DeviceGetAllDevices());
  EXPECT_EQ(DeviceGetDeviceCount(restored.get()), 10);
  for (int i = 10; i < 70; i++) Write(name + std::to_string(i), new_);
  Write("orphan.bak", old_);
  const SetHandle set(DeviceGetAllDevices());
  EXPECT_EQ(DeviceGetDeviceCount(set.get()), 64);
  EXPECT_TRUE(Exists("orphan.bak"));
}

TEST_F(ScanTest, AFolderThatCannotBeListedGivesNull) {
  for (const char* name : {"opendir", "readdir", "vakro_malloc"})
    EXPECT_EQ(Scan({.name = name}), "NULL") << name;
  EXPECT_EQ(Scan(), "");
  ASSERT_EQ(rmdir(folder_.c_str()), 0);
  EXPECT_EQ(Scan(), "NULL");
}

TEST_F(ScanTest, EveryScanMakesItsOwnRecords) {
  const DeviceHandle first = Load(new_), second = Rescan();
  EXPECT_NE(first, second);
  EXPECT_EQ(second->pin, nullptr);
}
