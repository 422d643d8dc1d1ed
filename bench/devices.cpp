// Device files: opening by PIN, the scan of a folder, and the rewrites, each beside the work that
// nothing can save: the key derivations, or reading, hashing, copying and writing the same bytes.
#include "harness.h"
#include "operations.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

static constexpr double PIN_COST = 1.05;
static constexpr double SCAN_COST = 2.0;
static constexpr double REWRITE_COST = 3.0;

static constexpr int DATA_SIZE = 4096;

static int NoCerts(int /*keypair*/) { return 0; }

// --- PIN ---

// What each private key costs at least: PBKDF2 and AES-256-GCM over its blob.
struct BareDecryption {
  DeviceHandle device;  // verified or not
  std::shared_ptr<EVP_CIPHER_CTX> context{EVP_CIPHER_CTX_new(), EVP_CIPHER_CTX_free};
  Bytes output = Bytes(8192);

  bool Decrypt(const Keypair& keypair) {
    unsigned char material[40];
    if (PKCS5_PBKDF2_HMAC(BENCH_PIN, sizeof(BENCH_PIN) - 1, keypair.salt, keypair.saltLen, 2000,
                          EVP_sha512(), sizeof(material), material) != 1)
      return false;
    unsigned char nonce[64];
    memcpy(nonce, material + 32, 8);
    memcpy(nonce + 8, keypair.iv, static_cast<size_t>(keypair.ivLen));
    unsigned char aad[] = "TAG_password";
    int2be(device->fileTag, aad);
    const int blobLen = keypair.encryptedPrivateKeyLen - 16;
    int length = 0;
    EVP_CIPHER_CTX* const c = context.get();
    return EVP_DecryptInit_ex(c, EVP_aes_256_gcm(), nullptr, nullptr, nullptr) == 1 &&
           EVP_CIPHER_CTX_ctrl(c, EVP_CTRL_AEAD_SET_IVLEN, 8 + keypair.ivLen, nullptr) == 1 &&
           EVP_DecryptInit_ex(c, nullptr, nullptr, material, nonce) == 1 &&
           EVP_DecryptUpdate(c, nullptr, &length, aad, sizeof(aad) - 1) == 1 &&
           EVP_DecryptUpdate(c, output.data(), &length, keypair.encryptedPrivateKey, blobLen) ==
               1 &&
           EVP_CIPHER_CTX_ctrl(c, EVP_CTRL_AEAD_SET_TAG, 16,
                               keypair.encryptedPrivateKey + blobLen) == 1 &&
           EVP_DecryptFinal_ex(c, output.data() + length, &length) == 1;
  }

  bool operator()() {
    for (int i = 0; i < device->keypairCount; i++)
      if (!Decrypt(*device->keypairs[i])) return false;
    return true;
  }
};

static std::string Keypairs(int count) {
  return std::to_string(count) + (count == 1 ? " keypair" : " keypairs");
}

static void MeasurePin() {
  for (const int count : {1, 8, 64}) {
    Measure("verify PIN/" + Keypairs(count), CostAtMost(PIN_COST),
            [count]() -> std::vector<Contender> {
              const std::string folder = NewDeviceFolder(g_options.memory, 1, count, NoCerts);
              const auto device = std::make_shared<DeviceHandle>();
              const auto load = [=] { *device = LoadDevice(folder, nullptr); };
              const auto verify = [=] {
                int retries = 0;
                return DeviceVerifyPwd(device->get(), PIN_TYPE_USER, BENCH_PIN, &retries) == 1;
              };
              return {TimedAfter("DeviceVerifyPwd", load, verify),
                      Timed("PBKDF2, AES-GCM", BareDecryption{LoadDevice(folder, nullptr)})};
            });
  }
}

// --- Reading ---

// Reads a file into a buffer that is kept, at the cheapest.
static void ReadInto(const std::string& path, Bytes& content) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  struct stat info = {};
  Check(fd >= 0 && fstat(fd, &info) == 0, path);
  content.resize(static_cast<size_t>(info.st_size));
  Check(read(fd, content.data(), content.size()) == info.st_size, path);
  close(fd);
}

// Hashes the text of a device file and compares the digest.
static bool HashContainer(const Bytes& file) {
  unsigned char digest[64];
  return EVP_Digest(file.data() + 8, file.size() - 8 - 64, digest, nullptr, EVP_sha512(),
                    nullptr) == 1 &&
         memcmp(digest, file.data() + file.size() - 64, 64) == 0;
}

static bool ReadAndHash(const std::string& folder, Bytes& content) {
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    if (!entry.is_regular_file()) continue;
    ReadInto(entry.path(), content);
    if (!HashContainer(content)) return false;
  }
  return true;
}

static void MeasureScan() {
  const int devices = g_options.quick ? 2 : MAX_DEVICES;
  Measure("scan/" + std::to_string(devices) + " devices", CostAtMost(SCAN_COST),
          [devices]() -> std::vector<Contender> {
            const std::string folder = NewDeviceFolder(g_options.memory, devices, MAX_KEYPAIRS,
                                                       [](int) { return MAX_CERTS; });
            const auto set = std::make_shared<SetHandle>();
            const auto prepare = [=] {
              set->reset();
              UseFolder(folder);
            };
            const auto scan = [=] {
              set->reset(DeviceGetAllDevices(), DeviceFreeDevices);
              return DeviceGetDeviceCount(set->get()) == devices;
            };
            return {TimedAfter("DeviceGetAllDevices", prepare, scan),
                    Timed("read, SHA-512", [folder, content = Bytes()]() mutable {
                      return ReadAndHash(folder, content);
                    })};
          });
}

// --- Rewriting ---

// A verified device of 64 keypairs with 10 certificates, but 9 on the one that gets the tenth.
struct Full {
  static constexpr int TARGET = MAX_KEYPAIRS / 2;
  std::string folder;
  DeviceHandle device;
  std::shared_ptr<Keypair> keypair;
  Bytes cert = SomeBytes(CERT_SIZE);
  Bytes data = SomeBytes(DATA_SIZE);

  explicit Full(const std::string& parent)
      : folder(NewDeviceFolder(parent, 1, MAX_KEYPAIRS,
                               [](int i) { return i == TARGET ? MAX_CERTS - 1 : MAX_CERTS; })),
        device(LoadDevice(folder, BENCH_PIN)),
        keypair(DeviceGetKeypair(device.get(), TARGET), DeviceFreeKeypair) {
    Check(DeviceCreateData(device.get(), 1, 0, DATA_SIZE) == 1, "DeviceCreateData");
  }

  bool AddCert() const { return DeviceAddCertificate(keypair.get(), cert.data(), Len(cert)) == 1; }
  bool DeleteCert() const { return DeviceDeleteCertificate(keypair.get(), MAX_CERTS - 1) == 1; }
  void SetCerts(int count) const {
    const int now = DeviceGetCertificateCount(keypair.get());
    if (now != count) Check(now < count ? AddCert() : DeleteCert(), "preparing certificates");
  }
  void SetData(bool exists) const {
    const int made = DeviceReadDataEx(device.get(), 2, 0, nullptr, 0, nullptr);
    if (exists && made != 1) Check(CreateData(), "preparing data");
    if (!exists && made == 1) Check(DeleteData(), "preparing data");
  }
  bool CreateData() const { return DeviceCreateData(device.get(), 2, 0, DATA_SIZE) == 1; }
  bool WriteData() const {
    return DeviceWriteDataEx(device.get(), 2, 0, data.data(), Len(data)) == 1;
  }
  bool DeleteData() const { return DeviceDeleteData(device.get(), 2) == 1; }
};

static void WriteFlushed(const std::string& path, const Bytes& content) {
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  Check(fd >= 0 &&
            write(fd, content.data(), content.size()) == static_cast<ssize_t>(content.size()) &&
            fdatasync(fd) == 0,
        path);
  close(fd);
}

// What a backed-up rewrite does to the disk and no more: copy the file to its backup, write it, and
// remove the backup, flushed at the same points.
struct BareRewrite {
  std::string folder;
  Bytes text;
  bool hash = false;  // also the digest of what is written
  Bytes copy = {};

  bool operator()() {
    const std::string path = folder + "device";
    ReadInto(path, copy);
    WriteFlushed(path + ".bak", copy);
    const int fd = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    Check(fd >= 0 && fsync(fd) == 0, folder);
    close(fd);
    if (hash && !HashContainer(text)) return false;
    WriteFlushed(path, text);
    return unlink((path + ".bak").c_str()) == 0;
  }
};

// RewriteLike copies the device file of `folder`, to be rewritten beside it.
static BareRewrite RewriteLike(const std::string& folder) {
  BareRewrite bare{NewFolder(folder), {}};
  ReadInto(folder + "device0", bare.text);
  WriteFlushed(bare.folder + "device", bare.text);
  return bare;
}

namespace {
struct Rewrite {
  const char* name;
  const char* function;
  void (*before)(const Full&);
  bool (*call)(const Full&);
};
}  // namespace

static const Rewrite REWRITES[] = {
    {"add certificate", "DeviceAddCertificate", [](const Full& full) { full.SetCerts(9); },
     [](const Full& full) { return full.AddCert(); }},
    {"delete certificate", "DeviceDeleteCertificate", [](const Full& full) { full.SetCerts(10); },
     [](const Full& full) { return full.DeleteCert(); }},
    {"create data", "DeviceCreateData", [](const Full& full) { full.SetData(false); },
     [](const Full& full) { return full.CreateData(); }},
    {"write data", "DeviceWriteDataEx", [](const Full& full) { full.SetData(true); },
     [](const Full& full) { return full.WriteData(); }},
    {"delete data", "DeviceDeleteData", [](const Full& full) { full.SetData(true); },
     [](const Full& full) { return full.DeleteData(); }},
};

static void MeasureRewrites(const char* where, const std::string& parent, clockid_t clock) {
  const auto shared = std::make_shared<std::shared_ptr<Full>>();  // made by the first row
  const auto contenders = [=](const Rewrite& rewrite) -> std::vector<Contender> {
    if (*shared == nullptr) *shared = std::make_shared<Full>(parent);
    const std::shared_ptr<Full> full = *shared;
    const BareRewrite bare = RewriteLike(full->folder);
    std::vector<Contender> row = {
        TimedAfter(
            rewrite.function, [=] { rewrite.before(*full); }, [=] { return rewrite.call(*full); }),
        Timed("copy, write", bare)};
    if (parent == g_options.memory) {
      BareRewrite hashed = bare;
      hashed.hash = true;
      row.push_back(Timed("copy, SHA-512, write", hashed));
    }
    return row;
  };
  for (const Rewrite& rewrite : REWRITES) {
    Measure(
        std::string(rewrite.name) + '/' + where, CostAtMost(REWRITE_COST),
        [=] { return contenders(rewrite); }, clock);
  }
}

static void MeasureReadData() {
  Measure("read data/4 KB of 1 MB", {}, []() -> std::vector<Contender> {
    const auto full = std::make_shared<Full>(g_options.memory);
    const auto call = [full, data = Bytes(DATA_SIZE)]() mutable {
      unsigned int length = 0;
      return DeviceReadDataEx(full->device.get(), 1, 0, data.data(), Len(data), &length) == 1;
    };
    return {Timed("DeviceReadDataEx", call),
            Timed("read, SHA-512", [folder = full->folder, content = Bytes()]() mutable {
              return ReadAndHash(folder, content);
            })};
  });
}

// --- Keys that are stored ---

static bool Derive(int times) {
  unsigned char material[40];
  const Bytes salt = SomeBytes(32);
  for (int i = 0; i < times; i++) {
    if (PKCS5_PBKDF2_HMAC(BENCH_PIN, sizeof(BENCH_PIN) - 1, salt.data(), Len(salt), 2000,
                          EVP_sha512(), sizeof(material), material) != 1)
      return false;
  }
  return true;
}

// A verified device of one keypair, which gets and loses a second one.
struct Small {
  std::string folder = NewDeviceFolder(g_options.memory, 1, 1, NoCerts);
  DeviceHandle device = LoadDevice(folder, BENCH_PIN);
  std::string encoding = KeypairEncoding(EccKeyOf(CURVE_P256));

  bool Generate() const {
    const ECCKeypairParams stored = {CURVE_P256, 0};
    Keypair* made = nullptr;
    return DeviceGenerateKeypair(device.get(), ALGORITHM_ECC, 256, &stored, 2, "second", &made) ==
               1 &&
           DeviceFreeKeypair(made) == 1;
  }
  bool Import() const {
    Keypair* made = nullptr;
    return DeviceImportKeypair(device.get(),
                               reinterpret_cast<const unsigned char*>(encoding.data()),
                               static_cast<int>(encoding.size()), 2, "second", &made) == 1 &&
           DeviceFreeKeypair(made) == 1;
  }
  bool Delete() const {
    const std::shared_ptr<Keypair> second(DeviceGetKeypair(device.get(), 1), DeviceFreeKeypair);
    return DeviceDeleteKeypair(second.get()) == 1;
  }
  void SetKeypairs(int count) const {
    const int now = DeviceGetKeypairCount(device.get());
    if (now != count) Check(now < count ? Import() : Delete(), "preparing keypairs");
  }
};

static void MeasureStoredKeys() {
  const auto row = [](const char* name, const char* function, const char* bareName, int count,
                      auto call, auto bareKey) {
    Measure(name, {}, [=]() -> std::vector<Contender> {
      const auto device = std::make_shared<Small>();
      return {TimedAfter(
                  function, [=] { device->SetKeypairs(count); }, [=] { return call(*device); }),
              Timed(bareName, [=, rewrite = RewriteLike(device->folder)]() mutable {
                return bareKey() && rewrite();
              })};
    });
  };
  row(
      "generate/P-256, stored", "DeviceGenerateKeypair", "EC_KEY_generate_key, PBKDF2, copy, write",
      1, [](const Small& s) { return s.Generate(); },
      [] { return BareEcGeneration() && Derive(1); });
  row(
      "import/P-256", "DeviceImportKeypair", "PBKDF2, copy, write", 1,
      [](const Small& s) { return s.Import(); }, [] { return Derive(1); });
  row(
      "delete/keypair", "DeviceDeleteKeypair", "copy, write", 2,
      [](const Small& s) { return s.Delete(); }, [] { return true; });
  Measure("change PIN/64 keypairs", {}, []() -> std::vector<Contender> {
    const std::string folder = NewDeviceFolder(g_options.memory, 1, MAX_KEYPAIRS, NoCerts);
    const auto change = [device = LoadDevice(folder, BENCH_PIN), from = std::string(BENCH_PIN),
                         to = std::string("another one")]() mutable {
      int retries = 0;
      std::swap(from, to);
      return DeviceChangePwd(device.get(), PIN_TYPE_USER, to.c_str(), from.c_str(), &retries) == 1;
    };
    return {Timed("DeviceChangePwd", change),
            Timed("PBKDF2, copy, write", [rewrite = RewriteLike(folder)]() mutable {
              return Derive(MAX_KEYPAIRS) && rewrite();
            })};
  });
}

void MeasureDevices() {
  MeasurePin();
  MeasureScan();
  MeasureRewrites("disk", g_options.disk, CLOCK_MONOTONIC);
  MeasureRewrites("memory", g_options.memory, CLOCK_THREAD_CPUTIME_ID);
  MeasureReadData();
  MeasureStoredKeys();
}
