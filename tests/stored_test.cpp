// What a device file holds: how its text is read, and what is written of a whole record. What
// single changes write is with the calls that make them.
#include "keypair/keypair.h"
#include "store/inside.h"
#include "tests/support/answers.h"

using StoredTest = ModuleTest;
using RecordTest = AnswersTest;

// What a load makes of a device's text when one piece of it is replaced: type and number of
// certificates of each keypair that is loaded, "!" if it can't be stored so.
TEST_F(StoredTest, EveryCheckOfTheText) {
  const std::string key = R"(["k",1,4,256,"00","00","00","00",["AAAA"]])";
  const std::string good = R"(["serial","label",[)" + key + "," + key + "]]";
  const auto name = [](size_t length) { return '"' + std::string(length, 'n') + '"'; };
  const struct {
    std::string from, to, want;
  } rows[] = {
      {good, good, "[1:1,1:1]"},
      {good, "", "none"},
      {good, "[", "none"},
      {good, "{}", "none"},
      {good, R"("abc")", "none"},
      {good, std::string(200000, '['), "none"},
      {good, R"(["serial","label"])", "none"},
      {"]]]]", "]]]]x", "none"},
      {"]]]]", "]]],0]", "[1:1,1:1]"},
      {R"("serial")", name(63), "[1:1,1:1]"},
      {R"("serial")", name(64), "none"},
      {R"("serial")", "5", "none"},
      {R"("label")", name(63), "[1:1,1:1]"},
      {R"("label")", name(64), "none"},
      {R"("label")", "[]", "none"},
      {"[" + key + "," + key + "]", R"("")", "none"},
      {"[" + key + "," + key + "]", "[]", "[]"},
      {key, "5", "[1:1]"},
      {key, "null", "[1:1]"},
      {key, R"({"k":1})", "[1:1]"},
      {R"(,["AAAA"]])", "]", "[1:1]"},
      {R"(["AAAA"]])", R"(["AAAA"],0])", "[1:1]"},
      {R"("k")", name(63), "[1:1,1:1]"},
      {R"("k")", name(64), "[1:1]"},
      {R"("k")", "1", "[1:1]"},
      {R"("k")", R"("a\u0000b")", "[1:1,1:1]"},
      {"1,4,256", R"("1",4,256)", "[1:1]"},
      {"1,4,256", "1,null,256", "[1:1]"},
      {"1,4,256", "1,4,true", "[1:1]"},
      {"1,4,256", "1.9,4,256", "[1:1,1:1]"},
      {"1,4,256", "4294967297,4,256", "[2147483647:1,1:1]"},
      {"1,4,256", "-1.9,4,256", "[-1:1,1:1]"},
      {"1,4,256", "2147483647,4,256", "[2147483647:1,1:1]"},
      {"1,4,256", "-2147483648,4,256", "[-2147483648:1,1:1]"},
      {"1,4,256", "-1e99,4,256", "[-2147483648:1,1:1]"},
      {R"("00")", R"("000")", "[1:1]"},
      {R"("00")", R"("0g")", "[1:1]"},
      {R"("00")", "0", "[1:1]"},
      {R"("00")", R"("")", "[1:1!,1:1]"},
      {R"("00","00","00",[)", R"("","00","00",[)", "[1:1!,1:1]"},
      {R"("00","00",[)", R"("","00",[)", "[1:1!,1:1]"},
      {R"("00",[)", R"("",[)", "[1:1!,1:1]"},
      {"1,4,256", "0,4,256", "[0:1!,1:1]"},
      {R"("00")", R"("AF")", "[1:1,1:1]"},
      {R"("00",[)", "7,[", "[1:1]"},
      {R"(["AAAA"])", R"("AAAA")", "[1:1]"},
      {R"(["AAAA"])", R"(["AAAA","AAAA","AAAA","AAAA","AAAA","AAAA","AAAA","AAAA","AAAA","AAAA"])",
       "[1:10,1:1]"},
      {R"(["AAAA"])",
       R"(["AAAA","AAAA","AAAA","AAAA","AAAA","AAAA","AAAA","AAAA","AAAA","AAAA","AAAA"])",
       "[1:1]"},
      {R"("AAAA")", R"("AAAA",5,null,"AAAA")", "[1:2,1:1]"},
      {R"("AAAA")", R"("AAA","****")", "[1:0,1:1]"},
  };
  for (const auto& [from, to, want] : rows) {
    SCOPED_TRACE(from.substr(0, 80) + " becomes " + to.substr(0, 80));
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

TEST_F(RecordTest, TakesEverythingFromTheFile) {
  WriteText(Replaced(text_, R"([]],["sign",2,4)", R"(["b25l","dHdv","dGhyZWU="]],["second",-2,4)"),
            0xfffefdfc);
  const DeviceHandle d = Rescan();
  EXPECT_EQ(d->fileTag, 0xfffefdfc);
  EXPECT_EQ(d->refCount, 4u);
  const Keypair& first = *d->keypairs[0];
  EXPECT_TRUE(first.algorithm == 1 && first.bits == 2048 && first.certCount == 3);
  for (const auto& [i, cert] : {std::pair(0, "one"), {1, "two"}, {2, "three"}})
    EXPECT_EQ(Bytes(first.certs[i]->data, first.certs[i]->length), cert);
  EXPECT_EQ(Bytes(first.publicKey, first.publicKeyLen), TestRsa().publicKey);
  const Keypair& second = *d->keypairs[1];
  EXPECT_TRUE(second.label == std::string("second") && second.type == static_cast<unsigned>(-2));
  EXPECT_TRUE(second.algorithm == 4 && second.bits == 256 && second.certCount == 0);
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
