// Recovery from the backup and the rewrite of a whole record: what the sweep of faults does not
// show. Every step that may fail is its part.
#include "store/store.h"
#include "tests/support/world.h"

class RewriteTest : public ModuleTest {
 protected:
  const StoredDevice stored_ = {.more = {Array({StoredData(5, "value")})}};
  const std::string good_ = stored_.File();
  const std::string retagged_ = Container(0xaabbccdd, stored_.Json());
};

TEST_F(RewriteTest, TheTextComesFromTheFileOrElseTheBackup) {
  const DeviceHandle device = Load(good_);
  const std::string damaged = Flipped(good_, 50);
  const struct {
    std::string file, backup;  // "" is missing
    std::string fileAfter, backupAfter;
  } cases[] = {
      {good_, retagged_, good_, retagged_},  // a stale backup
      {"", retagged_, retagged_, ""},
      {damaged, retagged_, retagged_, ""},
      {damaged, "", damaged, ""},
      {damaged, damaged, damaged, damaged},
      {"", "", "", ""},
  };
  for (const auto& c : cases) {
    for (const auto& [name, content] : {std::pair{"dev", c.file}, std::pair{"dev.bak", c.backup}}) {
      remove(Path(name).c_str());
      if (!content.empty()) Write(name, content);
    }
    unsigned char* text = nullptr;
    unsigned int length = 0;
    const bool readable = c.fileAfter == good_ || c.fileAfter == retagged_;
    EXPECT_EQ(GetDeviceDataFromFile(device.get(), &text, &length), readable ? 1 : 0);
    const UtilBytes owned(text);
    EXPECT_EQ(Bytes(text, length), readable ? stored_.Json() : "");
    EXPECT_TRUE(Read("dev") == c.fileAfter && Read("dev.bak") == c.backupAfter);
    EXPECT_TRUE(!readable || Word(device->fileTag) == c.fileAfter.substr(0, 4));
  }
}

TEST_F(RewriteTest, KeepsTheMode) {
  const DeviceHandle device = Load(good_);
  for (const unsigned int mode : {0600u, 0640u}) {
    Write("dev", good_, mode);
    const std::string before = List()["dev"].substr(0, 5);
    EXPECT_EQ(DeviceDeleteData(device.get(), 5), 1);
    EXPECT_EQ(List()["dev"].substr(0, 5), before);
    EXPECT_FALSE(Exists("dev.bak"));
  }
}

// A backup whose group can't be that of the file gives the group what everybody had.
TEST_F(RewriteTest, ABackupIsNoMoreReadable) {
  const DeviceHandle device = Load(good_);
  for (const auto& [mode, want] : {std::pair(0640, "33152"), std::pair(0644, "33188")}) {
    Write("dev", good_, static_cast<unsigned int>(mode));
    if (chown(Path("dev").c_str(), static_cast<uid_t>(-1), 12345) != 0) GTEST_SKIP() << "not root";
    WithFault({"fchown|fwrite", 1, true}, [&] { return DeviceDeleteData(device.get(), 5); });
    EXPECT_EQ(List()["dev.bak"], want);
  }
}

TEST_F(RewriteTest, AnItemIsPutBackWithoutABackup) {
  const DeviceHandle device = Load();
  const auto update = [&] { return UpdateKeypairToFile(device->keypairs[0]); };
  Refuses(0, device.get(), [&] { return WithFault({"fwrite", 3}, update); });
  EXPECT_EQ(update(), 1);
}

// With the record's names and tag, which its keys are bound to, whatever the file says meanwhile.
TEST_F(RewriteTest, TheWholeRecordKeepsTheDataObjects) {
  StoredDevice stored = stored_;
  stored.more = {R"([[5,5,0,0,"76616c7565"],"not an object",{"a":[1.50]}])", "[7]"};
  const DeviceHandle device = Load(stored.File());
  Write("dev", Container(0xaabbccdd, stored.Json()));
  snprintf(device->label, sizeof(device->label), "other");
  stored.label = "other";
  stored.more.pop_back();
  EXPECT_EQ(UpdateDeviceDataToFile(device.get()), 1);
  EXPECT_EQ(TextOf(Read("dev")), stored.Json());
  EXPECT_EQ(Read("dev").substr(0, 4), Word(TAG));
}

TEST_F(RewriteTest, TheWholeRecordIsRefused) {
  Refuses(0, nullptr, [] { return UpdateDeviceDataToFile(nullptr); });
  const DeviceHandle empty = Load(StoredDevice{.keypairs = {}}.File());
  Refuses(0, empty.get(), [&] { return UpdateDeviceDataToFile(empty.get()); });
  const DeviceHandle device = Load(good_);
  StoredDevice more = stored_;
  more.keypairs.push_back(StoredKeypair{.label = "unknown"}.Json());
  Write("dev", more.File());
  Refuses(0, device.get(), [&] { return UpdateDeviceDataToFile(device.get()); });
}
