// Several processes hold the same folder open: what a call has reported as stored is there in the
// end, also when some of them are killed at any moment. A forked child may use the module that it
// has inherited.
#include "tests/support/calls.h"

#include "store/store.h"

#include <signal.h>
#include <sys/wait.h>
#include <atomic>

class ProcessesTest : public CallsTest {
 protected:
  static constexpr int PROCESSES = 8;

  // Each process counts up in a data object of its own. The number that it is about to write and
  // the last that a call has reported differ during a call, and for ever if it is killed there.
  struct Ledger {
    std::atomic<unsigned int> wanted[PROCESSES], stored[PROCESSES];
    std::atomic<bool> stop;

    bool Agrees(Device* device, int process) const {
      unsigned char word[4] = {};
      EXPECT_EQ(DeviceReadDataEx(device, process + 1, 0, word, 4, nullptr), 1);
      return be2int(word) == stored[process] || be2int(word) == wanted[process];
    }
  };

  static void Work(Ledger& ledger, int process) {
    const DeviceHandle device = Rescan();
    while (!ledger.stop && !HasFailure()) {
      const std::string next = Word(++ledger.wanted[process]);
      EXPECT_EQ(DeviceWriteDataEx(device.get(), process + 1, 0, Raw(next), 4), 1);
      ledger.stored[process] = ledger.wanted[process].load();
      EXPECT_TRUE(ledger.Agrees(rand() % 8 == 0 ? Rescan().get() : device.get(), process));
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
};

TEST_F(ProcessesTest, LoseNothing) {
  constexpr int KILLED = 5;
  auto* const ledger = Shared<Ledger>();
  std::vector<std::string> datas;
  for (int i = 0; i < PROCESSES; i++) datas.push_back(StoredData(i + 1, Word(0)));
  const DeviceHandle device = Load(StoredDevice{.more = {Array(datas)}}.File());
  std::vector<pid_t> children;
  for (int i = 0; i < PROCESSES; i++) children.push_back(Fork([&] { Work(*ledger, i); }));
  for (int i = 0; i < PROCESSES; i++) {
    for (int wait = 0; wait < 10000 && ledger->stored[PROCESSES - 1] < 10u * (i + 1); wait++)
      usleep(static_cast<unsigned int>(1000 + i * 137));
    if (i < KILLED) kill(children[i], SIGKILL);
  }
  ledger->stop = true;
  for (int i = 0; i < PROCESSES; i++) {
    EXPECT_EQ(WaitFor(children[i]), i < KILLED ? SIGKILL : 0);
    EXPECT_TRUE(ledger->Agrees(device.get(), i)) << i;
  }
  EXPECT_GE(ledger->stored[PROCESSES - 1], 10u * PROCESSES);
}

// A program that loaded the device when it had no keypairs, or others, verified its own PIN.
TEST_F(ProcessesTest, NeverMixPins) {
  const std::string gone = StoredKeypair{.label = "gone"}.Json(), &pair = TestP256().pair;
  const std::string theirs = StoredKeypair{.label = "theirs", .pin = "theirs"}.Json();
  for (const std::vector<std::string>& loaded : {std::vector<std::string>{}, {gone}}) {
    for (const char* pin : {PIN, "theirs"}) {
      SCOPED_TRACE(pin);
      const DeviceHandle stale = Load(StoredDevice{.keypairs = loaded}.File(), nullptr);
      const bool verified = DeviceVerifyPwd(stale.get(), 1, pin, nullptr) == 1;
      Write("dev", StoredDevice{.keypairs = {theirs}}.File());
      Keypair* made = nullptr;
      const int result = DeviceImportKeypair(stale.get(), Raw(pair), Len(pair), 1, "2nd", &made);
      const KeypairHandle owned(made);
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
  const DeviceHandle device = Load();
  EXPECT_EQ(DeviceCreateData(device.get(), 1, 0, 1), 1);
  EXPECT_EQ(WaitFor(Fork([&] {
              EXPECT_EQ(DeviceCreateData(device.get(), 2, 0, 1), 1);
              EXPECT_EQ(DeviceEnd(), 1);
            })),
            0);
  for (const int id : {1, 2})
    EXPECT_EQ(DeviceReadDataEx(device.get(), id, 0, nullptr, 0, nullptr), 1) << id;
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
