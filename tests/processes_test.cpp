// Several processes hold the same folder open: what a call has reported as stored is there in the
// end, also when some of them are killed at any moment. A forked child may use the module that it
// has inherited.
#include "tests/support/calls.h"

#include "store/store.h"

#include <signal.h>
#include <sys/wait.h>
#include <atomic>

using ProcessesTest = CallsTest;

// Each process makes data objects of its own, one after the other, until it is killed.
TEST_F(ProcessesTest, LoseNothing) {
  constexpr int PROCESSES = 8, AT_LEAST = 20;
  const DeviceHandle device = Load();
  int reports[2];  // the ids of those that a call has reported as made
  ASSERT_EQ(pipe(reports), 0);
  std::vector<pid_t> children;
  for (int i = 0; i < PROCESSES; i++)
    children.push_back(Fork([&] {
      for (int id = i + 1; !HasFailure(); id += PROCESSES) {
        EXPECT_EQ(DeviceCreateData(device.get(), id, 0, 1), 1);
        EXPECT_EQ(write(reports[1], &id, sizeof id), static_cast<ssize_t>(sizeof id));
      }
    }));
  close(reports[1]);
  int id = 0, count = 0;
  std::vector<int> made;
  while (read(reports[0], &id, sizeof id) == static_cast<ssize_t>(sizeof id)) {
    made.push_back(id);
    if (++count % AT_LEAST == 0 && !children.empty()) {
      kill(children.back(), SIGKILL);
      EXPECT_EQ(WaitFor(children.back()), SIGKILL);
      children.pop_back();
    }
  }
  close(reports[0]);
  for (const int each : made)
    EXPECT_EQ(DeviceReadDataEx(device.get(), each, 0, nullptr, 0, nullptr), 1) << each;
  EXPECT_GE(made.size(), size_t{PROCESSES * AT_LEAST});
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
                EXPECT_FALSE(IsFolderFree());
                UnlockFolder();  // as the end of the scope would that was open at the fork
              })),
              0);
    EXPECT_FALSE(IsFolderFree());
  }
  EXPECT_TRUE(IsFolderFree());
}
