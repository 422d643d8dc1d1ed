// The folder scan: what it loads, restores and removes, and what it leaves alone.
#include "tests/support/world.h"

#include <errno.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>

class ScanTest : public ModuleTest {
 protected:
  const std::string new_ = StoredDevice{.label = "new"}.File();
  const std::string old_ = StoredDevice{.label = "old"}.File();

  // The labels that a scan finds, in order.
  static std::string Labels(const DeviceSet* set) {
    std::string labels;
    for (int i = 0; i < DeviceGetDeviceCount(const_cast<DeviceSet*>(set)); i++)
      labels += std::string(set->devices[i]->label) + " ";
    return labels;
  }
  static std::string Scan(const Fault& fault = {.nth = 0}) {
    const SetHandle set(WithFault(fault, DeviceGetAllDevices));
    return set ? Labels(set.get()) : "NULL";
  }
  void Put(const std::string& name, char state, const std::string& good) {
    remove(Path(name).c_str());
    if (state != '-') Write(name, state == 'v' ? good : Flipped(good, 20));
  }
};

// v is valid, d damaged, - missing.
TEST_F(ScanTest, DeviceFileAndBackupInEveryState) {
  const struct {
    char file, backup;
    const char* labels;
    char fileAfter, backupAfter;  // n the new content, o the old, d damaged, - missing
  } cases[] = {
      {'v', 'v', "new ", 'n', '-'}, {'v', 'd', "new ", 'n', '-'}, {'v', '-', "new ", 'n', '-'},
      {'d', 'v', "old ", 'o', '-'}, {'d', 'd', "", 'd', 'd'},     {'d', '-', "", 'd', '-'},
      {'-', 'v', "old ", 'o', '-'}, {'-', 'd', "", '-', 'd'},     {'-', '-', "", '-', '-'},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string("file ") + c.file + " backup " + c.backup);
    Put("dev", c.file, new_);
    Put("dev.bak", c.backup, old_);
    const std::string damaged = Read("dev");
    const std::string damagedBackup = Read("dev.bak");
    const auto content = [&](char state, const std::string& asItWas) {
      return state == 'n' ? new_ : state == 'o' ? old_ : state == 'd' ? asItWas : std::string();
    };
    const SetHandle set(DeviceGetAllDevices());
    EXPECT_EQ(Labels(set.get()), c.labels);
    if (set->count == 1) {
      EXPECT_EQ(set->devices[0]->filePath, Path("dev"));
      EXPECT_EQ(set->devices[0]->backupPath, Path("dev.bak"));
    }
    EXPECT_TRUE(Read("dev") == content(c.fileAfter, damaged));
    EXPECT_TRUE(Read("dev.bak") == content(c.backupAfter, damagedBackup));
    EXPECT_EQ(Scan(), c.labels) << "a second scan finds the same";
  }
}

TEST_F(ScanTest, ARestoreKeepsTheMode) {
  for (const char* broken : {"none", "rename"}) {
    SCOPED_TRACE(broken);
    remove(Path("dev").c_str());
    Write("dev.bak", old_, 0640);
    const auto before = List()["dev.bak"];
    EXPECT_EQ(Scan({.name = broken}), "old ");
    EXPECT_TRUE(List()["dev"] == before);
    EXPECT_FALSE(Exists("dev.bak"));
  }
}

TEST_F(ScanTest, AStaleBackupThatStaysIsSkipped) {
  Write("dev", new_);
  Write("dev.bak", old_);
  EXPECT_EQ(Scan({.name = "remove|unlink", .andLater = true}), "new ");
  EXPECT_TRUE(Read("dev") == new_);
}

// A file that can't be looked at for now is neither missing nor damaged.
TEST_F(ScanTest, APassingFailureNeverLetsAnOlderBackupReplaceAGoodFile) {
  for (const bool andLater : {false, true}) {
    for (long n = 1;; n++) {
      Write("dev", new_);
      Write("dev.bak", old_);
      const long live = LiveAllocations();
      const std::string labels = Scan({.nth = n, .andLater = andLater});
      if (FaultHit() == nullptr) break;
      SCOPED_TRACE(std::string(FaultHit()) + " in call " + std::to_string(n));
      EXPECT_TRUE(labels == "new " || labels.empty() || labels == "NULL") << labels;
      EXPECT_TRUE(Read("dev") == new_);
      EXPECT_EQ(LiveAllocations(), live);
      EXPECT_EQ(Scan(), "new ");
      ASSERT_LT(n, 500);
    }
  }
  Write("dev.bak", old_);
  Scan({.name = "fopen|open", .error = EMFILE, .file = "/dev"});
  EXPECT_NE(FaultHit(), nullptr);
  EXPECT_TRUE(Read("dev") == new_);
}

TEST_F(ScanTest, AnOrphanBackupIsNeverLost) {
  for (const bool andLater : {false, true}) {
    for (const char state : {'-', 'd'}) {
      for (long n = 1;; n++) {
        Put("dev", state, new_);
        Write("dev.bak", old_);
        Scan({.nth = n, .andLater = andLater});
        if (FaultHit() == nullptr) break;
        SCOPED_TRACE(std::string(FaultHit()) + " in call " + std::to_string(n));
        EXPECT_TRUE(Read("dev") == old_ || Read("dev.bak") == old_);
        EXPECT_EQ(Scan(), "old ");
        ASSERT_LT(n, 500);
      }
    }
  }
}

TEST_F(ScanTest, OnlyFilesCountAndNoneStopsTheScan) {
  Write("a", new_);
  Write("b", Flipped(new_, 30));
  Write("c", "");
  Write("d", "x");
  Write("e", Word(1) + Word(0xffffffc0));
  Write(".bak", old_);
  ASSERT_EQ(mkdir(Path("folder").c_str(), 0700), 0);
  ASSERT_EQ(mkdir(Path("a.bak").c_str(), 0700), 0);
  ASSERT_EQ(mkdir(Path("x.bak").c_str(), 0700), 0);
  ASSERT_EQ(mkfifo(Path("pipe").c_str(), 0600), 0);
  ASSERT_EQ(symlink("nowhere", Path("link").c_str()), 0);
  const auto before = List().size();
  EXPECT_EQ(Scan(), "new ");
  EXPECT_EQ(List().size(), before);
}

TEST_F(ScanTest, SeventyDevicesGiveSixtyFour) {
  for (int i = 0; i < 70; i++) Write("dev" + std::to_string(i), new_);
  Write("orphan.bak", old_);
  const SetHandle set(DeviceGetAllDevices());
  EXPECT_EQ(DeviceGetDeviceCount(set.get()), 64);
  EXPECT_EQ(DeviceGetDevice(set.get(), 64), nullptr);
  EXPECT_EQ(DeviceGetDevice(set.get(), 0xffffffff), nullptr);
  EXPECT_TRUE(Exists("orphan.bak"));
}

TEST_F(ScanTest, LongNamesAreAllListed) {
  for (int i = 0; i < 60; i++)
    Write(std::string(250, 'n') + std::to_string(i) + (i % 2 == 0 ? "" : ".b"), new_);
  for (int i = 0; i < 10; i++) Write(std::string(250, 'b') + std::to_string(i) + ".bak", old_);
  char* files = nullptr;
  char* backups = nullptr;
  unsigned int filesLen = 0;
  unsigned int backupsLen = 0;
  ASSERT_EQ(GetAllCertificateKeyFileName(folder_.c_str(), &files, &filesLen, &backups, &backupsLen),
            1);
  EXPECT_EQ(std::count(files, files + filesLen, '\0'), 60);
  EXPECT_EQ(std::count(backups, backups + backupsLen, '\0'), 10);
  vakro_free(files);
  vakro_free(backups);
}

TEST_F(ScanTest, AFolderThatCannotBeListedGivesNull) {
  for (const char* name : {"opendir", "readdir", "vakro_malloc"}) {
    EXPECT_EQ(Scan({.name = name}), "NULL") << name;
    EXPECT_NE(FaultHit(), nullptr) << name;
  }
  EXPECT_EQ(Scan(), "");
  ASSERT_EQ(rmdir(folder_.c_str()), 0);
  EXPECT_EQ(Scan(), "NULL");
}

TEST_F(ScanTest, EveryScanMakesItsOwnRecords) {
  Write("dev", new_);
  const SetHandle first(DeviceGetAllDevices());
  const SetHandle second(DeviceGetAllDevices());
  EXPECT_NE(first->devices[0], second->devices[0]);
  EXPECT_EQ(DeviceVerifyPwd(first->devices[0], 1, PIN, nullptr), 1);
  EXPECT_EQ(second->devices[0]->pin, nullptr);
}
