#include "tests/support/world.h"

#include <openssl/rand.h>
#include <algorithm>
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
  EXPECT_EQ(DeviceInit(), 1);
  EXPECT_EQ(DeviceSetKeyFolder(folder_.c_str()), 1);
}

ModuleTest::~ModuleTest() {
  RAND_set_rand_method(nullptr);
  EXPECT_EQ(DeviceUnlockDevice(nullptr), 0) << "the lock is still held";
  EXPECT_EQ(DeviceEnd(), 1);
  EXPECT_EQ(LiveAllocations(), live_) << "not given back";
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
