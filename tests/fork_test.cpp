// A process forks while its other threads are inside the module: the child has one thread, and with
// it whatever the others held, yet it can use all that it has inherited. A child that hangs is
// ended by the time limit of the test.
#include "tests/support/operations.h"

#include <atomic>
#include <thread>

namespace {
constexpr int FORKS = 20;
const std::string MESSAGE(32, 'm');

class ForkTest : public OperationsTest {
 protected:
  bool SignsAndVerifies() const {
    return Verify(sm2Public_.get(), 4096, MESSAGE, Sign(sm2_, 4096, MESSAGE)) == 1 &&
           Verify(p256Public_.get(), 2048, MESSAGE, Sign(p256_, 2048, MESSAGE)) == 1 &&
           Verify(rsaPublic_.get(), 256, MESSAGE, Sign(rsa_, 256, MESSAGE)) == 1;
  }

  bool Generates() const {
    const ECCKeypairParams sm2 = {CURVE_SM2, 1};
    const RSAKeypairParams rsa = {nullptr, 0, 1};
    return Generate(device_.get(), 4, 256, &sm2, "once") != nullptr &&
           Generate(device_.get(), 1, 1024, &rsa, "once") != nullptr;
  }

  // What is done under the module lock.
  bool OpensAndLooks() const {
    const KeypairHandle keypair(DeviceGetKeypair(device_.get(), 0));
    return keypair != nullptr && DeviceVerifyPwd(device_.get(), PIN_TYPE_USER, PIN, nullptr) == 1;
  }
};
}  // namespace

TEST_F(ForkTest, AChildUsesWhatItInherits) {
  std::atomic<bool> over = false;
  std::vector<std::thread> threads;
  const auto repeat = [&](auto work) {
    threads.emplace_back([&over, work] {
      while (!over) EXPECT_TRUE(work());
    });
  };
  repeat([&] { return SignsAndVerifies(); });
  repeat([&] { return SignsAndVerifies(); });
  repeat([&] { return Generates(); });
  repeat([&] { return OpensAndLooks(); });

  for (int i = 0; i < FORKS; i++) {
    const pid_t child = Fork([&] {
      EXPECT_TRUE(OpensAndLooks() && SignsAndVerifies() && Generates() && DeviceEnd() == 1);
    });
    EXPECT_EQ(WaitFor(child), 0) << "child " << i;
  }
  over = true;
  for (std::thread& thread : threads) thread.join();
}

// A thread may fork while it holds the module lock; the child starts with a free one.
TEST_F(ForkTest, TheHolderOfTheLockForks) {
  EXPECT_EQ(DeviceLockDevice(nullptr), 1);
  const pid_t child = Fork([&] {
    EXPECT_EQ(DeviceUnlockDevice(nullptr), 0);
    std::thread([&] { EXPECT_TRUE(OpensAndLooks()); }).join();
  });
  EXPECT_EQ(WaitFor(child), 0);
  EXPECT_EQ(DeviceUnlockDevice(nullptr), 1);
  EXPECT_EQ(DeviceUnlockDevice(nullptr), 0);
}
