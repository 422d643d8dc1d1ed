// Many threads on shared devices: every result, the reference counts and the files come out as if
// the calls had been made one after another. Nothing is replaced in this program, so that
// ThreadSanitizer sees the module as it is.
#include "tests/support/operations.h"

#include <functional>
#include <thread>

// OpenSSL's library is not instrumented: its atomic reference counts would look like no order at
// all. The end of a test may unlock a lock that nobody holds, to see that nobody does.
extern "C" const char* __tsan_default_suppressions();
extern "C" const char* __tsan_default_suppressions() {
  return "called_from_lib:libcrypto.so\nmutex:ModuleTest::~ModuleTest";
}

namespace {

constexpr int THREADS = 8;
constexpr int ROUNDS = 8;
const std::string MESSAGE(32, 'm');

// Of the device's three keypairs the algorithms to sign and to encrypt; 0: the key can't.
constexpr std::pair<unsigned int, unsigned int> USES[] = {{256, 16}, {2048, 0}, {4096, 64}};

template <class Body>
void InThreads(int count, Body body) {
  std::vector<std::thread> threads;
  for (int i = 0; i < count; i++) threads.emplace_back(body, i);
  for (std::thread& thread : threads) thread.join();
}

int VerifyPin(const DeviceHandle& device, const char* pin) {
  return DeviceVerifyPwd(device.get(), 1, pin, nullptr);
}

class ThreadsTest : public OperationsTest {
 protected:
  // Signs, verifies, encrypts and decrypts, on handles of its own.
  static void UseKeys(const DeviceHandle& device) {
    EXPECT_GE(DeviceGetKeypairCount(device.get()), 3);
    for (int i = 0; i < 3; i++) {
      const auto [sign, encrypt] = USES[i];
      const KeypairHandle keypair(DeviceGetKeypair(device.get(), i));
      const PublicHandle key(DeviceGetPublicKeyFromKeypair(keypair.get()));
      const std::string signature = Sign(keypair.get(), sign, MESSAGE);
      EXPECT_EQ(Verify(key.get(), sign, MESSAGE, signature), 1) << i;
      const std::string secret = encrypt == 0 ? "" : Encrypt(key.get(), encrypt, MESSAGE);
      EXPECT_TRUE(encrypt == 0 || Decrypt(keypair.get(), encrypt, secret) == MESSAGE) << i;
    }
  }

  static void MakeKeypairs(const DeviceHandle& device, const std::string& label) {
    for (const int temporary : {0, 1}) {
      const ECCKeypairParams sm2 = {CURVE_SM2, temporary};
      const KeypairHandle made = Generate(device.get(), 4, 256, &sm2, label);
      EXPECT_FALSE(Sign(made.get(), ALGORITHM_SM2_SIGN, MESSAGE).starts_with("result"));
      EXPECT_TRUE(temporary || DeviceDeleteKeypair(made.get()) == 1);
    }
  }

  // Each thread has an object of its own, which nobody else changes.
  static void UseData(const DeviceHandle& device, int id, bool isFirst = false) {
    const std::string value = "of thread " + std::to_string(id);
    unsigned char bytes[100];
    if (!isFirst) {
      EXPECT_EQ(DeviceReadDataEx(device.get(), id, 0, bytes, Len(value), nullptr), 1);
      EXPECT_EQ(Bytes(bytes, Len(value)), value);
      EXPECT_EQ(DeviceDeleteData(device.get(), id), 1);
    }
    EXPECT_EQ(DeviceCreateData(device.get(), id, 0, Len(value)), 1);
    EXPECT_EQ(DeviceWriteDataEx(device.get(), id, 0, Raw(value), Len(value)), 1);
  }

  // Adds two and deletes the first of them.
  static void UseCertificates(Keypair* own) {
    for (const std::string cert : {"one", "two"})
      EXPECT_EQ(DeviceAddCertificate(own, Raw(cert), Len(cert)), 1);
    EXPECT_EQ(DeviceDeleteCertificate(own, DeviceGetCertificateCount(own) - 2), 1);
  }

  // Puts other private keys in the place of those that may be in use.
  static void OpenAgain(const DeviceHandle& device) {
    const ModuleLock lock;
    FreePin(device.get());
    EXPECT_EQ(VerifyPin(device, PIN), 1);
    EXPECT_EQ(VerifyPin(device, "another PIN"), -5);
  }
};

}  // namespace

TEST_F(ThreadsTest, EverythingAtOnceComesOutAsInTurn) {
  Write("datas", StoredDevice{.label = "datas"}.File());
  SetHandle set(DeviceGetAllDevices());
  const auto find = [&](const std::string& label) {
    DeviceHandle device(DeviceGetDevice(set.get(), 0));
    if (device->label != label) device.reset(DeviceGetDevice(set.get(), 1));
    EXPECT_EQ(VerifyPin(device, PIN), 1);
    return device;
  };
  const DeviceHandle keys = find("abc"), datas = find("datas");

  InThreads(THREADS, [&](int number) {
    const std::string label = "own" + std::to_string(number);
    bool isFirst = true;
    const ECCKeypairParams p256 = {CURVE_P256, 0};
    const KeypairHandle own = Generate(datas.get(), 4, 256, &p256, label);
    const std::function<void()> tasks[] = {
        [&] { UseKeys(keys); },
        [&] { MakeKeypairs(keys, label); },
        [&] { UseData(datas, number + 1, std::exchange(isFirst, false)); },
        [&] { UseCertificates(own.get()); },
        [&] { OpenAgain(keys); },
        [&] {
          EXPECT_NE(DeviceHandle(DeviceGetDevice(set.get(), 1)), nullptr);
          EXPECT_EQ(DeviceChangePwd(datas.get(), 1, PIN, PIN, nullptr), 1);
          EXPECT_EQ(DeviceGetDeviceCount(SetHandle(DeviceGetAllDevices()).get()), 2);
        }};
    for (size_t i = 0; i < ROUNDS * std::size(tasks); i++)
      tasks[(i + static_cast<size_t>(number)) % std::size(tasks)]();
  });

  EXPECT_EQ(keys->keypairCount, 3);
  ASSERT_EQ(datas->keypairCount, 1 + THREADS);
  for (int i = 1; i <= THREADS; i++) {
    EXPECT_EQ(datas->keypairs[i]->certCount, ROUNDS);
    UseData(datas, i);
  }
  // The records, their reference counts included, are those of a fresh scan.
  const std::string keysNow = Describe(*keys, false), datasNow = Describe(*datas, false);
  set.reset(DeviceGetAllDevices());
  EXPECT_EQ(Describe(*find("abc"), false), keysNow);
  EXPECT_EQ(Describe(*find("datas"), false), datasNow);
}
