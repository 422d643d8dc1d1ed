// Several processes hold the same folder open: they never interleave in a rewrite, and what a call
// has reported as stored is there in the end, also when some of them are killed at any moment.
// A forked child may use the module that it has inherited.
#include "tests/support/calls.h"

#include "store/store.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <atomic>

namespace {
constexpr int PROCESSES = 8;
constexpr int MOST = 6;  // keypairs of a process, and certificates of its first one

// What a process changes, counted: its keypairs, the certificates of its first one, the version of
// its data object. Process 0 alone changes the PIN.
enum { KEYPAIR, CERT, DATA, NEW_PIN, KINDS };

// The change that is about to be made and the last that a call has reported; the two differ during
// a call, and for ever if the process is killed in it.
struct Account {
  std::atomic<int> wanted, stored;
};
struct Ledger {
  Account accounts[PROCESSES][KINDS];
  std::atomic<bool> stop;
};

std::string KeyLabel(int process, int number) {
  return "key " + std::to_string(process) + " " + std::to_string(number);
}
std::string PinText(int number) { return "PIN " + std::to_string(number); }

int ImportKey(Device* device, const std::string& label) {
  Keypair* made = nullptr;
  const std::string& pair = TestP256().pair;
  const int result = DeviceImportKeypair(device, Raw(pair), Len(pair), 1, label.c_str(), &made);
  if (result == 1) DeviceFreeKeypair(made);
  return result;
}

Keypair* Find(const Device& device, const std::string& label) {
  for (int i = 0; i < device.keypairCount; i++)
    if (label == device.keypairs[i]->label) return device.keypairs[i];
  return nullptr;
}

int Change(Device* device, int process, int kind, int to) {
  const int id = process + 1;
  switch (kind) {
    case KEYPAIR:
      return ImportKey(device, KeyLabel(process, to));
    case CERT:
      return DeviceAddCertificate(Find(*device, KeyLabel(process, 1)), Raw(PinText(to)), 6);
    case DATA:
      if (to == 1) return DeviceCreateData(device, id, 0, 4);
      return DeviceWriteDataEx(device, id, 0, Raw(Word(static_cast<unsigned int>(to))), 4);
    default:
      return DeviceChangePwd(device, 1, PinText(to - 1).c_str(), PinText(to).c_str(), nullptr);
  }
}

// Is what a process has changed as it was reported, or as begun?
bool IsKept(Device* device, const Ledger& ledger, int process) {
  int found[NEW_PIN] = {};
  while (Find(*device, KeyLabel(process, found[KEYPAIR] + 1)) != nullptr) found[KEYPAIR]++;
  if (found[KEYPAIR] > 0) found[CERT] = Find(*device, KeyLabel(process, 1))->certCount;
  unsigned char word[4] = {};
  if (DeviceReadDataEx(device, process + 1, 0, word, 4, nullptr) == 1)
    found[DATA] = std::max(1, static_cast<int>(be2int(word)));  // zero when just created
  for (const int kind : {KEYPAIR, CERT, DATA}) {
    const Account& account = ledger.accounts[process][kind];
    if (found[kind] != account.stored && found[kind] != account.wanted) return false;
  }
  return true;
}

bool IsFolderFree(const std::string& folder) {
  const Descriptor fd(open(folder.c_str(), O_RDONLY | O_DIRECTORY));
  return flock(fd.fd, LOCK_EX | LOCK_NB) == 0;
}
}  // namespace

class ProcessesTest : public ModuleTest {
 protected:
  void SetUp() override {
    ModuleTest::SetUp();
    Write("dev", StoredDevice{.keypairs = {StoredKeypair{.pin = PinText(0)}.Json()}}.File());
  }

  // The one device, verified. The PIN may change at any time, also between scan and verification.
  static DeviceHandle Open(const Ledger& ledger) {
    const Account& pin = ledger.accounts[0][NEW_PIN];
    for (int attempt = 0; attempt < 50; attempt++) {
      const SetHandle set(DeviceGetAllDevices());
      EXPECT_EQ(DeviceGetDeviceCount(set.get()), 1);
      DeviceHandle device(DeviceGetDevice(set.get(), 0));
      for (const int number : {pin.stored.load(), pin.wanted.load()})
        if (DeviceVerifyPwd(device.get(), 1, PinText(number).c_str(), nullptr) == 1) return device;
    }
    ADD_FAILURE() << "no PIN opens the device";
    return nullptr;
  }

  // A call may be refused for a stale record, or for what a killed process has left: then it is
  // made again with a fresh one. A PIN change writes the certificates that its record knows of:
  // then nobody adds any.
  static void Work(Ledger& ledger, int process, bool pinChanges) {
    Account* const own = ledger.accounts[process];
    srand(static_cast<unsigned int>(process));
    DeviceHandle device = Open(ledger);
    while (!ledger.stop && !HasFailure()) {
      const int kind = rand() % KINDS;
      const bool idle = kind == NEW_PIN ? !pinChanges || process > 0
                        : kind == CERT  ? pinChanges || own[KEYPAIR].stored == 0
                                        : false;
      if (idle || (kind < DATA && own[kind].stored == MOST)) continue;
      own[kind].wanted = own[kind].stored + 1;
      for (int attempt = 0; Change(device.get(), process, kind, own[kind].wanted) != 1; attempt++) {
        ASSERT_LT(attempt, 20) << "refused with a fresh record: change of kind " << kind;
        device = Open(ledger);
      }
      own[kind].stored = own[kind].wanted.load();
      if (rand() % 8 == 0) device = Open(ledger);
      EXPECT_TRUE(IsKept(device.get(), ledger, process));
    }
  }

  template <class Body>
  static pid_t Fork(Body body) {
    const pid_t child = fork();
    if (child != 0) return child;
    alarm(60);
    body();
    _exit(HasFailure() ? 1 : 0);
  }

  static int WaitFor(pid_t child) {
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    return status;
  }

  // Lets the processes work, `pin`: one of them changing the PIN; kills the last `killed` of them
  // on the way, and compares the device with the ledger.
  void Compete(int killed, bool pin) {
    auto* const ledger = Shared<Ledger>();
    const int pace = pin ? 2 : 10;  // a new PIN costs the others a new record
    std::vector<pid_t> children;
    for (int i = 0; i < PROCESSES; i++) children.push_back(Fork([&] { Work(*ledger, i, pin); }));
    for (int i = 0; i < PROCESSES; i++) {
      const Account& progress = ledger->accounts[0][DATA];
      for (int wait = 0; wait < 10000 && progress.stored < pace * (i + 1); wait++)
        usleep(static_cast<unsigned int>(1000 + i * 137));
      if (i >= PROCESSES - killed) kill(children[static_cast<size_t>(i)], SIGKILL);
    }
    ledger->stop = true;
    for (int i = 0; i < PROCESSES; i++)
      EXPECT_EQ(WaitFor(children[static_cast<size_t>(i)]), i < PROCESSES - killed ? 0 : SIGKILL);
    const DeviceHandle device = Open(*ledger);
    for (int i = 0; i < PROCESSES; i++) EXPECT_TRUE(IsKept(device.get(), *ledger, i)) << i;
    EXPECT_GE(ledger->accounts[0][DATA].stored, pace * PROCESSES);
    EXPECT_EQ(ledger->accounts[0][NEW_PIN].stored > 0, pin);
    EXPECT_FALSE(Exists("dev.bak"));
  }
};

TEST_F(ProcessesTest, LoseNothing) { Compete(5, false); }
TEST_F(ProcessesTest, LoseNothingWhileOneChangesThePin) { Compete(2, true); }

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
      const int result = ImportKey(stale.get(), "second");
      EXPECT_EQ(result, !verified ? -8 : pin == PIN ? 0 : 1);
      EXPECT_EQ(Rescan("theirs")->keypairCount, result == 1 ? 2 : 1);
    }
  }
  const DeviceHandle stale = Load();
  Write("dev", StoredDevice{.keypairs = {StoredKeypair{.pin = "theirs"}.Json()}}.File());
  Refuses(0, stale.get(), [&] { return AddhKeypairToFile(stale.get(), stale->keypairs[0]); });
}

// It uses what it inherits, and takes no lock away.
TEST_F(ProcessesTest, AForkedChildWorks) {
  const DeviceHandle device = Rescan(PinText(0).c_str());
  EXPECT_EQ(ImportKey(device.get(), "before"), 1);
  EXPECT_EQ(WaitFor(Fork([&] {
              EXPECT_EQ(DeviceCreateData(device.get(), 1, 0, 1), 1);
              EXPECT_EQ(DeviceEnd(), 1);
            })),
            0);
  EXPECT_EQ(ImportKey(device.get(), "after"), 1);
  EXPECT_EQ(DeviceReadDataEx(Rescan().get(), 1, 0, nullptr, 0, nullptr), 1);
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

// While a key is being generated, which may take minutes, other processes may change the device.
TEST_F(ProcessesTest, GenerationLeavesTheFolderToOthers) {
  static std::string folder;
  static int timesFree;
  folder = folder_;
  timesFree = 0;
  const ECCKeypairParams curve = {CURVE_P256, 0};
  const DeviceHandle device = Rescan(PinText(0).c_str());
  Keypair *rsa = nullptr, *ecc = nullptr;
  HookCalls([](const ImportCall& call) {
    if (strstr(call.name, "generate_key") != nullptr) timesFree += IsFolderFree(folder);
    return 0;
  });
  EXPECT_EQ(DeviceGenerateKeypair(device.get(), ALGORITHM_RSA, 1024, nullptr, 7, "RSA", &rsa), 1);
  EXPECT_EQ(DeviceGenerateKeypair(device.get(), ALGORITHM_ECC, 256, &curve, 7, "ECC", &ecc), 1);
  HookCalls(nullptr);
  EXPECT_EQ(timesFree, 2);
  EXPECT_TRUE(DeviceFreeKeypair(rsa) == 1 && DeviceFreeKeypair(ecc) == 1);
}
