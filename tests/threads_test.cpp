// Many threads on shared devices: every result, the reference counts and the files come out as if
// the calls had been made one after another. Nothing is replaced in this program but the five
// functions of the meeting below, so that ThreadSanitizer sees the module as it is.
#include "tests/support/operations.h"

#include <dlfcn.h>
#include <atomic>
#include <chrono>
#include <functional>
#include <thread>

// OpenSSL's library is not instrumented: its atomic reference counts would look like no order at
// all. The end of a test may unlock a lock that nobody holds, to see that nobody does.
extern "C" const char* __tsan_default_suppressions();
extern "C" const char* __tsan_default_suppressions() {
  return "called_from_lib:libcrypto.so\nmutex:ModuleTest::TearDown";
}

// --- The meeting: private-key arithmetic of two threads goes on side by side ---------------------

static std::atomic<int> g_inside = -1;  // threads in private-key arithmetic; -1: no meeting is on

// While a meeting is on, waits until two threads are here at the same time, for a while.
static void Meet() {
  static thread_local bool came = false;
  if (g_inside < 0 || std::exchange(came, true)) return;
  g_inside++;
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (g_inside < 2) {
    if (std::chrono::steady_clock::now() > end) {
      g_inside--;
      return;
    }
    std::this_thread::yield();
  }
}

#define MEET_IN(result, name, params, args)                                               \
  extern "C" result name params {                                                         \
    static const auto next = reinterpret_cast<result(*) params>(dlsym(RTLD_NEXT, #name)); \
    Meet();                                                                               \
    return next args;                                                                     \
  }
// clang-format off
using In = const unsigned char*;
MEET_IN(int, RSA_private_encrypt, (int n, In f, unsigned char* t, RSA* r, int p), (n, f, t, r, p))
MEET_IN(int, RSA_private_decrypt, (int n, In f, unsigned char* t, RSA* r, int p), (n, f, t, r, p))
MEET_IN(int, ECDSA_sign, (int t, In d, int n, unsigned char* s, unsigned int* sn, EC_KEY* k), (t, d, n, s, sn, k))
MEET_IN(int, BN_rand_range, (BIGNUM* r, const BIGNUM* n), (r, n))
MEET_IN(VakroPKICryptoHash*, VakroPKICryptoNewHash, (VakroPKICryptoDevice* d, int a), (d, a))
// clang-format on

// --- What threads do -----------------------------------------------------------------------------

namespace {

constexpr int THREADS = 8;
constexpr int ROUNDS = 8;
constexpr int DATA_LENGTH = 40;
const std::string MESSAGE(32, 'm');

struct Use {
  unsigned int sign;
  unsigned int encrypt;  // 0: the key can't
};
constexpr Use USES[] = {{256, 16}, {2048, 0}, {4096, 64}};  // of the device's three keypairs

template <class Body>
void InThreads(int count, Body body) {
  std::vector<std::thread> threads;
  for (int i = 0; i < count; i++) threads.emplace_back(body, i);
  for (std::thread& thread : threads) thread.join();
}

class ThreadsTest : public OperationsTest {
 protected:
  // Signs, verifies, encrypts and decrypts, on handles of its own.
  static void UseKeys(Device* device) {
    for (unsigned int i = 0; i < std::size(USES); i++) {
      const auto [sign, encrypt] = USES[i];
      const KeypairHandle keypair(DeviceGetKeypair(device, static_cast<int>(i)));
      const PublicHandle key(DeviceGetPublicKeyFromKeypair(keypair.get()));
      const std::string signature = Sign(keypair.get(), sign, MESSAGE);
      EXPECT_EQ(Verify(key.get(), sign, MESSAGE, signature), 1) << i;
      if (encrypt == 0) continue;
      const std::string secret = Encrypt(key.get(), encrypt, MESSAGE);
      EXPECT_EQ(Decrypt(keypair.get(), encrypt, secret), MESSAGE) << i;
    }
  }

  static void MakeKeypairs(Device* device, const std::string& label) {
    for (const int temporary : {0, 1}) {
      const ECCKeypairParams params = {CURVE_SM2, temporary};
      const char* const name = temporary ? nullptr : label.c_str();
      Keypair* made = nullptr;
      ASSERT_EQ(DeviceGenerateKeypair(device, 4, 256, &params, 9, name, &made), 1);
      const KeypairHandle owned(made);
      EXPECT_FALSE(Sign(made, ALGORITHM_SM2_SIGN, MESSAGE).starts_with("result"));
      EXPECT_TRUE(temporary || DeviceDeleteKeypair(made) == 1);
    }
  }

  static std::string ValueOf(int number) {
    return std::string(DATA_LENGTH, static_cast<char>('a' + number));
  }
  static std::string ReadData(Device* device, int id) {
    unsigned char bytes[DATA_LENGTH];
    EXPECT_EQ(DeviceReadDataEx(device, id, 0, bytes, DATA_LENGTH, nullptr), 1);
    return Bytes(bytes, DATA_LENGTH);
  }
  // Each thread has an object of its own, which it leaves behind.
  static void UseData(Device* device, int number) {
    const int deleted = DeviceDeleteData(device, number);
    EXPECT_TRUE(deleted == 1 || deleted == -7) << deleted;
    EXPECT_EQ(DeviceCreateData(device, number, 0, DATA_LENGTH), 1);
    EXPECT_EQ(DeviceWriteDataEx(device, number, 0, Raw(ValueOf(number)), DATA_LENGTH), 1);
    EXPECT_EQ(ReadData(device, number), ValueOf(number));
  }

  // Adds two and deletes the first of them.
  static void UseCertificates(Keypair* own, const std::string& label) {
    for (const std::string& cert : {"one" + label, "two" + label})
      EXPECT_EQ(DeviceAddCertificate(own, Raw(cert), Len(cert)), 1);
    EXPECT_EQ(DeviceDeleteCertificate(own, DeviceGetCertificateCount(own) - 2), 1);
  }

  // Signs with every keypair while `change` runs in another thread, and once more when it is done;
  // two more threads read what needs no lock. A keypair that is not open yet answers -8.
  static void SignDuring(Device* device, bool isOpen, const std::function<void()>& change) {
    std::atomic<bool> done = false;
    InThreads(6, [&](int number) {
      if (number == 5) {
        change();
        done = true;
      }
      for (bool last = false; !last;) {
        last = done;
        EXPECT_NE(PublicHandle(DeviceGetPublicKeyFromKeypair(device->keypairs[1])), nullptr);
        EXPECT_GE(DeviceGetKeypairCount(device), 3);
        if (number > 2) continue;
        const std::string result = Sign(device->keypairs[number], USES[number].sign, MESSAGE);
        const bool mayBeClosed = !isOpen && !last;
        EXPECT_TRUE(!result.starts_with("result") || (mayBeClosed && result == "result -8"));
      }
    });
  }
};

}  // namespace

TEST_F(ThreadsTest, EverythingAtOnceComesOutAsInTurn) {
  Write("datas", StoredDevice{.label = "datas"}.File());
  SetHandle set(DeviceGetAllDevices());
  const auto find = [&](const std::string& label) {
    DeviceHandle device(DeviceGetDevice(set.get(), 0));
    if (device->label != label) device.reset(DeviceGetDevice(set.get(), 1));
    EXPECT_EQ(DeviceVerifyPwd(device.get(), 1, PIN, nullptr), 1);
    return device;
  };
  const DeviceHandle keys = find("abc"), datas = find("datas");

  InThreads(THREADS, [&](int number) {
    const ECCKeypairParams params = {CURVE_P256, 0};
    const std::string label = "own" + std::to_string(number);
    Keypair* own = nullptr;
    ASSERT_EQ(DeviceGenerateKeypair(datas.get(), 4, 256, &params, 5, label.c_str(), &own), 1);
    const KeypairHandle owned(own);
    const std::function<void()> tasks[] = {
        [&] { UseKeys(keys.get()); },
        [&] { MakeKeypairs(keys.get(), label); },
        [&] { UseData(datas.get(), number + 1); },
        [&] { UseCertificates(own, label); },
        [&] {
          EXPECT_EQ(DeviceVerifyPwd(keys.get(), 1, PIN, nullptr), 1);
          EXPECT_EQ(DeviceVerifyPwd(keys.get(), 1, "another PIN", nullptr), -5);
        },
        [&] {
          EXPECT_NE(DeviceHandle(DeviceGetDevice(set.get(), 1)), nullptr);
          EXPECT_EQ(DeviceChangePwd(datas.get(), 1, PIN, PIN, nullptr), 1);
          EXPECT_EQ(DeviceGetDeviceCount(SetHandle(DeviceGetAllDevices()).get()), 2);
        }};
    for (size_t i = 0; i < ROUNDS * std::size(tasks); i++)
      tasks[(i + static_cast<size_t>(number)) % std::size(tasks)]();
  });

  EXPECT_EQ(keys->keypairCount, 3);
  EXPECT_EQ(keys->refCount, 3 + 2U);  // the set's and this handle
  EXPECT_EQ(datas->refCount, 1 + THREADS + 2U);
  set.reset(DeviceGetAllDevices());
  EXPECT_EQ(find("abc")->keypairCount, 3);
  const DeviceHandle stored = find("datas");
  ASSERT_EQ(stored->keypairCount, 1 + THREADS);
  ASSERT_EQ(datas->keypairCount, 1 + THREADS);
  for (int i = 1; i <= THREADS; i++) {
    EXPECT_STREQ(stored->keypairs[i]->label, datas->keypairs[i]->label);
    EXPECT_EQ(stored->keypairs[i]->certCount, ROUNDS);
    EXPECT_EQ(datas->keypairs[i]->certCount, ROUNDS);
    EXPECT_EQ(ReadData(stored.get(), i), ValueOf(i));
  }
}

TEST_F(ThreadsTest, PrivateKeysWorkSideBySide) {
  for (size_t i = 0; i < std::size(USES); i++) {
    const auto [sign, encrypt] = USES[i];
    Keypair* const keypair = device_->keypairs[i];
    const PublicHandle key(DeviceGetPublicKeyFromKeypair(keypair));
    const std::string secret = encrypt == 0 ? "" : Encrypt(key.get(), encrypt, MESSAGE);
    for (const bool decrypt : {false, true}) {
      if (decrypt && encrypt == 0) continue;
      g_inside = 0;
      InThreads(2, [&, sign = sign, encrypt = encrypt](int) {
        if (decrypt)
          EXPECT_EQ(Decrypt(keypair, encrypt, secret), MESSAGE);
        else
          EXPECT_FALSE(Sign(keypair, sign, MESSAGE).starts_with("result"));
      });
      EXPECT_EQ(g_inside.exchange(-1), 2) << i << (decrypt ? " decrypts" : " signs");
    }
  }
}

TEST_F(ThreadsTest, SignaturesWhileKeysAreOpenedReplacedAndMade) {
  for (int round = 0; round < 8; round++) {
    const DeviceHandle device = Rescan();
    SignDuring(device.get(), false, [&] {
      EXPECT_EQ(DeviceVerifyPwd(device.get(), 1, "wrong", nullptr), -5);
      EXPECT_EQ(DeviceVerifyPwd(device.get(), 1, PIN, nullptr), 1);
    });
  }
  SignDuring(device_.get(), true, [&] {
    for (int i = 0; i < 10; i++) {
      {
        const ModuleLock lock;  // as after a PIN change that could not keep its copy of the PIN
        FreePin(device_.get());
      }
      EXPECT_EQ(DeviceVerifyPwd(device_.get(), 1, PIN, nullptr), 1);
      MakeKeypairs(device_.get(), "made");
    }
  });
}
