// What a device file holds: how its text is read, and what changes write. More of the changes, text
// by text, is in the tables that results_test.cpp plays.
#include "keypair/keypair.h"
#include "store/store.h"
#include "tests/support/world.h"

#include <sstream>

using StoredTest = ModuleTest;

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
