// The calls of the module's interface.
#include "tests/support/calls.h"

#include <tuple>

static Keypair* g_keypair;  // handed out by the last call
static SetHandle g_set;
static DeviceHandle g_device;

static int ImportKeypair(Device* device, const TestKey& key) {
  return DeviceImportKeypair(device, Raw(key.pair), Len(key.pair), 3, "new", &g_keypair);
}

static int GenerateKeypair(Device* device, unsigned int algorithm, int bits, const void* params) {
  return DeviceGenerateKeypair(device, algorithm, bits, params, 3, "new", &g_keypair);
}

static int TakeHandle(Device* device) {
  g_keypair = DeviceGetKeypair(device, 0);
  return g_keypair != nullptr ? 1 : 0;
}

static int AddCert(Device* device) {
  return DeviceAddCertificate(device->keypairs[0], Raw("three"), 5);
}

// Also a scan that is disturbed finds the device once, or not at all.
static int ScanFolder(Device* /*device*/) {
  g_set.reset(DeviceGetAllDevices());
  g_device.reset(DeviceGetDevice(g_set.get(), 0));
  return g_device && g_set->count == 1 ? 1 : 0;
}

static int Overwrite(Device* device) { return DeviceWriteDataEx(device, 2, 1, Raw("TSHX"), 4); }

static int VerifyAnew(Device* device) {
  FreePin(device);
  return DeviceVerifyPwd(device, 1, PIN, nullptr);
}

// Signs and, if there is a cipher, encrypts, and back with a public key that has gone out of the
// module and in again.
static int Use(Keypair* keypair, unsigned int signing, unsigned int cipher) {
  static unsigned char e[32], out[600], text[32];
  int length = 0;
  PublicKey* key = nullptr;
  const PublicHandle own(DeviceGetPublicKeyFromKeypair(keypair));
  int result = own ? DeviceExportPublicKey(own.get(), out, 600, &length) : 0;
  if (result == 1) result = DeviceImportPublicKey(nullptr, out, length, &key);
  const PublicHandle owned(key);
  if (result == 1) result = DeviceSign(keypair, signing, nullptr, e, 32, out, 600, &length);
  if (result == 1) result = DeviceVerify(key, signing, nullptr, e, 32, out, length);
  if (result != 1 || cipher == 0) return result;
  result = DevicePublicKeyEncrypt(key, cipher, nullptr, e, 4, out, 600, &length);
  if (result != 1) return result;
  return DevicePrivateKeyDecrypt(keypair, cipher, nullptr, out, length, text, 4, &length);
}

// Beside the module that runs.
static int StartAndStop(Device* /*device*/) {
  const std::tuple running(std::exchange(g_lock, nullptr), std::exchange(g_hSoftDevice, nullptr),
                           std::exchange(g_keyFolder, nullptr), std::exchange(g_sm2, nullptr));
  const int started = DeviceInit();
  if (started == 1) DeviceEnd();
  std::tie(g_lock, g_hSoftDevice, g_keyFolder, g_sm2) = running;
  return started;
}

std::vector<Call> AllCalls() {
  static const ECCKeypairParams p256 = {CURVE_P256, 0}, sm2Once = {CURVE_SM2, 1};
  static const RSAKeypairParams rsaOnce = {nullptr, 0, 1};
  const StoredDevice stored = {
      .keypairs = {StoredKeypair{.certs = {"one", "two"}}.Json(),
                   StoredKeypair{.label = "encrypt", .type = 2, .key = &TestSm2()}.Json(),
                   StoredKeypair{.label = "RSA", .key = &TestRsa()}.Json()}};
  const Files bare = {{"dev", stored.File()}};
  std::string text = stored.Json();
  text.back() = ',';
  text += R"([[1,5,0,0,"6669727374"],[2,6,0,0,"7365636f6e64"]]])";  // "first" and "second"
  const std::string full = Container(TAG, text), older = StoredDevice().File();
  const std::string damaged = full.substr(0, full.size() / 2);
  const Files wrongDigest = {{"dev", Flipped(full, full.size() - 1)}, {"dev.bak", full}};
  std::vector<Call> all = {
      {"certificate added", AddCert, true},
      {"certificate deleted", [](Device* d) { return DeviceDeleteCertificate(d->keypairs[0], 0); },
       true},
      // Refused, which is 1 here: the backup may be the only good copy.
      {"certificate not added", [](Device* d) { return AddCert(d) == 0 ? 1 : 0; }, false, 0,
       wrongDigest},
      {"P-256 imported", [](Device* d) { return ImportKeypair(d, TestP256()); }, true},
      {"SM2 imported", [](Device* d) { return ImportKeypair(d, TestSm2()); }, true},
      {"RSA imported", [](Device* d) { return ImportKeypair(d, TestRsa()); }, true},
      {"P-256 generated", [](Device* d) { return GenerateKeypair(d, 4, 256, &p256); }, true},
      {"RSA generated", [](Device* d) { return GenerateKeypair(d, 1, 512, nullptr); }, true},
      {"SM2 generated", [](Device* d) { return GenerateKeypair(d, 4, 256, &sm2Once); }},
      {"temporary RSA generated", [](Device* d) { return GenerateKeypair(d, 1, 512, &rsaOnce); }},
      {"keypair deleted",
       [](Device* d) { return TakeHandle(d) == 1 ? DeviceDeleteKeypair(g_keypair) : 0; }, true, 0,
       bare},
      {"data object created", [](Device* d) { return DeviceCreateData(d, 3, 0, 5); }, true},
      {"first data object created", [](Device* d) { return DeviceCreateData(d, 3, 0, 5); }, true, 0,
       bare},
      {"data object deleted", [](Device* d) { return DeviceDeleteData(d, 1); }, true},
      {"PIN verified", VerifyAnew, false, -5},
      {"handle taken", TakeHandle},
      {"start and stop", StartAndStop},
      {"ECDSA", [](Device* d) { return Use(d->keypairs[0], 2048, 0); }},
      {"SM2", [](Device* d) { return Use(d->keypairs[1], 4096, 64); }},
      {"RSA", [](Device* d) { return Use(d->keypairs[2], 256, 16); }},
  };
  const Call fromAny[] = {
      {"scan", ScanFolder},
      {"scan without rename",
       [](Device* d) {
         return WithFault({"rename", 1, true}, [=] { return ScanFolder(d); });
       }},
      {"read", [](Device* d) { return DeviceReadDataEx(d, 1, 0, nullptr, 0, nullptr); }},
      {"data object written", Overwrite, true},
      {"data object not written",
       [](Device* d) {
         return WithFault({"fwrite", 4}, [=] { return Overwrite(d) == 0 ? 1 : 0; });
       }},
      {"PIN changed", [](Device* d) { return DeviceChangePwd(d, 1, PIN, NEW_PIN, nullptr); }, true,
       -5},
  };
  const std::pair<const char*, Files> starts[] = {
      {"", {{"dev", full}}},
      {", older backup", {{"dev", full}, {"dev.bak", older}}},
      {", damaged backup", {{"dev", full}, {"dev.bak", damaged}}},
      {", no device file", {{"dev.bak", full}}},
      {", damaged device file", {{"dev", damaged}, {"dev.bak", full}}},
  };
  for (const auto& [what, files] : starts)
    for (const Call& call : fromAny)
      all.push_back({call.what + what, call.run, call.changes, call.failure, files});
  for (Call& call : all)
    if (call.start.empty()) call.start = {{"dev", full}};
  return all;
}

void ReleaseResults() {
  KeypairHandle{std::exchange(g_keypair, nullptr)};
  g_device.reset();
  g_set.reset();
}
