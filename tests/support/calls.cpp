#include "tests/support/calls.h"

#include "store/store.h"

#include <fcntl.h>
#include <sys/file.h>
#include <filesystem>
#include <tuple>

// --- The calls -----------------------------------------------------------------------------------

static Keypair* g_keypair;  // handed out by the last call
static SetHandle g_set;
static DeviceHandle g_device;

bool IsFolderFree(const std::string& folder) {
  const Descriptor fd(open(folder.c_str(), O_RDONLY | O_DIRECTORY));
  return flock(fd.fd, LOCK_EX | LOCK_NB) == 0;
}

static int Import(Device* device, const std::string& pair) {
  return DeviceImportKeypair(device, Raw(pair), Len(pair), 3, "new", &g_keypair);
}

static int Generate(Device* device, unsigned int algorithm, int bits, const void* params) {
  return DeviceGenerateKeypair(device, algorithm, bits, params, 3, "new", &g_keypair);
}

static int TakeHandle(Device* device) {
  g_keypair = DeviceGetKeypair(device, 0);
  return g_keypair != nullptr ? 1 : 0;
}

static int DropKeypair(Device* device) {
  return TakeHandle(device) == 1 ? DeviceDeleteKeypair(g_keypair) : 0;
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

static int NewPin(Device* device) { return DeviceChangePwd(device, 1, PIN, "new PIN", nullptr); }

// Signs and, if there is a cipher, encrypts, and back with a public key that has gone out of the
// module and in again.
static int Use(Keypair* keypair, unsigned int signing, unsigned int cipher) {
  static unsigned char e[32], out[600], text[32];
  int length = 0;
  const PublicHandle own(DeviceGetPublicKeyFromKeypair(keypair));
  PublicKey* key = nullptr;
  if (DeviceExportPublicKey(own.get(), out, 600, &length) != 1 ||
      DeviceImportPublicKey(nullptr, out, length, &key) != 1)
    return 0;
  const PublicHandle owned(key);
  if (DeviceSign(keypair, signing, nullptr, e, 32, out, 600, &length) != 1 ||
      DeviceVerify(key, signing, nullptr, e, 32, out, length) != 1)
    return 0;
  if (cipher == 0) return 1;
  return DevicePublicKeyEncrypt(key, cipher, nullptr, e, 4, out, 600, &length) == 1
             ? DevicePrivateKeyDecrypt(keypair, cipher, nullptr, out, length, text, 4, &length)
             : 0;
}

// Beside the module that runs.
static int StartAndStop(Device* /*device*/) {
  const std::tuple running(g_lock, g_hSoftDevice, g_keyFolder, g_sm2);
  const int started = DeviceInit();
  if (started == 1) DeviceEnd();
  std::tie(g_lock, g_hSoftDevice, g_keyFolder, g_sm2) = running;
  return started;
}

static std::string Stored(bool datas) {
  StoredDevice device;
  device.keypairs = {StoredKeypair{.certs = {"one", "two"}}.Json(),
                     StoredKeypair{.label = "encrypt", .type = 2, .key = &TestSm2()}.Json(),
                     StoredKeypair{.label = "RSA", .key = &TestRsa()}.Json()};
  if (datas) device.more = {Array({StoredData(1, "first"), StoredData(2, "second")})};
  return device.File();
}

std::vector<Call> AllCalls() {
  static const ECCKeypairParams p256 = {CURVE_P256, 0}, sm2Once = {CURVE_SM2, 1};
  static const RSAKeypairParams rsaOnce = {nullptr, 0, 1};
  const std::string full = Stored(true), bare = Stored(false);
  const std::string older = StoredDevice().File(), damaged = full.substr(0, full.size() / 2);
  std::vector<Call> all = {
      {"certificate added", AddCert, true},
      {"certificate deleted", [](Device* d) { return DeviceDeleteCertificate(d->keypairs[0], 0); },
       true},
      {"P-256 imported", [](Device* d) { return Import(d, TestP256().pair); }, true},
      {"SM2 imported", [](Device* d) { return Import(d, TestSm2().pair); }, true},
      {"RSA imported", [](Device* d) { return Import(d, TestRsa().pair); }, true},
      {"P-256 generated", [](Device* d) { return Generate(d, 4, 256, &p256); }, true},
      {"RSA generated", [](Device* d) { return Generate(d, 1, 512, nullptr); }, true},
      {"SM2 generated", [](Device* d) { return Generate(d, 4, 256, &sm2Once); }},
      {"temporary RSA generated", [](Device* d) { return Generate(d, 1, 512, &rsaOnce); }},
      {"keypair deleted", DropKeypair, true, PIN, 0, bare},
      {"data object created", [](Device* d) { return DeviceCreateData(d, 3, 0, 5); }, true},
      {"first data object created", [](Device* d) { return DeviceCreateData(d, 3, 0, 5); }, true,
       PIN, 0, bare},
      {"data object deleted", [](Device* d) { return DeviceDeleteData(d, 1); }, true},
      {"PIN verified", VerifyAnew, false, PIN, -5},
      {"handle taken", TakeHandle},
      {"start and stop", StartAndStop},
      {"ECDSA", [](Device* d) { return Use(d->keypairs[0], 2048, 0); }},
      {"SM2", [](Device* d) { return Use(d->keypairs[1], 4096, 64); }},
      {"RSA", [](Device* d) { return Use(d->keypairs[2], 256, 16); }},
  };
  // Refused, which is 1 here: the backup may be the only good copy.
  const Files wrongDigest = {{"dev", Flipped(full, full.size() - 1)}, {"dev.bak", full}};
  const auto notAdded = [](Device* d) { return AddCert(d) == 0 ? 1 : 0; };
  all.push_back({"certificate not added", notAdded, false, PIN, 0, full, wrongDigest});
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
         return WithFault({"fwrite", 4}, [=] { return Overwrite(d); }) == 0 ? 1 : 0;
       }},
      {"PIN changed", NewPin, true, "new PIN", -5},
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
      all.push_back(
          {call.what + what, call.run, call.changes, call.pin, call.failure, full, files});
  for (Call& call : all) {
    if (call.record.empty()) call.record = full;
    if (call.start.empty()) call.start = {{"dev", call.record}};
  }
  return all;
}

// --- Their runs ----------------------------------------------------------------------------------

int CallsTest::Run(const Call& call, Device* device, int (*hook)(const ImportCall&)) {
  FixRandom();
  HookCalls(hook);
  const int result = call.run(device);
  HookCalls(nullptr);
  KeypairHandle{std::exchange(g_keypair, nullptr)};
  g_device.reset();
  g_set.reset();
  return result;
}

void CallsTest::Put(const Files& files) const {
  for (const auto& entry : std::filesystem::directory_iterator(folder_)) remove(entry.path());
  for (const auto& [name, content] : files) Write(name, content, 0640);
}

Files CallsTest::Get() const {
  Files files;
  for (const auto& entry : std::filesystem::directory_iterator(folder_))
    files[entry.path().filename()] = Read(entry.path().filename());
  return files;
}

DeviceHandle CallsTest::Prepare(const Call& call) {
  Put({});
  DeviceHandle device = Load(call.record);
  Put(call.start);
  return device;
}

std::string CallsTest::Scan() const {
  using std::filesystem::perms;
  for (const auto& entry : std::filesystem::directory_iterator(folder_))
    if ((entry.status().permissions() & ~perms{0640}) != perms{}) return "open to others";
  const SetHandle set(DeviceGetAllDevices());
  if (!set || set->count != 1 || set->devices[0]->filePath != Path("dev") ||
      set->devices[0]->backupPath != Path("dev.bak"))
    return "no device";
  const Files files = Get();
  return files.size() == 1 ? files.begin()->second : "left behind: other files";
}

std::string CallsTest::Scan(const Files& files) const {
  Put(files);
  const std::string found = Scan();
  return Scan() == found ? found : "another device in the second scan";
}

bool CallsTest::Opens(const std::string& found, const char* pin) {
  if (!opened_.insert(found + pin).second) return true;
  const SetHandle set(DeviceGetAllDevices());
  return set && set->count == 1 && DeviceVerifyPwd(set->devices[0], 1, pin, nullptr) == 1;
}
