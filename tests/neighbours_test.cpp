// Several processes change one device file, and records grow old. A record that was loaded by
// itself stands for another process: nothing that one has been told is done is undone by the
// other, and nothing is reported as done that is not.
#include "device/change.h"
#include "tests/support/calls.h"

#include <fcntl.h>
#include <signal.h>

class NeighboursTest : public CallsTest {
 protected:
  static int Add(const DeviceHandle& device, const std::string& cert, int keypair = 0) {
    return DeviceAddCertificate(device->keypairs[keypair], Raw(cert), Len(cert));
  }
  static int Change(const DeviceHandle& device, const char* to, const char* from = PIN) {
    return DeviceChangePwd(device.get(), 1, from, to, nullptr);
  }
  static std::string Certs(const Device* device, int keypair = 0) {
    std::string all;
    for (int i = 0; i < device->keypairs[keypair]->certCount; i++) {
      const Cert* cert = device->keypairs[keypair]->certs[i];
      all += Bytes(cert->data, cert->length) + " ";
    }
    return all;
  }
  std::string StoredCerts(int keypair = 0) const { return Certs(Rescan().get(), keypair); }

  // Two keypairs, the first with two certificates; `ours_` and `theirs_` are records of the file.
  const DeviceHandle ours_ =
      Load(StoredDevice{.keypairs = {StoredKeypair{.certs = {"one", "two"}}.Json(),
                                     StoredKeypair{.label = "RSA", .key = &TestRsa()}.Json()}}
               .File());
  const DeviceHandle theirs_ = Rescan(PIN);
};

TEST_F(NeighboursTest, CertificatesOfOthersStay) {
  EXPECT_EQ(Add(theirs_, "theirs"), 1);
  EXPECT_EQ(Add(ours_, "ours"), 1);
  EXPECT_EQ(Certs(ours_.get()), "one two theirs ours ");
  EXPECT_EQ(StoredCerts(), "one two theirs ours ");
  // Their index 0 is "one", wherever that stands by now.
  EXPECT_EQ(DeviceDeleteCertificate(ours_->keypairs[0], 1), 1);
  EXPECT_EQ(DeviceDeleteCertificate(theirs_->keypairs[0], 0), 1);
  EXPECT_EQ(StoredCerts(), "theirs ours ");
  EXPECT_EQ(Certs(theirs_.get()), "theirs ours ");
  // What another has deleted is gone.
  EXPECT_EQ(DeviceDeleteCertificate(ours_->keypairs[0], 0), 1);
  EXPECT_EQ(Certs(ours_.get()), "theirs ours ");
  EXPECT_EQ(Add(theirs_, "later", 1), 1);
  EXPECT_EQ(Change(ours_, "new"), 1);
  EXPECT_EQ(StoredCerts(0) + StoredCerts(1), "theirs ours later ");
}

TEST_F(NeighboursTest, TheirCertificatesCountToo) {
  for (int i = 2; i < MAX_CERTS; i++) EXPECT_EQ(Add(theirs_, "cert " + std::to_string(i)), 1);
  Refuses(0, ours_.get(), [&] { return Add(ours_, "eleventh"); });
}

TEST_F(NeighboursTest, ThePinIsChangedForTheSameKeypairsOnly) {
  const std::string start = Read("dev");
  const std::pair<const char*, std::function<int()>> changes[] = {
      {"one more", [&] { return Import(theirs_.get(), TestSm2().pair) ? 1 : 0; }},
      {"one fewer",
       [&] {
         return DeviceDeleteKeypair(KeypairHandle(DeviceGetKeypair(theirs_.get(), 1)).get());
       }},
      {"another PIN", [&] { return Change(theirs_, "their new PIN"); }},
  };
  for (const auto& [what, change] : changes) {
    SCOPED_TRACE(what);
    EXPECT_EQ(change(), 1);
    Refuses(0, ours_.get(), [&] { return Change(ours_, "our new PIN"); });
    EXPECT_EQ(DeviceVerifyPwd(ours_.get(), 1, PIN, nullptr), 1);
    Write("dev", start);
    const_cast<DeviceHandle&>(theirs_) = Rescan(PIN);
  }
  EXPECT_EQ(Change(ours_, "our new PIN"), 1);
}

// The reader passes them over: written from the record alone they would be lost, and left as they
// are they would stay under the old PIN.
TEST_F(NeighboursTest, NoKeypairIsLeftBehindByAChangeOfThePin) {
  StoredDevice many{.keypairs = {}};
  for (int i = 0; i <= MAX_KEYPAIRS; i++)
    many.keypairs.push_back(StoredKeypair{.label = "key " + std::to_string(i)}.Json());
  const std::vector<std::string> eleven(MAX_CERTS + 1, "cert");
  const StoredDevice heavy{.keypairs = {StoredKeypair().Json(),
                                        StoredKeypair{.label = "heavy", .certs = eleven}.Json()}};
  for (const StoredDevice& device : {many, heavy}) {
    const DeviceHandle record = Load(device.File());
    Refuses(0, record.get(), [&] { return Change(record, "new"); });
    DeviceChange change;
    ASSERT_EQ(BeginChange(record->filePath, change), 1);
    EXPECT_EQ(TakeOverKeys(change.device, record.get()), 1);
    EXPECT_EQ(ChangePin(change.device, "new"), 1);
    EXPECT_EQ(CommitChange(change), 0);
    EXPECT_EQ(Read("dev"), device.File());
  }
}

TEST_F(NeighboursTest, ADeletedKeypairIsGoneFromTheFile) {
  const std::string start = Read("dev"), text = TextOf(start);
  const std::string blob =
      Hex(Bytes(ours_->keypairs[1]->publicKey, ours_->keypairs[1]->publicKeyLen));
  std::string upper = blob;
  for (char& c : upper) c = static_cast<char>(toupper(c));
  const std::pair<const char*, std::function<void()>> changes[] = {
      {"another PIN", [&] { EXPECT_EQ(Change(theirs_, "new"), 1); }},
      {"hex in upper case", [&] { Write("dev", Container(TAG, Replaced(text, blob, upper))); }},
  };
  for (const auto& [what, change] : changes) {
    SCOPED_TRACE(what);
    Write("dev", start);
    const DeviceHandle device = Rescan(PIN);
    change();
    EXPECT_EQ(DeviceDeleteKeypair(KeypairHandle(DeviceGetKeypair(device.get(), 1)).get()), 1);
    EXPECT_EQ(Rescan()->keypairCount, 1);
  }
}

TEST_F(NeighboursTest, NoTwoKeypairsHaveOneTypeAndLabel) {
  EXPECT_NE(Import(theirs_.get(), TestSm2().pair), nullptr);
  Keypair* made = nullptr;
  const ECCKeypairParams p256 = {CURVE_P256, 0};
  const std::string& pair = TestSm2().pair;
  Refuses(-6, ours_.get(),
          [&] { return DeviceGenerateKeypair(ours_.get(), 4, 256, &p256, 9, "new", &made); });
  Refuses(-6, ours_.get(),
          [&] { return DeviceImportKeypair(ours_.get(), Raw(pair), Len(pair), 9, "new", &made); });
}

// Eight processes, each with data objects of its own and certificates on one keypair: what was
// reported as added is there at the next scan, what was reported as deleted is not. A reader's
// lock, which comes and goes, makes them change between both ways to the file's lock.
TEST_F(NeighboursTest, NothingIsLostAndNothingComesBack) {
  constexpr int PROCESSES = 8, ROUNDS = 12;
  const pid_t reader = Fork([&] {
    for (;; usleep(300)) {
      const int file = open(ours_->filePath, O_RDONLY);
      struct flock lock = {};
      lock.l_type = F_RDLCK;
      fcntl(file, F_OFD_SETLK, &lock);
      usleep(300);
      close(file);
    }
  });
  std::vector<pid_t> children;
  for (int process = 0; process < PROCESSES; process++)
    children.push_back(Fork([&] {
      const DeviceHandle device = Rescan(PIN);
      Keypair* const keypair = device->keypairs[1];
      for (int round = 0; round < ROUNDS; round++) {
        const std::string own = std::to_string(process) + "." + std::to_string(round);
        EXPECT_EQ(Add(device, own, 1), 1);
        EXPECT_NE(StoredCerts(1).find(own + " "), std::string::npos) << "lost";
        EXPECT_EQ(DeviceCreateData(device.get(), 1 + process * ROUNDS + round, 0, 1), 1);
        if (round == ROUNDS - 1) break;
        for (int i = 0; i < keypair->certCount; i++)
          if (Bytes(keypair->certs[i]->data, keypair->certs[i]->length) == own) {
            EXPECT_EQ(DeviceDeleteCertificate(keypair, i), 1);
            break;
          }
        EXPECT_EQ(StoredCerts(1).find(own + " "), std::string::npos) << "back";
      }
    }));
  for (const pid_t child : children) EXPECT_EQ(WaitFor(child), 0);
  kill(reader, SIGKILL);
  EXPECT_EQ(WaitFor(reader), SIGKILL);
  EXPECT_EQ(Rescan()->keypairs[1]->certCount, PROCESSES);
  for (int id = 1; id <= PROCESSES * ROUNDS; id++)
    EXPECT_EQ(DeviceReadDataEx(ours_.get(), id, 0, nullptr, 0, nullptr), 1) << id;
}
