#include "tests/support/world.h"

#include <dirent.h>
#include <openssl/rand.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>

std::string Bytes(const unsigned char* bytes, long length) {
  return length <= 0 ? "" : std::string(bytes, bytes + length);
}

static std::string Der(const EVP_PKEY* key) {
  unsigned char* der = nullptr;
  const int length = key == nullptr ? 0 : i2d_PrivateKey(key, &der);
  const std::string bytes = Bytes(der, length);
  OPENSSL_free(der);
  return bytes;
}

std::string Describe(const Device& device, bool addresses) {
  std::ostringstream out;
  out << device.serialNumber << ' ' << device.label << " pin "
      << (device.pin == nullptr ? "-" : device.pin) << " refs " << device.refCount << " tag "
      << device.fileTag << ' ' << device.filePath << ' ' << device.backupPath << '\n';
  for (int i = 0; i < device.keypairCount; i++) {
    const Keypair& k = *device.keypairs[i];
    if (addresses) out << &k << ' ' << k.privateKey << ' ';
    out << i << ' ' << k.label << ' ' << k.type << ' ' << k.algorithm << ' ' << k.bits << ' '
        << k.curve << ' ' << k.isTemp << ' ' << (k.device == &device) << ' '
        << Hex(Bytes(k.publicKey, k.publicKeyLen)) << ' ' << Hex(Bytes(k.salt, k.saltLen)) << ' '
        << Hex(Bytes(k.iv, k.ivLen)) << ' '
        << Hex(Bytes(k.encryptedPrivateKey, k.encryptedPrivateKeyLen))
        << (addresses ? "" : Hex(Der(k.privateKey))) << '\n';
    for (int c = 0; c < k.certCount; c++)
      out << "  " << Hex(Bytes(k.certs[c]->data, k.certs[c]->length)) << '\n';
  }
  return out.str();
}

static std::string g_first;
static std::mt19937 g_random;

static int FixedBytes(unsigned char* bytes, int count) {
  std::generate_n(bytes, count, [] { return static_cast<unsigned char>(g_random()); });
  g_first.erase(0, g_first.copy(reinterpret_cast<char*>(bytes), static_cast<size_t>(count)));
  return 1;
}

void FixRandom(const std::string& first) {
  static const RAND_METHOD fixed = {nullptr, FixedBytes, nullptr, nullptr, FixedBytes, nullptr};
  EXPECT_EQ(RAND_set_rand_method(&fixed), 1);
  g_first = first;
  g_random.seed(1);
}

ModuleTest::ModuleTest() {
  // In memory where there is such a folder: the module waits for stable storage at every write.
  const char* const wish = getenv("TMPDIR");
  const char* const usual = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/var/tmp";
  folder_ = std::string(wish != nullptr ? wish : usual) + "/module_tests.XXXXXX";
  EXPECT_NE(mkdtemp(folder_.data()), nullptr);
  folder_ += '/';
  EXPECT_EQ(DeviceInit(), 1);
  EXPECT_EQ(DeviceSetKeyFolder(folder_.c_str()), 1);
}

ModuleTest::~ModuleTest() {
  RAND_set_rand_method(nullptr);
  EXPECT_EQ(DeviceUnlockDevice(nullptr), 0) << "the lock is still held";
  EXPECT_EQ(DeviceEnd(), 1);
  EXPECT_EQ(LiveAllocations(), live_) << "not given back";
  std::filesystem::remove_all(folder_);
}

void ModuleTest::Write(const std::string& name, const std::string& content,
                       unsigned int mode) const {
  std::ofstream(Path(name), std::ios::binary) << content;
  ASSERT_EQ(chmod(Path(name).c_str(), mode), 0);
}

std::string ReadText(const std::string& path) {
  std::ostringstream content;
  content << std::ifstream(path, std::ios::binary).rdbuf();
  return content.str();
}

ModuleTest::Folder ModuleTest::List() const {
  Folder list;
  for (const auto& entry : std::filesystem::directory_iterator(folder_)) {
    struct stat status = {};
    EXPECT_EQ(lstat(entry.path().c_str(), &status), 0);
    const std::string name = entry.path().filename();
    list[name] = std::to_string(status.st_mode) + (S_ISREG(status.st_mode) ? Read(name) : "");
  }
  return list;
}

int ModuleTest::LeavingErrors(const std::function<int()>& call) {
  ERR_clear_error();
  ERR_raise(ERR_LIB_USER, 1);
  ERR_set_mark();
  ERR_raise(ERR_LIB_USER, 2);
  const int result = call();
  EXPECT_EQ(ERR_GET_REASON(ERR_peek_last_error()), 2) << "the last of OpenSSL's errors";
  ERR_pop_to_mark();
  EXPECT_EQ(ERR_GET_REASON(ERR_peek_last_error()), 1) << "the one before the mark";
  ERR_clear_error();
  return result;
}

void ModuleTest::Refuses(int want, const Device* device, const std::function<int()>& call) const {
  const Folder folder = List();
  const std::string record = device == nullptr ? "" : Describe(*device);
  const long live = LiveAllocations();
  EXPECT_EQ(LeavingErrors(call), want);
  EXPECT_EQ(LiveAllocations(), live) << "live allocations";
  EXPECT_TRUE(device == nullptr || Describe(*device) == record) << "the record changed";
  EXPECT_TRUE(List() == folder) << "the folder changed";
}

DeviceHandle ModuleTest::Rescan(const char* pin) {
  const SetHandle set(DeviceGetAllDevices());
  EXPECT_EQ(DeviceGetDeviceCount(set.get()), 1);
  DeviceHandle device(DeviceGetDevice(set.get(), 0));
  EXPECT_NE(device, nullptr);
  if (device && pin != nullptr) {
    EXPECT_EQ(DeviceVerifyPwd(device.get(), 1, pin, nullptr), 1);
  }
  return device;
}

pid_t ModuleTest::Fork(const std::function<void()>& body) {
  const pid_t child = fork();
  if (child != 0) return child;
  prctl(PR_SET_PDEATHSIG, SIGKILL);  // a hang is for ctest to end, however long that takes
  body();
  _exit(HasFailure() ? 1 : 0);
}

int ModuleTest::WaitFor(pid_t child) {
  int status = 0;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(WEXITSTATUS(status), 0);
  return WTERMSIG(status);
}

KeypairHandle Import(Device* device, std::string_view pair, int want, const std::string& label) {
  Keypair* made = nullptr;
  EXPECT_EQ(DeviceImportKeypair(device, Raw(pair), Len(pair), 9, label.c_str(), &made), want);
  return KeypairHandle(made);
}

KeypairHandle Generate(Device* device, unsigned int algorithm, int bits, const void* params,
                       const std::string& label) {
  Keypair* made = nullptr;
  EXPECT_EQ(DeviceGenerateKeypair(device, algorithm, bits, params, 9, label.c_str(), &made), 1);
  return KeypairHandle(made);
}
