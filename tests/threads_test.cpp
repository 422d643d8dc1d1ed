// Many threads on shared devices: every result, the reference counts and the files come out as if
// the calls had been made one after another. Nothing is replaced in this program but the five
// functions of the meeting below, so that ThreadSanitizer sees the module as it is.
#include "tests/support/world.h"

#include <dlfcn.h>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <set>
#include <thread>

// OpenSSL's library is not instrumented: its atomic reference counts would look like no order at
// all. The end of a test may unlock a lock that nobody holds, to see that nobody does.
extern "C" const char* __tsan_default_suppressions();
extern "C" const char* __tsan_default_suppressions() {
  return "called_from_lib:libcrypto.so\nmutex:ModuleTest::TearDown";
}

// --- The meeting: private-key arithmetic of two threads goes on side by side ---------------------

namespace {
struct Meeting {
  std::mutex mutex;
  std::condition_variable arrived;
  std::set<std::thread::id> inside;
  bool met = false;
};
std::atomic<Meeting*> g_meeting = nullptr;

// While a meeting is on, waits until two threads are inside at the same time, for a while.
void Meet() {
  Meeting* const meeting = g_meeting;
  if (meeting == nullptr) return;
  std::unique_lock lock(meeting->mutex);
  meeting->inside.insert(std::this_thread::get_id());
  meeting->met |= meeting->inside.size() == 2;
  meeting->arrived.notify_all();
  meeting->arrived.wait_for(lock, std::chrono::seconds(20), [meeting] { return meeting->met; });
  meeting->inside.erase(std::this_thread::get_id());
}
}  // namespace

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

// --- The world: a device of keys, and one of data objects and certificates -----------------------

namespace {
constexpr int THREADS = 8;
constexpr int ROUNDS = 4;
constexpr int SHARED_DATA = 100;  // written by all
constexpr int DATA_LENGTH = 40;

struct Use {
  int index;  // of the keypair
  unsigned int sign;
  unsigned int encrypt;  // 0: the key can't
};
constexpr Use USES[] = {
    {0, ALGORITHM_RSA_PKCS1_SIGN, ALGORITHM_RSA_PKCS1_ENCRYPT},
    {1, ALGORITHM_ECDSA_SIGN, 0},
    {2, ALGORITHM_SM2_SIGN, ALGORITHM_SM2_ENCRYPT},
};
constexpr int SHARED_KEYS = 3;
const std::string MESSAGE(32, 'm');

std::string KeysFile(const char* lastPin = PIN) {
  return StoredDevice{
      .label = "keys",
      .keypairs = {StoredKeypair{.key = &TestRsa()}.Json(), StoredKeypair{.type = 2}.Json(),
                   StoredKeypair{.type = 3, .key = &TestSm2(), .pin = lastPin}.Json()}}
      .File();
}

// The result and the output of a key operation.
struct Output {
  unsigned char bytes[600];
  int length = 0;
  int result = 0;
  std::string Text() const { return Bytes(bytes, length); }
};

template <class Operation, class Key>
Output Perform(Operation operation, Key* key, unsigned int algorithm, const std::string& data) {
  Output out;
  out.result = operation(key, algorithm, nullptr, Raw(data), Len(data), out.bytes,
                         sizeof(out.bytes), &out.length);
  return out;
}

int SignWith(Keypair* keypair, const Use& use) {
  return Perform(DeviceSign, keypair, use.sign, MESSAGE).result;
}

template <class Body>
void InThreads(int count, Body body) {
  std::vector<std::thread> threads;
  for (int i = 0; i < count; i++) threads.emplace_back(body, i);
  for (std::thread& thread : threads) thread.join();
}

class ThreadsTest : public ModuleTest {
 protected:
  // The device with this label of a new scan.
  static DeviceHandle Find(const std::string& label) {
    const SetHandle set(DeviceGetAllDevices());
    for (int i = 0; i < DeviceGetDeviceCount(set.get()); i++) {
      DeviceHandle device(DeviceGetDevice(set.get(), static_cast<unsigned int>(i)));
      if (label == device->label) return device;
    }
    ADD_FAILURE() << label;
    return nullptr;
  }
};

// --- What every thread does ----------------------------------------------------------------------

struct Worker {
  DeviceSet* set;
  Device* keys;
  Device* datas;
  int number;
  KeypairHandle own;  // on `datas`

  std::string Label(const char* what) const { return what + std::to_string(number); }
  std::string Value() const { return std::string(DATA_LENGTH, static_cast<char>('a' + number)); }
};

void SignAndVerify(Worker& worker) {
  for (const Use& use : USES) {
    const KeypairHandle keypair(DeviceGetKeypair(worker.keys, use.index));
    const PublicHandle key(DeviceGetPublicKeyFromKeypair(keypair.get()));
    const Output signature = Perform(DeviceSign, keypair.get(), use.sign, MESSAGE);
    ASSERT_EQ(signature.result, 1) << use.index;
    const auto verify = [&](const std::string& data) {
      return DeviceVerify(key.get(), use.sign, nullptr, Raw(data), Len(data), signature.bytes,
                          signature.length);
    };
    EXPECT_EQ(verify(MESSAGE), 1) << use.index;
    EXPECT_EQ(verify(Flipped(MESSAGE, 31)), 0) << use.index;
  }
}

void EncryptAndDecrypt(Worker& worker) {
  for (const Use& use : USES) {
    if (use.encrypt == 0) continue;
    const KeypairHandle keypair(DeviceGetKeypair(worker.keys, use.index));
    const PublicHandle key(DeviceGetPublicKeyFromKeypair(keypair.get()));
    const Output secret = Perform(DevicePublicKeyEncrypt, key.get(), use.encrypt, MESSAGE);
    ASSERT_EQ(secret.result, 1) << use.index;
    EXPECT_EQ(Perform(DevicePrivateKeyDecrypt, keypair.get(), use.encrypt, secret.Text()).Text(),
              MESSAGE);
  }
}

void PassHandles(Worker& worker) {
  const DeviceHandle device(DeviceGetDevice(worker.set, 0));
  unsigned char text[64];
  unsigned int length = 0;
  EXPECT_EQ(DeviceGetLabel(device.get(), text, sizeof(text), &length), 1);
  EXPECT_GE(DeviceGetKeypairCount(worker.keys), SHARED_KEYS);
  const KeypairHandle first(DeviceGetKeypair(worker.keys, 0));
  const KeypairHandle again(DeviceGetKeypair(worker.keys, 0));
  EXPECT_EQ(first, again);
  EXPECT_EQ(DeviceGetKeypair(worker.keys, 64), nullptr);
}

void PassPublicKeys(Worker& worker) {
  for (const Use& use : USES) {
    const KeypairHandle keypair(DeviceGetKeypair(worker.keys, use.index));
    const PublicHandle key(DeviceGetPublicKeyFromKeypair(keypair.get()));
    unsigned char encoding[600];
    int length = 0;
    ASSERT_EQ(DeviceExportPublicKey(key.get(), encoding, sizeof(encoding), &length), 1);
    PublicKey* imported = nullptr;
    ASSERT_EQ(DeviceImportPublicKey(nullptr, encoding, length, &imported), 1);
    EXPECT_EQ(DeviceGetPublicKeyBits(imported), DeviceGetPublicKeyBits(key.get()));
    DeviceFreePublicKey(imported);
  }
}

// Each thread has an object of its own, which it leaves behind, and all write the shared one, which
// nobody ever sees half written.
void UseData(Worker& worker) {
  const int id = worker.number + 1;
  const std::string value = worker.Value();
  const int deleted = DeviceDeleteData(worker.datas, id);
  EXPECT_TRUE(deleted == 1 || deleted == -7) << deleted;
  EXPECT_EQ(DeviceCreateData(worker.datas, id, 0, DATA_LENGTH), 1);
  for (const int to : {id, SHARED_DATA})
    EXPECT_EQ(DeviceWriteDataEx(worker.datas, to, 0, Raw(value), DATA_LENGTH), 1);
  for (const int from : {id, SHARED_DATA}) {
    unsigned char bytes[DATA_LENGTH];
    EXPECT_EQ(DeviceReadDataEx(worker.datas, from, 0, bytes, DATA_LENGTH, nullptr), 1);
    const std::string read = Bytes(bytes, DATA_LENGTH);
    EXPECT_EQ(read, from == id ? value : std::string(DATA_LENGTH, read[0]));
  }
}

void UseCertificates(Worker& worker) {
  const std::string one = worker.Label("one");
  const std::string two = worker.Label("two");
  EXPECT_EQ(DeviceAddCertificate(worker.own.get(), Raw(one), Len(one)), 1);
  EXPECT_EQ(DeviceAddCertificate(worker.own.get(), Raw(two), Len(two)), 1);
  const int last = DeviceGetCertificateCount(worker.own.get()) - 1;
  EXPECT_EQ(DeviceDeleteCertificate(worker.own.get(), last - 1), 1);
  unsigned char bytes[64];
  int length = 0;
  EXPECT_EQ(DeviceGetCertificate(worker.own.get(), last - 1, bytes, sizeof(bytes), &length), 1);
  EXPECT_EQ(Bytes(bytes, length), two);
}

void MakeKeypairs(Worker& worker) {
  static const ECCKeypairParams stored = {CURVE_P256, 0};
  static const ECCKeypairParams temporary = {CURVE_SM2, 1};
  const std::string label = worker.Label("made");
  Keypair* made = nullptr;
  ASSERT_EQ(DeviceGenerateKeypair(worker.keys, 4, 256, &temporary, 9, nullptr, &made), 1);
  EXPECT_EQ(SignWith(made, USES[2]), 1);
  EXPECT_EQ(DeviceFreeKeypair(made), 1);
  ASSERT_EQ(DeviceGenerateKeypair(worker.keys, 4, 256, &stored, 9, label.c_str(), &made), 1);
  EXPECT_EQ(DeviceDeleteKeypair(made), 1);
  EXPECT_EQ(DeviceFreeKeypair(made), 1);
  const std::string& pair = TestSm2().pair;
  ASSERT_EQ(DeviceImportKeypair(worker.keys, Raw(pair), Len(pair), 9, label.c_str(), &made), 1);
  EXPECT_EQ(SignWith(made, USES[2]), 1);
  EXPECT_EQ(DeviceDeleteKeypair(made), 1);
  EXPECT_EQ(DeviceFreeKeypair(made), 1);
}

void VerifyPins(Worker& worker) {
  EXPECT_EQ(DeviceVerifyPwd(worker.keys, 1, PIN, nullptr), 1);
  EXPECT_EQ(DeviceVerifyPwd(worker.keys, 1, "another PIN", nullptr), -5);
}

void Scan(Worker&) {
  const SetHandle set(DeviceGetAllDevices());
  EXPECT_EQ(DeviceGetDeviceCount(set.get()), 2);
}

constexpr void (*TASKS[])(Worker&) = {SignAndVerify,  EncryptAndDecrypt, PassHandles,
                                      PassPublicKeys, UseData,           UseCertificates,
                                      MakeKeypairs,   VerifyPins,        Scan};
}  // namespace

TEST_F(ThreadsTest, EverythingAtOnceComesOutAsInTurn) {
  Write("keys", KeysFile());
  Write("datas", StoredDevice{.label = "datas"}.File());
  SetHandle set(DeviceGetAllDevices());
  ASSERT_EQ(DeviceGetDeviceCount(set.get()), 2);
  DeviceHandle keys(DeviceGetDevice(set.get(), 0));
  DeviceHandle datas(DeviceGetDevice(set.get(), 1));
  if (keys->label != std::string("keys")) std::swap(keys, datas);
  ASSERT_EQ(DeviceVerifyPwd(keys.get(), 1, PIN, nullptr), 1);
  ASSERT_EQ(DeviceVerifyPwd(datas.get(), 1, PIN, nullptr), 1);
  ASSERT_EQ(DeviceCreateData(datas.get(), SHARED_DATA, 0, DATA_LENGTH), 1);

  InThreads(THREADS, [&](int number) {
    Worker worker = {set.get(), keys.get(), datas.get(), number, nullptr};
    const ECCKeypairParams params = {CURVE_P256, 0};
    Keypair* own = nullptr;
    ASSERT_EQ(
        DeviceGenerateKeypair(datas.get(), 4, 256, &params, 5, worker.Label("own").c_str(), &own),
        1);
    worker.own.reset(own);
    for (int round = 0; round < ROUNDS; round++) {
      for (size_t i = 0; i < std::size(TASKS); i++)
        TASKS[(i + static_cast<size_t>(number)) % std::size(TASKS)](worker);
    }
  });

  EXPECT_EQ(keys->keypairCount, SHARED_KEYS);
  EXPECT_EQ(keys->refCount, SHARED_KEYS + 2U);  // the set's and this handle
  EXPECT_EQ(datas->keypairCount, 1 + THREADS);
  EXPECT_EQ(datas->refCount, 1 + THREADS + 2U);
  set.reset();
  const DeviceHandle storedKeys = Find("keys");
  EXPECT_EQ(storedKeys->keypairCount, SHARED_KEYS);
  EXPECT_EQ(DeviceVerifyPwd(storedKeys.get(), 1, PIN, nullptr), 1);
  const DeviceHandle stored = Find("datas");
  EXPECT_EQ(DeviceVerifyPwd(stored.get(), 1, PIN, nullptr), 1);
  ASSERT_EQ(stored->keypairCount, datas->keypairCount);
  for (int i = 0; i < stored->keypairCount; i++) {
    EXPECT_STREQ(stored->keypairs[i]->label, datas->keypairs[i]->label);
    EXPECT_EQ(stored->keypairs[i]->certCount, i == 0 ? 0 : ROUNDS);
    EXPECT_EQ(datas->keypairs[i]->certCount, i == 0 ? 0 : ROUNDS);
  }
  for (int i = 0; i < THREADS; i++) {
    unsigned char bytes[DATA_LENGTH];
    EXPECT_EQ(DeviceReadDataEx(stored.get(), i + 1, 0, bytes, DATA_LENGTH, nullptr), 1);
    EXPECT_EQ(Bytes(bytes, DATA_LENGTH), std::string(DATA_LENGTH, static_cast<char>('a' + i)));
  }
}

TEST_F(ThreadsTest, PrivateKeysWorkSideBySide) {
  const DeviceHandle device = Load(KeysFile());
  for (const Use& use : USES) {
    Keypair* const keypair = device->keypairs[use.index];
    const PublicHandle key(DeviceGetPublicKeyFromKeypair(keypair));
    const std::string secret =
        use.encrypt == 0 ? ""
                         : Perform(DevicePublicKeyEncrypt, key.get(), use.encrypt, MESSAGE).Text();
    for (const bool decrypt : {false, true}) {
      if (decrypt && use.encrypt == 0) continue;
      SCOPED_TRACE(std::to_string(use.index) + (decrypt ? " decrypts" : " signs"));
      Meeting meeting;
      g_meeting = &meeting;
      InThreads(2, [&](int) {
        EXPECT_EQ(decrypt ? Perform(DevicePrivateKeyDecrypt, keypair, use.encrypt, secret).result
                          : SignWith(keypair, use),
                  1);
      });
      g_meeting = nullptr;
      EXPECT_TRUE(meeting.met);
    }
  }
}

// The results of signing with every keypair while `change` runs in another thread. Two more threads
// read what needs no lock.
template <class Change>
static std::set<int> SignDuring(Device* device, Change change) {
  std::atomic<bool> done = false;
  std::mutex mutex;
  std::set<int> results;
  const auto read = [&] {
    while (!done) {
      EXPECT_GE(DeviceGetKeypairCount(device), SHARED_KEYS);
      EXPECT_NE(PublicHandle(DeviceGetPublicKeyFromKeypair(device->keypairs[1])), nullptr);
    }
  };
  const auto sign = [&](int number) {
    bool last = false;
    while (!last) {
      last = done;  // once more when all is done
      const int result = SignWith(device->keypairs[number], USES[number]);
      const std::lock_guard lock(mutex);
      results.insert(result);
    }
  };
  InThreads(SHARED_KEYS + 3, [&](int number) {
    if (number < SHARED_KEYS) return sign(number);
    if (number > SHARED_KEYS) return read();
    change();
    done = true;
  });
  return results;
}

TEST_F(ThreadsTest, SignaturesWhileThePinIsVerified) {
  for (int round = 0; round < 8; round++) {
    const DeviceHandle device = Load(KeysFile(), nullptr);
    const std::set<int> results = SignDuring(device.get(), [&] {
      EXPECT_EQ(DeviceVerifyPwd(device.get(), 1, "wrong", nullptr), -5);
      EXPECT_EQ(DeviceVerifyPwd(device.get(), 1, PIN, nullptr), 1);
    });
    EXPECT_EQ(results.count(1), 1U);
    EXPECT_TRUE(results.size() == 1 || results == std::set<int>({-8, 1}));
  }
}

TEST_F(ThreadsTest, SignaturesWhileKeysAreDroppedAgain) {
  // The last keypair is under another PIN, so the first two are opened and dropped.
  const DeviceHandle device = Load(KeysFile("another PIN"), nullptr);
  const std::set<int> results = SignDuring(device.get(), [&] {
    for (int i = 0; i < 10; i++) EXPECT_EQ(DeviceVerifyPwd(device.get(), 1, PIN, nullptr), -5);
  });
  EXPECT_EQ(results, std::set<int>({-8}));
}

TEST_F(ThreadsTest, SignaturesWhileKeysAreReplacedAndMade) {
  const DeviceHandle device = Load(KeysFile());
  Worker maker = {nullptr, device.get(), nullptr, 0, nullptr};
  const std::set<int> results = SignDuring(device.get(), [&] {
    for (int i = 0; i < 10; i++) {
      {
        const ModuleLock lock;  // as after a PIN change that could not keep its copy of the PIN
        FreePin(device.get());
      }
      EXPECT_EQ(DeviceVerifyPwd(device.get(), 1, PIN, nullptr), 1);
      MakeKeypairs(maker);
    }
  });
  EXPECT_EQ(results, std::set<int>({1}));
}
