#include "tests/support/calls.h"

#include "store/store.h"

#include <openssl/rand.h>
#include <stdlib.h>
#include <filesystem>
#include <sstream>
#include <tuple>

// --- The calls -----------------------------------------------------------------------------------

static KeypairHandle g_keypair;
static SetHandle g_set;

void GiveBack() {
  g_keypair.reset();
  g_set.reset();
}

bool LongTests() { return getenv("VAKRO_LONG_TESTS") != nullptr; }

static int Adopt(int result, Keypair*& made) {
  if (result == 1) g_keypair.reset(made);
  return result;
}

static int Import(Device* device, const TestKey& key) {
  Keypair* made = nullptr;
  return Adopt(DeviceImportKeypair(device, Raw(key.pair), Len(key.pair), 3, "new", &made), made);
}

static int Generate(Device* device, unsigned int algorithm, int bits, const void* params) {
  Keypair* made = nullptr;
  return Adopt(DeviceGenerateKeypair(device, algorithm, bits, params, 3, "new", &made), made);
}

static int AddCert(Device* device) {
  return DeviceAddCertificate(device->keypairs[0], Raw("three"), 5);
}

static int DropKeypair(Device* device) {
  g_keypair.reset(DeviceGetKeypair(device, 0));
  return g_keypair ? DeviceDeleteKeypair(g_keypair.get()) : 0;
}

// Also a scan that is disturbed finds the device once, or not at all.
static int ScanFolder(Device* /*device*/) {
  g_set.reset(DeviceGetAllDevices());
  return g_set ? g_set->count : 0;
}

static int ReadData(Device* device) {
  unsigned char bytes[8];
  return DeviceReadDataEx(device, 1, 0, bytes, sizeof(bytes), nullptr);
}

static int Overwrite(Device* device) { return DeviceWriteDataEx(device, 2, 1, Raw("TSHX"), 4); }

static int VerifyAnew(Device* device) {
  FreePin(device);
  return DeviceVerifyPwd(device, 1, PIN, nullptr);
}

static int NewPin(Device* device) { return DeviceChangePwd(device, 1, PIN, "new PIN", nullptr); }

// A key goes out of the module and in again.
static PublicHandle PublicKeyOf(Keypair* keypair) {
  const PublicHandle key(DeviceGetPublicKeyFromKeypair(keypair));
  unsigned char bytes[600];
  int length = 0;
  PublicKey* again = nullptr;
  if (DeviceExportPublicKey(key.get(), bytes, sizeof(bytes), &length) == 1)
    DeviceImportPublicKey(nullptr, bytes, length, &again);
  return PublicHandle(again);
}

static int SignAndVerify(Keypair* keypair, unsigned int algorithm) {
  unsigned char signature[600];
  int length = 0;
  const std::string e(32, 'e');
  const PublicHandle key = PublicKeyOf(keypair);
  if (!key || DeviceSign(keypair, algorithm, nullptr, Raw(e), 32, signature, sizeof(signature),
                         &length) != 1)
    return 0;
  return DeviceVerify(key.get(), algorithm, nullptr, Raw(e), 32, signature, length) == 1 ? 1 : 0;
}

static int EncryptAndDecrypt(Keypair* keypair, unsigned int algorithm) {
  unsigned char cipher[600], plain[600];
  int length = 0;
  const PublicHandle key = PublicKeyOf(keypair);
  if (!key || DevicePublicKeyEncrypt(key.get(), algorithm, nullptr, Raw("text"), 4, cipher,
                                     sizeof(cipher), &length) != 1)
    return 0;
  return DevicePrivateKeyDecrypt(keypair, algorithm, nullptr, cipher, length, plain, sizeof(plain),
                                 &length);
}

// Beside the module that runs.
static int StartAndStop(Device* /*device*/) {
  const std::tuple running(g_lock, g_hSoftDevice, g_keyFolder, g_sm2);
  const int started = DeviceInit();
  if (started == 1) DeviceEnd();
  std::tie(g_lock, g_hSoftDevice, g_keyFolder, g_sm2) = running;
  return started;
}

static int WithHandle(Device* device) {
  g_keypair.reset(DeviceGetKeypair(device, 0));
  return g_keypair ? 1 : 0;
}

// 1 for the failure that is to be reported.
template <int (*run)(Device*)>
static int Refused(Device* device) {
  return run(device) == 0 ? 1 : 0;
}

// The disk is full at the text of the new device file.
static int OverwriteFails(Device* device) {
  return WithFault({"fwrite", 4}, [=] { return Overwrite(device); });
}

static int ScanWithoutRename(Device* device) {
  return WithFault({"rename", 1, true}, [=] { return ScanFolder(device); });
}

static std::string Stored(bool datas, int more) {
  StoredDevice device;
  device.keypairs = {StoredKeypair{.certs = {"one", "two"}}.Json(),
                     StoredKeypair{.label = "encrypt", .type = 2, .key = &TestSm2()}.Json(),
                     StoredKeypair{.label = "RSA", .key = &TestRsa()}.Json()};
  std::vector<std::string> list = {StoredData(1, "first"), StoredData(2, "second")};
  for (int i = 0; i < more; i++) {
    const std::string name = "more " + std::to_string(i);
    device.keypairs.push_back(StoredKeypair{.label = name, .certs = {name}}.Json());
    list.push_back(StoredData(10 + i, name));
  }
  if (datas) device.more = {Array(list)};
  return device.File();
}

std::vector<Call> AllCalls() {
  static const ECCKeypairParams p256 = {CURVE_P256, 0}, temporary = {CURVE_SM2, 1};
  static const RSAKeypairParams once = {nullptr, 0, 1};
  const int more = LongTests() ? 6 : 0;
  const std::string full = Stored(true, more), bare = Stored(false, more);
  const std::string older = StoredDevice().File(), damaged = full.substr(0, full.size() / 2);
  const Files missing = {{"dev.bak", full}}, broken = {{"dev", damaged}, {"dev.bak", full}};

  const Call changes[] = {
      {"certificate added", {}, full, AddCert},
      {"certificate deleted",
       {},
       full,
       [](Device* d) { return DeviceDeleteCertificate(d->keypairs[0], 0); }},
      {"P-256 imported", {}, full, [](Device* d) { return Import(d, TestP256()); }},
      {"SM2 imported", {}, full, [](Device* d) { return Import(d, TestSm2()); }},
      {"RSA imported", {}, full, [](Device* d) { return Import(d, TestRsa()); }},
      {"P-256 generated", {}, full, [](Device* d) { return Generate(d, 4, 256, &p256); }},
      {"RSA generated", {}, full, [](Device* d) { return Generate(d, 1, 512, nullptr); }},
      {"keypair deleted", {}, bare, DropKeypair},
      {"data object created", {}, full, [](Device* d) { return DeviceCreateData(d, 3, 0, 5); }},
      {"first object created", {}, bare, [](Device* d) { return DeviceCreateData(d, 3, 0, 5); }},
      {"data object written", {}, full, Overwrite},
      {"data object deleted", {}, full, [](Device* d) { return DeviceDeleteData(d, 1); }},
      {"PIN changed", {}, full, NewPin, true, "new PIN", -5},
  };
  std::vector<Call> all;
  for (Call call : changes) {
    call.changes = true;
    call.start = {{"dev", call.record}};
    all.push_back(call);
    call.what += " beside an older backup";
    call.start["dev.bak"] = older;
    all.push_back(call);
  }
  const Call others[] = {
      {"scan", {{"dev", full}}, full, ScanFolder},
      {"scan, stale backup", {{"dev", full}, {"dev.bak", older}}, full, ScanFolder},
      {"scan, damaged backup", {{"dev", full}, {"dev.bak", damaged}}, full, ScanFolder},
      {"scan, no device file", missing, full, ScanFolder},
      {"scan, damaged device file", broken, full, ScanFolder},
      {"scan, no device file, no rename", missing, full, ScanWithoutRename},
      {"scan, damaged device file, no rename", broken, full, ScanWithoutRename},
      {"read", {{"dev", full}, {"dev.bak", older}}, full, ReadData},
      {"read, no device file", missing, full, ReadData},
      {"read, damaged device file", broken, full, ReadData},
      // The backup may be the only good copy.
      {"certificate not added, wrong digest",
       {{"dev", Flipped(full, full.size() - 1)}, {"dev.bak", full}},
       full,
       Refused<AddCert>},
      {"data object not written", {{"dev", full}}, full, Refused<OverwriteFails>},
      {"data object written, no device file", missing, full, Overwrite, true},
      {"data object written, damaged device file", broken, full, Overwrite, true},
      {"PIN changed, damaged device file", broken, full, NewPin, true, "new PIN", -5},
      {"PIN verified", {{"dev", full}}, full, VerifyAnew, false, PIN, -5},
      {"start and stop", {{"dev", full}}, full, StartAndStop},
      {"handle", {{"dev", full}}, full, WithHandle},
      {"SM2 generated",
       {{"dev", full}},
       full,
       [](Device* d) { return Generate(d, 4, 256, &temporary); }},
      {"temporary RSA generated",
       {{"dev", full}},
       full,
       [](Device* d) { return Generate(d, 1, 512, &once); }},
  };
  all.insert(all.end(), std::begin(others), std::end(others));
  const struct {
    const char* what;
    int (*run)(Keypair*, unsigned int);
    int keypair;
    unsigned int algorithm;
  } uses[] = {
      {"ECDSA", SignAndVerify, 0, 2048},        {"SM2 signature", SignAndVerify, 1, 4096},
      {"SM2 cipher", EncryptAndDecrypt, 1, 64}, {"RSA signature", SignAndVerify, 2, 256},
      {"RSA cipher", EncryptAndDecrypt, 2, 16},
  };
  for (const auto& use : uses) {
    all.push_back({use.what, {{"dev", full}}, full, [use](Device* d) {
                     return use.run(d->keypairs[use.keypair], use.algorithm);
                   }});
  }
  return all;
}

// --- Randomness ----------------------------------------------------------------------------------

static unsigned long long g_state;

static int FixedBytes(unsigned char* bytes, int count) {
  for (int i = 0; i < count; i++) {
    g_state = g_state * 6364136223846793005ULL + 1442695040888963407ULL;
    bytes[i] = static_cast<unsigned char>(g_state >> 56);
  }
  return 1;
}

void CallsTest::SetUp() {
  ModuleTest::SetUp();
  static const RAND_METHOD fixed = {nullptr, FixedBytes, nullptr, nullptr, FixedBytes, nullptr};
  ASSERT_EQ(RAND_set_rand_method(&fixed), 1);
}

void CallsTest::TearDown() {
  RAND_set_rand_method(nullptr);
  ModuleTest::TearDown();
}

int CallsTest::Run(const Call& call, Device* device) {
  g_state = 1;
  return call.run(device);
}

// --- The folder ----------------------------------------------------------------------------------

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

static std::string Told(Device* device) {
  std::ostringstream out;
  out << Describe(*device, false);
  Data** datas = nullptr;
  unsigned int count = 0;
  if (GetAllDatasFromFile(device, &datas, &count) != 1) return "no data objects to be read";
  for (unsigned int i = 0; i < count; i++)
    out << datas[i]->id << ' ' << Bytes(datas[i]->value, datas[i]->length) << '\n';
  FreeDatas(datas, static_cast<int>(count));
  return out.str();
}

std::string CallsTest::Scan() const {
  using std::filesystem::perms;
  for (const auto& entry : std::filesystem::directory_iterator(folder_))
    if ((entry.status().permissions() & ~perms{0640}) != perms{}) return "open to others";
  const SetHandle set(DeviceGetAllDevices());
  if (!set || set->count != 1) return set ? std::to_string(set->count) + " devices" : "no scan";
  if (set->devices[0]->filePath != Path("dev")) return "another device file";
  const std::string told = Told(set->devices[0]);
  const Files files = Get();
  return files.size() == 1 && files.contains("dev") ? told : "left behind: other files";
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
