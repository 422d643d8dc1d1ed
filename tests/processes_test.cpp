// Several processes hold the same folder open: they never interleave in a rewrite, and what a call
// has reported as stored is there in the end, also when some of them are killed at any moment.
// A forked child may use the module that it has inherited.
#include "tests/support/world.h"

#include "store/store.h"

#include <openssl/rand.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>

namespace {
constexpr int PROCESSES = 8;
constexpr int KEYPAIRS = 6;  // that each process adds at most
constexpr int OBJECTS = 4;   // of each process

// What a process is about to change and what calls have reported; the two differ during a call,
// and for ever if the process is killed in it.
struct Account {
  std::atomic<int> wanted, stored;
};
struct Page {
  Account keypairs, certs[KEYPAIRS], datas[OBJECTS];  // numbers of them; an object's version or 0
  std::atomic<int> changes, refused;
  char complaint[160];
};
struct Ledger {
  Page pages[PROCESSES];
  Account pin;  // its number
  std::atomic<bool> stop;
};

Keypair* ImportKey(Device* device, const std::string& label, int* result) {
  Keypair* made = nullptr;
  const std::string& pair = TestP256().pair;
  *result = DeviceImportKeypair(device, Raw(pair), Len(pair), 1, label.c_str(), &made);
  return made;
}

std::string KeyLabel(int process, int number) {
  return "key " + std::to_string(process) + " " + std::to_string(number);
}
std::string CertText(int number) { return "certificate " + std::to_string(number); }
std::string PinText(int number) { return "PIN " + std::to_string(number); }
int DataId(int process, int slot) { return 1 + process * OBJECTS + slot; }

// A process that works on the device until it is told to stop.
struct Worker {
  Ledger& ledger;
  const int number;
  Page& page = ledger.pages[number];
  DeviceHandle device = {};

  void Require(bool good, const char* what, int value) {
    if (good) return;
    snprintf(page.complaint, sizeof(page.complaint), "%s: %d", what, value);
    _exit(1);
  }

  Keypair* Own(int key) const {
    for (int i = 0; device && i < device->keypairCount; i++)
      if (KeyLabel(number, key) == device->keypairs[i]->label) return device->keypairs[i];
    return nullptr;
  }

  // Every scan sees the one device, with everything that this process has stored.
  void Rescan() {
    device.reset();
    const SetHandle set(DeviceGetAllDevices());
    Require(set && set->count == 1, "devices found", DeviceGetDeviceCount(set.get()));
    device.reset(DeviceGetDevice(set.get(), 0));
    for (int key = 0; key < page.keypairs.stored; key++) {
      Require(Own(key) != nullptr, "keypair lost", key);
      Require(Own(key)->certCount == page.certs[key].stored, "certificates", Own(key)->certCount);
    }
  }

  // The PIN may change at any time, also between the scan and the verification.
  void Verify() {
    for (int attempt = 0; device->pin == nullptr; attempt++) {
      Require(attempt < 50, "no PIN opens the device", ledger.pin.stored);
      for (const int pin : {ledger.pin.stored.load(), ledger.pin.wanted.load()})
        if (DeviceVerifyPwd(device.get(), 1, PinText(pin).c_str(), nullptr) == 1) return;
      Rescan();
    }
  }

  // Makes one change and keeps the account. A call may be refused for a stale record, or for what a
  // killed process has left: then it is made again with a fresh one.
  void Change(Account& account, int to, const std::function<int()>& call) {
    account.wanted = to;
    for (int attempt = 0; call() != 1; attempt++) {
      Require(attempt < 20, "refused with a fresh record", account.wanted);
      page.refused++;
      Rescan();
      Verify();
    }
    account.stored = to;
    page.changes++;
  }

  void AddKeypair() {
    const int key = page.keypairs.stored;
    if (key == KEYPAIRS) return;
    Change(page.keypairs, key + 1, [&] {
      int result = 0;
      DeviceFreeKeypair(ImportKey(device.get(), KeyLabel(number, key), &result));
      return result;
    });
  }

  void AddCert() {
    const int key = rand() % KEYPAIRS;
    if (key >= page.keypairs.stored || page.certs[key].stored == MAX_CERTS) return;
    const std::string text = CertText(page.certs[key].stored);
    Change(page.certs[key], page.certs[key].stored + 1,
           [&] { return DeviceAddCertificate(Own(key), Raw(text), Len(text)); });
  }

  void ChangeData() {
    const int slot = rand() % OBJECTS, id = DataId(number, slot);
    Account& account = page.datas[slot];
    const int version = account.stored;
    if (version != 0 && rand() % 8 == 0) {
      Change(account, 0, [&] { return DeviceDeleteData(device.get(), id); });
      return;
    }
    if (version == 0) {
      Change(account, 1, [&] { return DeviceCreateData(device.get(), id, 0, 4); });
    }
    unsigned char word[4];
    int2be(static_cast<unsigned int>(account.stored + 1), word);
    Change(account, account.stored + 1,
           [&] { return DeviceWriteDataEx(device.get(), id, 0, word, sizeof(word)); });
  }

  void ChangePin() {
    Change(ledger.pin, ledger.pin.stored + 1, [&] {
      return DeviceChangePwd(device.get(), 1, PinText(ledger.pin.stored).c_str(),
                             PinText(ledger.pin.stored + 1).c_str(), nullptr);
    });
  }

  // A PIN change writes the certificates that its record knows of: then nobody adds any.
  [[noreturn]] void Work(bool pinChanges) {
    srand(static_cast<unsigned int>(number));
    Rescan();
    Verify();
    while (!ledger.stop) {
      const int choice = rand() % 16;
      if (choice == 0) {
        Rescan();
        Verify();
      } else if (pinChanges && number == 0 && choice < 6) {
        ChangePin();
      } else if (choice < 4) {
        AddKeypair();
      } else if (choice < 8 && !pinChanges) {
        AddCert();
      } else {
        ChangeData();
      }
    }
    _exit(0);
  }
};

// Between what was reported and what was begun; the same for a process that came to its end.
void ExpectKept(int found, const Account& account, const std::string& what) {
  if (found != account.stored) {
    EXPECT_EQ(found, account.wanted) << what << ", reported " << account.stored;
  }
}
}  // namespace

class ProcessesTest : public ModuleTest {
 protected:
  void SetUp() override {
    ModuleTest::SetUp();
    void* shared =
        mmap(nullptr, sizeof(Ledger), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(shared, MAP_FAILED);
    ledger_ = new (shared) Ledger();
    Write("dev", StoredDevice{.keypairs = {StoredKeypair{.pin = PinText(0)}.Json()}}.File());
  }
  void TearDown() override {
    munmap(ledger_, sizeof(Ledger));
    ModuleTest::TearDown();
  }

  template <class Body>
  static pid_t Fork(Body body) {
    const pid_t child = fork();
    if (child != 0) return child;
    alarm(60);
    body();
    _exit(testing::Test::HasFailure() ? 1 : 0);
  }

  static int WaitFor(pid_t child) {
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    return status;
  }

  // Lets the processes work for `seconds`, `pin`: one of them changing the PIN; kills the last
  // `killed` of them on the way, and compares the folder with the ledger.
  void Compete(int seconds, int killed, bool pin) {
    std::vector<pid_t> children;
    for (int i = 0; i < PROCESSES; i++)
      children.push_back(Fork([&] { Worker{*ledger_, i}.Work(pin); }));
    for (int i = 0; i < PROCESSES; i++) {
      usleep(static_cast<unsigned int>(seconds * 1000000 / PROCESSES + i * 137));
      if (i >= PROCESSES - killed) kill(children[static_cast<size_t>(i)], SIGKILL);
    }
    ledger_->stop = true;
    for (int i = 0; i < PROCESSES; i++) {
      EXPECT_EQ(WaitFor(children[static_cast<size_t>(i)]), i < PROCESSES - killed ? 0 : SIGKILL)
          << i << ": " << ledger_->pages[i].complaint;
    }
    Compare();
  }

  void Compare() {
    const DeviceHandle device = Rescan(PinText(ledger_->pin.stored).c_str());
    ASSERT_NE(device, nullptr);
    int changes = 0, refused = 0;
    for (int i = 0; i < PROCESSES; i++) {
      const Page& page = ledger_->pages[i];
      SCOPED_TRACE("process " + std::to_string(i) + page.complaint);
      CompareKeypairs(*device, i, page);
      for (int slot = 0; slot < OBJECTS; slot++) {
        unsigned char word[4] = {};
        const int result = DeviceReadDataEx(device.get(), DataId(i, slot), 0, word, 4, nullptr);
        EXPECT_TRUE(result == 1 || result == -7);
        // Version 1 is the object as created, all zero.
        const int version = result == 1 ? std::max(1, static_cast<int>(be2int(word))) : 0;
        ExpectKept(version, page.datas[slot], "version of an object");
      }
      changes += page.changes;
      refused += page.refused;
    }
    printf("%d changes, %d calls refused, %d PINs\n", changes, refused, ledger_->pin.stored + 1);
    EXPECT_GT(changes, PROCESSES);
    EXPECT_FALSE(Exists("dev.bak"));
  }

  static void CompareKeypairs(const Device& device, int process, const Page& page) {
    int keypairs = 0;
    for (int i = 0; i < device.keypairCount; i++) {
      const Keypair& k = *device.keypairs[i];
      if (keypairs == KEYPAIRS || KeyLabel(process, keypairs) != k.label) continue;
      ExpectKept(k.certCount, page.certs[keypairs], std::string("certificates of ") + k.label);
      for (int c = 0; c < k.certCount; c++)
        EXPECT_EQ(Bytes(k.certs[c]->data, k.certs[c]->length), CertText(c));
      keypairs++;
    }
    ExpectKept(keypairs, page.keypairs, "keypairs");
  }

  Ledger* ledger_ = nullptr;
};

TEST_F(ProcessesTest, LoseNothing) { Compete(3, 5, false); }
TEST_F(ProcessesTest, LoseNothingWhileOneChangesThePin) { Compete(3, 2, true); }

// A program that loaded the device when it had no keypairs, or others, verified its own PIN.
TEST_F(ProcessesTest, NeverMixPins) {
  const std::string gone = StoredKeypair{.label = "gone"}.Json();
  const std::string theirs = StoredKeypair{.label = "theirs", .pin = "theirs"}.Json();
  for (const std::vector<std::string>& loaded : {std::vector<std::string>{}, {gone}}) {
    for (const char* pin : {PIN, "theirs"}) {
      SCOPED_TRACE(pin);
      const DeviceHandle stale = Load(StoredDevice{.keypairs = loaded}.File(), nullptr);
      const bool verified = DeviceVerifyPwd(stale.get(), 1, pin, nullptr) == 1;
      Write("dev", StoredDevice{.keypairs = {theirs}}.File());
      int result = 0;
      const KeypairHandle made(ImportKey(stale.get(), "second", &result));
      EXPECT_EQ(result, !verified ? -8 : pin == PIN ? 0 : 1);
      EXPECT_EQ(Rescan("theirs")->keypairCount, result == 1 ? 2 : 1);
    }
  }
}

TEST_F(ProcessesTest, AForkedChildUsesWhatItInherits) {
  const DeviceHandle device = Rescan(PinText(0).c_str());
  const KeypairHandle keypair(DeviceGetKeypair(device.get(), 0));
  const auto use = [&](int id) {
    unsigned char signature[80];
    int length = 0;
    EXPECT_EQ(DeviceSign(keypair.get(), ALGORITHM_ECDSA_SIGN, nullptr, Raw(TestP256().point), 32,
                         signature, sizeof(signature), &length),
              1);
    EXPECT_EQ(DeviceCreateData(device.get(), id, 0, 1), 1);
  };
  use(1);
  EXPECT_EQ(WaitFor(Fork([&] {
              use(2);
              int result = 0;
              DeviceFreeKeypair(ImportKey(device.get(), "child's", &result));
              EXPECT_EQ(result, 1);
              EXPECT_EQ(DeviceEnd(), 1);
            })),
            0);
  use(3);
  const DeviceHandle after = Rescan(PinText(0).c_str());
  EXPECT_EQ(after->keypairCount, 2);
  for (const int id : {1, 2, 3})
    EXPECT_EQ(DeviceReadDataEx(after.get(), id, 0, nullptr, 0, nullptr), 1);
}

// --- The folder lock -----------------------------------------------------------------------------

static bool IsFolderFree(const std::string& folder) {
  const Descriptor fd(open(folder.c_str(), O_RDONLY | O_DIRECTORY));
  return flock(fd.fd, LOCK_EX | LOCK_NB) == 0;
}

TEST_F(ProcessesTest, AForkedChildDoesNotTakeTheLockAway) {
  const DeviceHandle device = Rescan();
  {
    const FolderLock lock(device->filePath);
    EXPECT_EQ(WaitFor(Fork([&] {
                EXPECT_FALSE(IsFolderFree(folder_));
                UnlockFolder();  // as the end of the scope would that was open at the fork
              })),
              0);
    EXPECT_FALSE(IsFolderFree(folder_));
  }
  EXPECT_TRUE(IsFolderFree(folder_));
}

static std::string g_folder;
static int g_draws;

static int Draw(unsigned char* bytes, int count) {
  g_draws++;
  EXPECT_TRUE(IsFolderFree(g_folder));
  return RAND_OpenSSL()->bytes(bytes, count);
}

// While a key is being generated, which may take minutes, other processes may change the device.
TEST_F(ProcessesTest, GenerationLeavesTheFolderToOthers) {
  static const RAND_METHOD watched = {nullptr, Draw, nullptr, nullptr, Draw, nullptr};
  const ECCKeypairParams curve = {CURVE_P256, 0};
  const DeviceHandle device = Rescan(PinText(0).c_str());
  g_folder = folder_;
  ASSERT_EQ(RAND_set_rand_method(&watched), 1);
  Keypair *rsa = nullptr, *ecc = nullptr;
  EXPECT_EQ(DeviceGenerateKeypair(device.get(), ALGORITHM_RSA, 1024, nullptr, 7, "RSA", &rsa), 1);
  EXPECT_GT(g_draws, 10);
  EXPECT_EQ(DeviceGenerateKeypair(device.get(), ALGORITHM_ECC, 256, &curve, 7, "ECC", &ecc), 1);
  RAND_set_rand_method(nullptr);
  EXPECT_TRUE(DeviceFreeKeypair(rsa) == 1 && DeviceFreeKeypair(ecc) == 1);
}
