// Reading the current text, recovery from the backup, and the backed-up rewrite.
#include "store/store.h"
#include "tests/support/world.h"

#include <algorithm>

class RewriteTest : public ModuleTest {
 protected:
  const StoredDevice stored_ = {.keypairs = {StoredKeypair().Json()},
                                .more = {Array({StoredData(5, "value")})}};
  const std::string good_ = stored_.File();

  static std::string Text(Device* device) {
    unsigned char* text = nullptr;
    unsigned int length = 0;
    const int result = GetDeviceDataFromFile(device, &text, &length);
    const UtilBytes owned(text);
    return result == 1 ? Bytes(text, length) : "refused";
  }
  static int AddCert(Device* device) {
    return DeviceAddCertificate(device->keypairs[0], Raw("cert"), 4);
  }
};

TEST_F(RewriteTest, TheTextComesFromTheFileOrElseTheBackup) {
  const StoredDevice old = {.label = "old"};
  const std::string damaged = Flipped(good_, 50);
  const struct {
    const char* what;
    std::string file, backup;  // "" is missing
    std::string text;
    std::string fileAfter, backupAfter;
  } cases[] = {
      {"valid", good_, "", stored_.Json(), good_, ""},
      {"valid beside a stale backup", good_, old.File(), stored_.Json(), good_, old.File()},
      {"deleted", "", old.File(), old.Json(), old.File(), ""},
      {"damaged", damaged, old.File(), old.Json(), old.File(), ""},
      {"damaged, no backup", damaged, "", "refused", damaged, ""},
      {"both damaged", damaged, damaged, "refused", damaged, damaged},
      {"both missing", "", "", "refused", "", ""},
  };
  const DeviceHandle device = Load(good_);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    for (const auto& [name, content] : {std::pair{"dev", c.file}, std::pair{"dev.bak", c.backup}}) {
      remove(Path(name).c_str());
      if (!content.empty()) Write(name, content);
    }
    EXPECT_EQ(Text(device.get()), c.text);
    EXPECT_TRUE(Read("dev") == c.fileAfter);
    EXPECT_TRUE(Read("dev.bak") == c.backupAfter);
  }
  Write("dev", Container(0xaabbccdd, stored_.Json()));
  EXPECT_EQ(Text(device.get()), stored_.Json());
  EXPECT_EQ(device->fileTag, 0xaabbccdd);
}

TEST_F(RewriteTest, APassingFailureNeverBringsTheBackup) {
  const std::string old = StoredDevice{.label = "old"}.File();
  const DeviceHandle device = Load(good_);
  for (long n = 1;; n++) {
    Write("dev.bak", old);
    const std::string text = WithFault({.nth = n}, [&] { return Text(device.get()); });
    if (FaultHit() == nullptr) break;
    SCOPED_TRACE(FaultHit());
    EXPECT_TRUE(text == "refused" || text == stored_.Json());
    EXPECT_TRUE(Read("dev") == good_);
    ASSERT_LT(n, 100);
  }
}

TEST_F(RewriteTest, EachStepOfTheRewriteIsChecked) {
  const DeviceHandle device = Load(good_);
  const Fault faults[] = {
      {.name = "vakro_json_encode"},
      {.name = "VakroPKICryptoNewHash"},
      {.name = "fopen"},
      {.name = "open", .file = "/dev.bak"},
      {.name = "fwrite"},
      {.name = "open", .file = "/dev"},
      {.name = "fflush"},
      {.name = "fdatasync|fsync"},
  };
  for (const Fault& fault : faults) {
    SCOPED_TRACE(fault.name);
    Refuses(0, device.get(), [&] {
      const int added = WithFault(fault, [&] { return AddCert(device.get()); });
      remove(Path("dev.bak").c_str());
      return added;
    });
    EXPECT_NE(FaultHit(), nullptr);
  }
  ASSERT_EQ(remove(Path("dev").c_str()), 0);
  Refuses(0, device.get(), [&] { return AddCert(device.get()); });
}

TEST_F(RewriteTest, ARewriteKeepsModeAndRemovesTheBackup) {
  const DeviceHandle device = Load(good_);
  for (const unsigned int mode : {0600u, 0640u}) {
    Write("dev", Read("dev"), mode);
    const std::string before = List()["dev"].substr(0, 5);
    EXPECT_EQ(AddCert(device.get()), 1);
    EXPECT_EQ(List()["dev"].substr(0, 5), before);
    EXPECT_FALSE(Exists("dev.bak"));
    // A backup that stays behind is no more readable than the file.
    WithFault({.name = "fwrite", .nth = 2, .andLater = true},
              [&] { return AddCert(device.get()); });
    if (Exists("dev.bak")) {
      EXPECT_EQ(List()["dev.bak"].substr(0, 5), before);
    }
    EXPECT_EQ(Text(device.get()).empty(), false);
  }
}

TEST_F(RewriteTest, TheWholeRecordIsWrittenAndTheDataObjectsKept) {
  const std::string weird = R"([[5,5,0,0,"76616c7565"],"not an object",{"a":[1.50]}])";
  StoredDevice stored = {.keypairs = {StoredKeypair().Json(), StoredKeypair{.type = 2}.Json()},
                         .more = {weird}};
  const DeviceHandle device = Load(stored.File());
  snprintf(device->label, sizeof(device->label), "other");
  stored.label = "other";
  EXPECT_EQ(UpdateDeviceDataToFile(device.get()), 1);
  EXPECT_EQ(TextOf(Read("dev")), stored.Json());
  EXPECT_EQ(Read("dev").substr(0, 4), Word(TAG));
  EXPECT_FALSE(Exists("dev.bak"));
}

// Its keys are bound to the tag of the record; the tag of the file changed meanwhile.
TEST_F(RewriteTest, TheWholeRecordIsWrittenWithTheTagOfItsKeys) {
  const DeviceHandle device = Load(good_);
  Write("dev", Container(0xaabbccdd, stored_.Json()));
  EXPECT_EQ(DeviceChangePwd(device.get(), 1, PIN, "new", nullptr), 1);
  EXPECT_NE(Rescan("new"), nullptr);
}

TEST_F(RewriteTest, TheWholeRecordIsRefused) {
  {
    const DeviceHandle empty = Load(StoredDevice{.keypairs = {}}.File());
    Refuses(0, empty.get(), [&] { return UpdateDeviceDataToFile(empty.get()); });
  }
  const DeviceHandle device = Load(good_);
  StoredDevice more = stored_;
  more.keypairs.push_back(StoredKeypair{.label = "unknown"}.Json());
  Write("dev", more.File());
  Refuses(0, device.get(), [&] { return UpdateDeviceDataToFile(device.get()); });
  Refuses(0, nullptr, [] { return UpdateDeviceDataToFile(nullptr); });
}
