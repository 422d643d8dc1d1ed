// What a device file holds: how its text is read, and what changes write. More of the changes, text
// by text, is in the tables that results_test.cpp plays.
#include "keypair/keypair.h"
#include "store/store.h"
#include "tests/support/world.h"

#include <sstream>

class StoredTest : public ModuleTest {
 protected:
  const StoredKeypair first_ = {.certs = {"one", "two", "three"}};
  const StoredKeypair second_ = {.label = "enc", .type = -2, .key = &TestRsa()};
  // With an item that the reader skips; others get one that it doesn't know.
  const std::string skipped_ = R"(["skipped",1.50,{"a":null}])";
  StoredDevice stored_ = {.keypairs = {skipped_, first_.Json(), second_.Json()}};

  std::string Text() const { return TextOf(Read("dev")); }
};

TEST_F(StoredTest, FieldsComeAsStored) {
  const DeviceHandle device = Load(stored_.File(0xfffefdfc), nullptr);
  std::string want =
      "0123456789 abc pin - refs 3 tag 4294901244 " + Path("dev") + " " + Path("dev.bak") + "\n";
  for (const StoredKeypair& k : {first_, second_}) {
    want += k.label == "sign" ? "0 sign 1 4 256" : "1 enc 4294967294 1 2048";
    want += " 0 0 1 " + Hex(k.key->publicKey) + " " + Hex(k.salt) + " " + Hex(k.iv) + " " +
            Hex(Seal(k.key->pair, PIN, k.salt, k.iv)) + "\n";
    for (const std::string& cert : k.certs) want += "  " + Hex(cert) + "\n";
  }
  EXPECT_EQ(Describe(*device, false), want);
  EXPECT_TRUE(device->maxKeypairs == 64 && device->keypairs[0]->maxCerts == 10);
}

TEST_F(StoredTest, EveryCheckOfTheText) {
  const std::string key = R"(["k",1,4,256,"00","00","00","00",["AAAA"]])";
  const std::string good = R"(["serial","label",[)" + key + "," + key + "]]";
  std::map<std::string, std::string> names = {
      {"ALL", good}, {"NOTHING", ""}, {"DEEP", std::string(200000, '[')}};
  for (const std::string& row : ReadRows("device_texts.txt")) {
    SCOPED_TRACE(row);
    std::istringstream words(row);
    std::string from, to, want;
    words >> from >> to >> want;
    for (std::string* word : {&from, &to})
      if (names.contains(*word)) *word = names[*word];
    Write("dev", Container(TAG, Replaced(good, from, to)));
    const SetHandle set(DeviceGetAllDevices());
    std::vector<std::string> keypairs;
    for (int i = 0; set->count == 1 && i < set->devices[0]->keypairCount; i++) {
      const Keypair& k = *set->devices[0]->keypairs[i];
      keypairs.push_back(std::to_string(static_cast<int>(k.type)) + ":" +
                         std::to_string(k.certCount) + (Json(Keypair2Json(&k)) ? "" : "!"));
    }
    EXPECT_EQ(set->count == 0 ? "none" : Array(keypairs), want);
  }
}

// A read takes the file's tag over; the whole record keeps its own, which its keys are bound to.
TEST_F(StoredTest, TheTagIsThatOfTheFileOrOfTheRecord) {
  const DeviceHandle device = Load(stored_.File());
  Write("dev", stored_.File(7));
  EXPECT_EQ(UpdateDeviceDataToFile(device.get()), 1);
  EXPECT_EQ(Read("dev").substr(0, 4), Word(TAG));
  Write("dev", "damaged");
  Write("dev.bak", stored_.File(7));
  EXPECT_EQ(DeviceCreateData(device.get(), 1, 0, 1), 1);
  EXPECT_EQ(device->fileTag, 7u);
  Write("dev", "damaged");
  Write("dev.bak", stored_.File(8));
  EXPECT_EQ(DeviceReadDataEx(device.get(), 1, 0, nullptr, 0, nullptr), -7);
  EXPECT_EQ(device->fileTag, 8u);
}

// A backup whose group can't be that of the file gives the group what everybody had.
TEST_F(StoredTest, ABackupIsNoMoreReadable) {
  const DeviceHandle device = Load();
  for (const auto& [mode, want] : {std::pair(0640, "33152"), std::pair(0644, "33188")}) {
    Write("dev", Read("dev"), static_cast<unsigned int>(mode));
    if (chown(Path("dev").c_str(), static_cast<uid_t>(-1), 12345) != 0) GTEST_SKIP() << "not root";
    WithFault({"@(fchown|fwrite)", 1, true},
              [&] { return DeviceCreateData(device.get(), 5, 0, 1); });
    EXPECT_EQ(List()["dev.bak"], want);
  }
}
