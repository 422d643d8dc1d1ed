// A change of one file in one breath: what the caller edits is written, everything else in the file
// stays, whatever others have stored in the meantime.
#include "device/change.h"
#include "keypair/keypair.h"
#include "tests/support/world.h"

class ChangeTest : public ModuleTest {
 protected:
  static Keypair* First(const DeviceChange& change) { return change.device->keypairs[0]; }

  const std::string unreadable_ = R"(["too","short"])";
  // Two keypairs, between them one that the reader passes over; data objects, and an item that
  // nobody knows.
  const std::string text_ = [this] {
    std::string text =
        StoredDevice{.keypairs = {StoredKeypair{.certs = {"one"}}.Json(), unreadable_,
                                  StoredKeypair{.label = "RSA", .key = &TestRsa()}.Json()}}
            .Json();
    text.back() = ',';
    return text + R"([[5,1,0,0,"00"]],"unknown"])";
  }();
  const DeviceHandle device_ = Load(Container(TAG, text_));
  const std::string path_ = Path("dev");
};

TEST_F(ChangeTest, WritesWhatWasEditedAndKeepsTheRest) {
  EXPECT_EQ(DeviceAddCertificate(device_->keypairs[1], Raw("two"), 3), 1);  // the record is older
  const std::string start = TextOf(Read("dev"));
  DeviceChange change;
  ASSERT_EQ(BeginChange(path_.c_str(), change), 1);
  EXPECT_EQ(TakeOverKeys(change.device, device_.get()), 1);
  EXPECT_EQ(change.device->keypairs[1]->privateKey, device_->keypairs[1]->privateKey);
  strcpy(First(change)->label, "renamed");
  strcpy(change.device->label, "xyz");
  First(change)->certs[First(change)->certCount++] = NewCert(Raw("three"), 5);
  ASSERT_EQ(CommitChange(change), 1);
  const DeviceHandle fresh(TakeRecord(change));
  EXPECT_EQ(TextOf(Read("dev")),
            Replaced(Replaced(Replaced(start, R"("abc")", R"("xyz")"), R"("sign")", R"("renamed")"),
                     R"("b25l")", R"("b25l","dGhyZWU=")"));
  EXPECT_EQ(Describe(*Rescan(PIN), false), Describe(*fresh, false));
}

TEST_F(ChangeTest, DeletesAKeypairBesideDataObjects) {
  DeviceChange change;
  ASSERT_EQ(BeginChange(path_.c_str(), change), 1);
  const OwnedKeypair deleted(change.device->keypairs[1]);
  DeleteKeypairFromDevice(change.device, deleted.get());
  EXPECT_EQ(CommitChange(change), 1);
  const std::string rsa = StoredKeypair{.label = "RSA", .key = &TestRsa()}.Json();
  EXPECT_EQ(TextOf(Read("dev")), Replaced(text_, "," + rsa, ""));
}

TEST_F(ChangeTest, RefusesWhatTheFileCannotHold) {
  for (const bool isCommitted : {true, false}) {
    DeviceChange change;
    ASSERT_EQ(BeginChange(path_.c_str(), change), 1);
    memcpy(First(change)->label, "RSA", 4);
    if (isCommitted) {
      EXPECT_EQ(CommitChange(change), VAKRO_ALREADY_EXISTS);
    }
  }
  DeviceChange change;
  EXPECT_EQ(BeginChange(Path("none").c_str(), change), 0);
  EXPECT_EQ(TextOf(Read("dev")), text_);
}

TEST_F(ChangeTest, KeysAreTakenOverOrDecryptedAnew) {
  Device* loaded = nullptr;
  ASSERT_EQ(LoadDevice(path_.c_str(), &loaded), 1);
  const OwnedDevice fresh(loaded);
  const OwnedDevice unverified([&] { return LoadDevice(path_.c_str(), &loaded), loaded; }());
  EXPECT_EQ(TakeOverKeys(fresh.get(), unverified.get()), -8);
  EXPECT_EQ(DeviceChangePwd(device_.get(), 1, PIN, "new", nullptr), 1);
  EXPECT_EQ(TakeOverKeys(fresh.get(), device_.get()), -5) << "it still stands under the old PIN";
  EXPECT_EQ(fresh->pin, nullptr);
  ASSERT_EQ(LoadDevice(path_.c_str(), &loaded), 1);
  const OwnedDevice newer(loaded);
  EXPECT_EQ(TakeOverKeys(newer.get(), device_.get()), 1);
  EXPECT_STREQ(newer->pin, "new");
  EXPECT_EQ(LoadDevice(Path("none").c_str(), &loaded), 0);
}
