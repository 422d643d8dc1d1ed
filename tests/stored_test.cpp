// What a device file holds: how its text is read, and what is written of a whole record. What
// single changes write is with the calls that make them.
#include "keypair/keypair.h"
#include "store/inside.h"
#include "tests/support/answers.h"

#include <span>

using StoredTest = ModuleTest;
using RecordTest = AnswersTest;

TEST_F(StoredTest, EveryCheckOfTheText) {
  const std::vector<Row> rows = ReadRows("device_texts.txt");
  for (const auto& [row, at] : std::span(rows).subspan(1)) {
    SCOPED_TRACE(at);
    const size_t arrow = row.find(" => "), loads = row.find(" loads ");
    const std::string from = row.substr(0, arrow), to = row.substr(arrow + 4, loads - arrow - 4);
    Write("dev", Container(TAG, Replaced(rows[0].text, from, to)));
    const SetHandle set(DeviceGetAllDevices());
    std::vector<std::string> keypairs;
    for (int i = 0; set->count == 1 && i < set->devices[0]->keypairCount; i++) {
      const Keypair& k = *set->devices[0]->keypairs[i];
      keypairs.push_back(std::to_string(static_cast<int>(k.type)) + ":" +
                         std::to_string(k.certCount) + (Json(Keypair2Json(&k)) ? "" : "!"));
    }
    EXPECT_EQ(set->count == 0 ? "none" : Array(keypairs), row.substr(loads + 7));
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

// A keypair that is there already is stored once.
TEST_F(RecordTest, KnowsTheWholeText) {
  unsigned char* raw = nullptr;
  EXPECT_DONE(GetDeviceDataFromFile(closed_, &raw, &size_));
  const UtilBytes text(raw);
  EXPECT_EQ(Bytes(raw, size_), text_);
  for (Keypair* const k : {rsa_, p256_, sm2_}) EXPECT_DONE(AddhKeypairToFile(device_.get(), k));
  Json more(vakro_json_decode("[1]", 3));
  const Json tree(UpdateData2DeviceJson(device_.get(), more.get()));
  unsigned int length = 0;
  EXPECT_EQ(std::string(EncodeTree(tree.get(), &length).get()),
            text_.substr(0, text_.size() - 1) + ",[1]]");
}

// The whole record keeps what its keys are bound to.
TEST_F(RecordTest, HasTheTagOfTheFileReadLast) {
  const unsigned int& tag = closed_->fileTag;
  WriteText(text_, 7);
  EXPECT_WRITTEN(UpdateDeviceDataToFile(closed_));
  EXPECT_EQ(Rescan()->fileTag, TAG);
  Write("dev", "x");
  Write("dev.bak", Container(7, text_));
  EXPECT_WRITTEN(DeviceCreateData(closed_, 1, 0, 1));
  EXPECT_EQ(tag, 7u);
  EXPECT_EQ(Rescan()->fileTag, 7u);
  WriteText(text_, 8);
  EXPECT_EQ(DeviceReadDataEx(closed_, 1, 0, nullptr, 0, nullptr), -7);
  EXPECT_EQ(tag, 8u);
  WriteText(text_, 9);
  unsigned char* raw = nullptr;
  EXPECT_DONE(GetDeviceDataFromFile(closed_, &raw, &size_));
  EXPECT_EQ(tag, 9u);
  vakro_free(raw);
}

TEST_F(RecordTest, IsWrittenWithTheDataObjectsWhateverTheyAreAndNoFurtherItem) {
  const std::string open = text_.substr(0, text_.size() - 1);
  WriteText(open + R"(,[[5,1,0,0,"00"],"not_an_object",{"a":[1.50]}],[7]])");
  EXPECT_CHANGE(",[7]]", "]", UpdateDeviceDataToFile(device_.get()));
  EXPECT_REFUSED(0, UpdateDeviceDataToFile(nullptr));
  WriteText(Replaced(text_, R"("abc")", R"("other")"));  // not the names in the file
  EXPECT_WRITTEN(UpdateDeviceDataToFile(device_.get()));
  EXPECT_EQ(TextOf(Read("dev")), text_);
}

// The function of the store writes the record; that no other's keypair is lost is seen to by the
// call in front of it.
TEST_F(RecordTest, IsWrittenWhateverKeypairsTheFileHolds) {
  WriteText(Replaced(text_, "[[", R"([["unknown",1,4,256,"00","00","00","00",[]],[)"));
  EXPECT_REFUSED(0, DeviceChangePwd(device_.get(), 1, PIN, "new", nullptr));
  EXPECT_WRITTEN(UpdateDeviceDataToFile(device_.get()));
  EXPECT_EQ(TextOf(Read("dev")), text_);
}
