// Every call that an operation makes fails once, and once with all later ones: the operation gives
// its documented failure, leaks nothing, leaves the file old or new, and can be repeated.
#include "tests/support/operations.h"

#include <utility>

namespace {
// What an operation has made; given back when nothing fails any more.
Keypair* g_made = nullptr;
SetHandle g_set;
unsigned char g_buffer[600];
int g_length;
const std::string g_e(32, 'e');
const ECCKeypairParams P256 = {3, 0};
const ECCKeypairParams TEMPORARY_SM2 = {7, 1};

int Import(Device* device, const std::string& pair) {
  return DeviceImportKeypair(device, Raw(pair), Len(pair), 9, "n", &g_made);
}
int Sign(Keypair* keypair, unsigned int algorithm) {
  return DeviceSign(keypair, algorithm, nullptr, Raw(g_e), 32, g_buffer, 600, &g_length);
}

struct Operation {
  const char* what;
  bool writes;  // changes the file when it succeeds
  int (*run)(Device* device);
  int also = 0;  // another failure than 0
  friend void PrintTo(const Operation& o, std::ostream* out) { *out << o.what; }
};

// On a device of a P-256, an RSA and an SM2 keypair and data object 5. A stored text whose fourth
// item can't be fetched counts as one without data objects: -7.
const Operation OPERATIONS[] = {
    {"scan", false,
     [](Device*) {
       g_set.reset(DeviceGetAllDevices());
       return g_set && g_set->count == 1 ? 1 : 0;
     }},
    {"verify PIN", false, [](Device* d) { return DeviceVerifyPwd(d, 1, PIN, nullptr); }, -5},
    {"generate", true,
     [](Device* d) { return DeviceGenerateKeypair(d, 4, 256, &P256, 9, "n", &g_made); }},
    {"generate temporary", false,
     [](Device* d) { return DeviceGenerateKeypair(d, 4, 256, &TEMPORARY_SM2, 9, "n", &g_made); }},
    {"import RSA", true, [](Device* d) { return Import(d, TestRsa().pair); }},
    {"import SM2", true, [](Device* d) { return Import(d, TestSm2().pair); }},
    {"add certificate", true,
     [](Device* d) { return DeviceAddCertificate(d->keypairs[0], Raw("new"), 3); }},
    {"delete certificate", true,
     [](Device* d) { return DeviceDeleteCertificate(d->keypairs[0], 0); }},
    {"create data", true, [](Device* d) { return DeviceCreateData(d, 8, 0, 4); }},
    {"write data", true, [](Device* d) { return DeviceWriteDataEx(d, 5, 0, Raw("xyz"), 3); }, -7},
    {"delete data", true, [](Device* d) { return DeviceDeleteData(d, 5); }, -7},
    {"read data", false, [](Device* d) { return DeviceReadDataEx(d, 5, 0, g_buffer, 9, nullptr); },
     -7},
    {"public key", false,
     [](Device* d) { return PublicHandle(DeviceGetPublicKeyFromKeypair(d->keypairs[1])) ? 1 : 0; }},
    {"sign ECDSA", false, [](Device* d) { return Sign(d->keypairs[0], 2048); }},
    {"sign SM2", false, [](Device* d) { return Sign(d->keypairs[2], 4096); }},
    {"sign RSA", false, [](Device* d) { return Sign(d->keypairs[1], 256); }},
    {"encrypt and decrypt SM2", false,
     [](Device* d) {
       const PublicHandle key(DeviceGetPublicKeyFromKeypair(d->keypairs[2]));
       unsigned char plain[64];
       if (!key || DevicePublicKeyEncrypt(key.get(), 64, nullptr, Raw(g_e), 32, g_buffer, 600,
                                          &g_length) != 1)
         return 0;
       return DevicePrivateKeyDecrypt(d->keypairs[2], 64, nullptr, g_buffer, g_length, plain, 64,
                                      &g_length);
     }},
};
}  // namespace

class SweepTest : public ModuleTest, public testing::WithParamInterface<Operation> {
 protected:
  void Sweep(const Operation& operation, bool andLater);

  const std::string file_ = StoredDevice{
      .keypairs = {StoredKeypair{.certs = {"cert"}}.Json(),
                   StoredKeypair{.type = 2, .key = &TestRsa()}.Json(),
                   StoredKeypair{.type = 3, .key = &TestSm2()}.Json()},
      .more = {Array({StoredData(
          5, "value")})}}.File();
};

void SweepTest::Sweep(const Operation& operation, bool andLater) {
  const bool verified = operation.also != -5;
  DeviceHandle device;
  std::string record;
  const auto reload = [&] {
    remove(Path("dev.bak").c_str());
    device = Load(file_, verified ? PIN : nullptr);
    record = Describe(*device);
  };
  reload();
  for (long n = 1; n < 1000; n++) {
    const long live = LiveAllocations();
    const int result =
        WithFault({.nth = n, .andLater = andLater}, [&] { return operation.run(device.get()); });
    const std::string hit = FaultHit() == nullptr ? "no fault" : FaultHit();
    SCOPED_TRACE(hit + " in call " + std::to_string(n) + (andLater ? " and later" : ""));
    DeviceFreeKeypair(std::exchange(g_made, nullptr));
    g_set.reset();
    EXPECT_EQ(DeviceUnlockDevice(nullptr), 0) << "the lock is still held";
    if (result == 1) {
      EXPECT_EQ(Read("dev") != file_, operation.writes);
      // An item that the library won't hand out counts as absent; anything else loses nothing.
      if (operation.also != -7 && hit != "vakro_json_getarrayitem") {
        EXPECT_NE(Read("dev").find(StoredData(5, "value")), std::string::npos);
      }
      if (hit == "no fault") return;  // and that on the very record that failed so often
      if (operation.writes) reload();
      continue;
    }
    EXPECT_TRUE(hit != "no fault" && (result == 0 || result == operation.also)) << result;
    EXPECT_EQ(LiveAllocations(), live);
    EXPECT_TRUE(!verified || Describe(*device) == record);
    // Put back, or, when that failed too, still in the backup.
    EXPECT_TRUE(Read("dev") == file_ || (andLater && Read("dev.bak") == file_));
    if (Read("dev") == file_) continue;
    EXPECT_STREQ(Rescan()->label, "abc") << "the next scan finds the device whole";
    reload();
  }
  ADD_FAILURE() << "never succeeds";
}

TEST_P(SweepTest, AnyCallMayFail) {
  for (const bool andLater : {false, true}) Sweep(GetParam(), andLater);
}

INSTANTIATE_TEST_SUITE_P(, SweepTest, testing::ValuesIn(OPERATIONS), [](const auto& tested) {
  std::string name = tested.param.what;
  for (char& c : name) c = c == ' ' ? '_' : c;
  return name;
});
