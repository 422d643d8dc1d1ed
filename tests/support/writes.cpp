#include "tests/support/writes.h"

#include "store/store.h"

#include <openssl/rand.h>
#include <filesystem>
#include <sstream>

// --- The table -----------------------------------------------------------------------------------

static std::string Full(bool datas) {
  StoredDevice device;
  device.keypairs = {StoredKeypair{.certs = {"one", "two"}}.Json(),
                     StoredKeypair{.label = "encrypt", .type = 2, .key = &TestSm2()}.Json()};
  if (datas) device.more = {Array({StoredData(1, "first"), StoredData(2, "second")})};
  return device.File();
}

static int Import(Device* device) {
  Keypair* made = nullptr;
  const std::string& pair = TestP256().pair;
  const int result = DeviceImportKeypair(device, Raw(pair), Len(pair), 3, "new", &made);
  if (result == 1) DeviceFreeKeypair(made);
  return result;
}

static int AddCert(Device* device) {
  return DeviceAddCertificate(device->keypairs[0], Raw("three"), 5);
}

// Refused, which is 1 here: the backup may be the only good copy.
static int AddCertToDamaged(Device* device) { return AddCert(device) == 0 ? 1 : 0; }

static int Generate(Device* device) {
  Keypair* made = nullptr;
  const ECCKeypairParams params = {3, 0};
  const int result = DeviceGenerateKeypair(device, 4, 256, &params, 3, "new", &made);
  if (result == 1) DeviceFreeKeypair(made);
  return result;
}

static int DropKeypair(Device* device) {
  Keypair* keypair = DeviceGetKeypair(device, 0);
  const int result = DeviceDeleteKeypair(keypair);
  DeviceFreeKeypair(keypair);
  return result;
}

// Also a scan that is disturbed finds the device once, with its two keypairs, or not at all.
static int ScanFolder(Device* /*device*/) {
  const SetHandle set(DeviceGetAllDevices());
  if (!set) return 0;
  return set->count == 0 || (set->count == 1 && set->devices[0]->keypairCount == 2) ? 1 : 2;
}

static int ScanWithoutRename(Device* device) {
  return WithFault({"rename", 1, true}, [=] { return ScanFolder(device); });
}

static int ReadData(Device* device) {
  unsigned char bytes[8];
  return DeviceReadDataEx(device, 1, 0, bytes, sizeof(bytes), nullptr);
}

static int Overwrite(Device* device) { return DeviceWriteDataEx(device, 2, 1, Raw("TSHX"), 4); }

// The disk is full at the text of the new device file; 1 for the failure that is to be reported.
static int OverwriteFails(Device* device) {
  return WithFault({"fwrite", 4}, [=] { return Overwrite(device); }) == 0 ? 1 : 0;
}

static int NewPin(Device* device) { return DeviceChangePwd(device, 1, PIN, "new PIN", nullptr); }

std::vector<WriteOperation> WriteOperations() {
  static const std::string full = Full(true), bare = Full(false);
  const std::string older = StoredDevice().File();
  const std::string damaged = full.substr(0, full.size() / 2);
  struct Change {
    const char* what;
    int (*run)(Device*);
    const std::string* file = &full;
    const char* pin = PIN;
  };
  const Change changes[] = {
      {"certificate added", AddCert},
      {"certificate deleted", [](Device* d) { return DeviceDeleteCertificate(d->keypairs[0], 0); }},
      {"keypair imported", Import},
      {"keypair generated", Generate},
      {"keypair deleted", DropKeypair, &bare},
      {"data object created", [](Device* d) { return DeviceCreateData(d, 3, 0, 5); }},
      {"first data object created", [](Device* d) { return DeviceCreateData(d, 3, 0, 5); }, &bare},
      {"data object written", Overwrite},
      {"data object deleted", [](Device* d) { return DeviceDeleteData(d, 1); }},
      {"PIN changed", NewPin, &full, "new PIN"},
  };
  std::vector<WriteOperation> all;
  for (const Change& c : changes) {
    const std::string& file = *c.file;
    all.push_back({c.what, {{"dev", file}}, file, c.run, true, c.pin});
    all.push_back({c.what + std::string(" beside an older backup"),
                   {{"dev", file}, {"dev.bak", older}},
                   file,
                   c.run,
                   true,
                   c.pin});
  }
  const Files missing = {{"dev.bak", full}}, broken = {{"dev", damaged}, {"dev.bak", full}};
  const WriteOperation mends[] = {
      {"scan, stale backup", {{"dev", full}, {"dev.bak", older}}, full, ScanFolder, false},
      {"scan, damaged backup", {{"dev", full}, {"dev.bak", damaged}}, full, ScanFolder, false},
      {"scan, no device file", missing, full, ScanFolder, false},
      {"scan, damaged device file", broken, full, ScanFolder, false},
      {"scan, no device file, no rename", missing, full, ScanWithoutRename, false},
      {"scan, damaged device file, no rename", broken, full, ScanWithoutRename, false},
      {"read, no device file", missing, full, ReadData, false},
      {"read, damaged device file", broken, full, ReadData, false},
      {"certificate not added, wrong digest",
       {{"dev", Flipped(full, full.size() - 1)}, {"dev.bak", full}},
       full,
       AddCertToDamaged,
       false},
      {"data object not written", {{"dev", full}}, full, OverwriteFails, false},
      {"data object written, no device file", missing, full, Overwrite, true},
      {"data object written, damaged device file", broken, full, Overwrite, true},
      {"PIN changed, damaged device file", broken, full, NewPin, true, "new PIN"}};
  all.insert(all.end(), std::begin(mends), std::end(mends));
  return all;
}

// --- Randomness ----------------------------------------------------------------------------------

static unsigned long long g_state;

void WritesTest::RestartRandomness() { g_state = 1; }

static int FixedBytes(unsigned char* bytes, int count) {
  for (int i = 0; i < count; i++) {
    g_state = g_state * 6364136223846793005ULL + 1442695040888963407ULL;
    bytes[i] = static_cast<unsigned char>(g_state >> 56);
  }
  return 1;
}

void WritesTest::SetUp() {
  ModuleTest::SetUp();
  static const RAND_METHOD fixed = {nullptr, FixedBytes, nullptr, nullptr, FixedBytes, nullptr};
  ASSERT_EQ(RAND_set_rand_method(&fixed), 1);
  RestartRandomness();
}

void WritesTest::TearDown() {
  RAND_set_rand_method(nullptr);
  ModuleTest::TearDown();
}

// --- The folder ----------------------------------------------------------------------------------

void WritesTest::Put(const Files& files) const {
  for (const auto& entry : std::filesystem::directory_iterator(folder_)) remove(entry.path());
  for (const auto& [name, content] : files) Write(name, content);
}

Files WritesTest::Get() const {
  Files files;
  for (const auto& entry : std::filesystem::directory_iterator(folder_))
    files[entry.path().filename()] = Read(entry.path().filename());
  return files;
}

DeviceHandle WritesTest::Prepare(const WriteOperation& operation) {
  Put({});
  DeviceHandle device = Load(operation.record);
  Put(operation.start);
  RestartRandomness();
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

std::string WritesTest::Scan() const {
  const SetHandle set(DeviceGetAllDevices());
  if (!set || set->count != 1) return set ? std::to_string(set->count) + " devices" : "no scan";
  if (set->devices[0]->filePath != Path("dev")) return "another device file";
  const std::string told = Told(set->devices[0]);
  const Files files = Get();
  return files.size() == 1 && files.contains("dev") ? told : "left behind: other files";
}

std::string WritesTest::Scan(const Files& files) const {
  Put(files);
  const std::string found = Scan();
  return Scan() == found ? found : "another device in the second scan";
}

bool WritesTest::Opens(const std::string& found, const char* pin) {
  if (!opened_.insert(found + pin).second) return true;
  const SetHandle set(DeviceGetAllDevices());
  return set && set->count == 1 && DeviceVerifyPwd(set->devices[0], 1, pin, nullptr) == 1;
}
