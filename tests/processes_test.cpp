// Several processes hold the same folder open: what a call has reported as stored is there in the
// end. A forked child may use the module that it has inherited. What a process leaves that is
// killed is the part of power_cut_test.cpp.
#include "tests/support/calls.h"

#include "store/lock.h"

#include <signal.h>

using ProcessesTest = CallsTest;

// Each makes data objects of its own, one after the other.
TEST_F(ProcessesTest, LoseNothing) {
  constexpr int PROCESSES = 8, OBJECTS = 150;  // a second or two
  const DeviceHandle device = Load();
  std::vector<pid_t> children;
  for (int first = 0; first < PROCESSES; first++)
    children.push_back(Fork([&] {
      for (int i = 0; i < OBJECTS; i++)
        EXPECT_EQ(DeviceCreateData(device.get(), 1 + first * OBJECTS + i, 0, 1), 1);
    }));
  for (const pid_t child : children) EXPECT_EQ(WaitFor(child), 0);
  for (int id = 1; id <= PROCESSES * OBJECTS; id++)
    EXPECT_EQ(DeviceReadDataEx(device.get(), id, 0, nullptr, 0, nullptr), 1) << id;
}

// It uses what it inherits, and neither takes a lock away, nor keeps it, nor believes that it holds
// it.
TEST_F(ProcessesTest, AForkedChildWorks) {
  const DeviceHandle device = Load();
  EXPECT_EQ(DeviceCreateData(device.get(), 1, 0, 1), 1);
  FileLock lock;
  EXPECT_EQ(lock.Try(device->filePath), LockResult::HELD);
  const pid_t other = Fork([&] { lock.GiveBack(); });  // a scope ends that was open at the fork
  EXPECT_EQ(WaitFor(other), 0);
  EXPECT_FALSE(AreFilesFree());
  const pid_t idle = Fork([] { pause(); });
  const pid_t user = Fork([&] {
    EXPECT_EQ(DeviceDeleteData(device.get(), 1), 1);
    EXPECT_EQ(DeviceEnd(), 1);
  });
  usleep(50000);  // it waits for us
  lock.GiveBack();
  EXPECT_EQ(DeviceCreateData(device.get(), 2, 0, 1), 1);
  EXPECT_EQ(WaitFor(user), 0);
  EXPECT_EQ(DeviceReadDataEx(device.get(), 1, 0, nullptr, 0, nullptr), -7);
  EXPECT_EQ(DeviceReadDataEx(device.get(), 2, 0, nullptr, 0, nullptr), 1);
  EXPECT_TRUE(AreFilesFree());
  kill(idle, SIGKILL);
  EXPECT_EQ(WaitFor(idle), SIGKILL);
}
