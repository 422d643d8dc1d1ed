// Device files: opening by PIN, the scan of a folder, and the rewrites, each beside the work that
// nothing can save: the key derivations, or reading, hashing, copying and writing the same bytes.
#include "device/device.h"
#include "keys.h"
#include "store/store.h"

#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

using SetHandle = std::shared_ptr<DeviceSet>;
using DeviceHandle = std::shared_ptr<Device>;

static constexpr int DATA_SIZE = 4096;
static const std::string CERT(1024, 'c'), DATA(DATA_SIZE, 'd');

// --- Folders full of devices ---

static std::string NewFolder(const std::string& parent) {
  static int number = 0;
  const std::string folder = parent + std::to_string(number++) + "/";
  std::filesystem::create_directory(folder);
  return folder;
}

// P-256, SM2 and RSA-2048 in turn, with so many certificates each.
static std::string NewDeviceFolder(const std::string& parent, int devices, int keypairs,
                                   int certs) {
  StoredDevice stored = {.keypairs = {}};
  const TestKey* const keys[] = {&TestP256(), &TestSm2(), &TestRsa()};
  for (int i = 0; i < keypairs; i++) {
    StoredKeypair keypair = {.label = "keypair " + std::to_string(i), .key = keys[i % 3]};
    for (int c = 0; c < certs; c++) keypair.certs.push_back(CERT + std::to_string(c));
    stored.keypairs.push_back(keypair.Json());
  }
  std::string folder = NewFolder(parent);
  const std::string file = stored.File();
  for (int i = 0; i < devices; i++) {
    std::ofstream out(folder + "device" + std::to_string(i), std::ios::binary);
    Check((out << file).flush().good(), "writing to " + folder);
  }
  return folder;
}

static SetHandle Scan(const std::string& folder) {
  Check(DeviceSetKeyFolder(folder.c_str()) == 1, "DeviceSetKeyFolder");
  return {DeviceGetAllDevices(), DeviceFreeDevices};
}

// Verified unless `pin` is NULL.
static DeviceHandle LoadDevice(const std::string& folder, const char* pin = PIN) {
  DeviceHandle device(DeviceGetDevice(Scan(folder).get(), 0), DeviceFreeDevice);
  Check(device != nullptr, "loading " + folder);
  Check(pin == nullptr || DeviceVerifyPwd(device.get(), 1, pin, nullptr) == 1, "the PIN");
  return device;
}

// --- The work beneath ---

static bool Derive(const Keypair* of, unsigned char (&material)[40]) {
  return PKCS5_PBKDF2_HMAC(PIN, sizeof(PIN) - 1, of->salt, of->saltLen, 2000, EVP_sha512(),
                           sizeof(material), material) == 1;
}

// What each private key costs at least: PBKDF2 and AES-256-GCM over its blob.
static bool Decrypt(const Device& device, const Keypair& keypair, EVP_CIPHER_CTX* c) {
  static std::string output(8192, '\0');
  unsigned char material[40], nonce[64], aad[] = "TAG_password";
  if (!Derive(&keypair, material)) return false;
  memcpy(nonce, material + 32, 8);
  memcpy(nonce + 8, keypair.iv, static_cast<size_t>(keypair.ivLen));
  int2be(device.fileTag, aad);
  unsigned char* const blob = keypair.encryptedPrivateKey;
  const int blobLen = keypair.encryptedPrivateKeyLen - 16;
  int length = 0;
  return EVP_DecryptInit_ex(c, EVP_aes_256_gcm(), nullptr, nullptr, nullptr) == 1 &&
         EVP_CIPHER_CTX_ctrl(c, EVP_CTRL_AEAD_SET_IVLEN, 8 + keypair.ivLen, nullptr) == 1 &&
         EVP_DecryptInit_ex(c, nullptr, nullptr, material, nonce) == 1 &&
         EVP_DecryptUpdate(c, nullptr, &length, aad, sizeof(aad) - 1) == 1 &&
         EVP_DecryptUpdate(c, Room(output), &length, blob, blobLen) == 1 &&
         EVP_CIPHER_CTX_ctrl(c, EVP_CTRL_AEAD_SET_TAG, 16, blob + blobLen) == 1 &&
         EVP_DecryptFinal_ex(c, Room(output) + length, &length) == 1;
}

// Reads a file into a buffer that is kept, at the cheapest.
static void ReadInto(const std::string& path, std::string& content) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  struct stat info = {};
  Check(fd >= 0 && fstat(fd, &info) == 0, path);
  content.resize(static_cast<size_t>(info.st_size));
  Check(read(fd, content.data(), content.size()) == info.st_size, path);
  close(fd);
}

static bool HashContainer(const std::string& file) {
  unsigned char digest[64];
  return EVP_Digest(file.data() + 8, file.size() - 72, digest, nullptr, EVP_sha512(), nullptr) ==
             1 &&
         memcmp(digest, file.data() + file.size() - 64, 64) == 0;
}

static Measured ReadAndHash(const std::string& folder) {
  return {[folder, content = std::string()]() mutable {
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
      if (!entry.is_regular_file()) continue;
      ReadInto(entry.path(), content);
      if (!HashContainer(content)) return false;
    }
    return true;
  }};
}

static void WriteFlushed(const std::string& path, const std::string& content) {
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  Check(fd >= 0 &&
            write(fd, content.data(), content.size()) == static_cast<ssize_t>(content.size()) &&
            fdatasync(fd) == 0,
        path);
  close(fd);
}

// What a backed-up rewrite of the device file does to the disk and no more: copy the file to its
// backup, write it, and remove the backup, flushed at the same points; with `hashes` also the two
// digests that a change asks for, of what is read and of what is written.
static Call BareRewrite(const std::string& folder, bool hashes = false) {
  std::string text;
  const std::string own = NewFolder(folder), path = own + "device";
  ReadInto(folder + "device0", text);
  WriteFlushed(path, text);
  return [=, copy = std::string()]() mutable {
    ReadInto(path, copy);
    WriteFlushed(path + ".bak", copy);
    const int fd = open(own.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    Check(fd >= 0 && fsync(fd) == 0, own);
    close(fd);
    if (hashes && !(HashContainer(copy) && HashContainer(text))) return false;
    WriteFlushed(path, text);
    return unlink((path + ".bak").c_str()) == 0;
  };
}

// --- PIN and scan ---

static void AddPin(int keypairs) {
  const std::string row =
      "verify PIN/" + std::to_string(keypairs) + (keypairs == 1 ? " keypair" : " keypairs");
  const auto folder = [=] { return NewDeviceFolder(g_memory, 1, keypairs, 0); };
  Add(row, "DeviceVerifyPwd", [=] {
    const auto device = std::make_shared<DeviceHandle>();
    const auto load = [=, own = folder()] { *device = LoadDevice(own, nullptr); };
    return Measured{[=] { return DeviceVerifyPwd(device->get(), 1, PIN, nullptr) == 1; }, load};
  });
  Add(row, "PBKDF2, AES-GCM", [=] {
    const std::shared_ptr<EVP_CIPHER_CTX> context(EVP_CIPHER_CTX_new(), EVP_CIPHER_CTX_free);
    return Measured{[=, device = LoadDevice(folder(), nullptr)] {
      for (int i = 0; i < device->keypairCount; i++)
        if (!Decrypt(*device, *device->keypairs[i], context.get())) return false;
      return true;
    }};
  });
}

static void AddScan() {
  const int devices = g_quick ? 2 : MAX_DEVICES;
  const std::string row = "scan/" + std::to_string(devices) + " devices";
  const auto folder = [=] { return NewDeviceFolder(g_memory, devices, MAX_KEYPAIRS, MAX_CERTS); };
  Add(row, "DeviceGetAllDevices", [=] {
    const auto set = std::make_shared<SetHandle>();
    return Measured{[=, own = folder()] {
                      *set = Scan(own);
                      return DeviceGetDeviceCount(set->get()) == devices;
                    },
                    [=] { set->reset(); }};
  });
  Add(row, "read, SHA-512", [=] { return ReadAndHash(folder()); });
}

// --- Rewriting ---

// A verified device of 64 keypairs with 9 certificates and a data object; what a row adds the next
// call takes away again, out of the time.
static DeviceHandle FullDevice(const std::string& folder) {
  DeviceHandle device = LoadDevice(folder);
  Check(DeviceCreateData(device.get(), 1, 0, DATA_SIZE) == 1, "DeviceCreateData");
  return device;
}

static bool AddCert(Device* d) {
  return DeviceAddCertificate(d->keypairs[32], Raw(CERT), Len(CERT)) == 1;
}
static bool DeleteCert(Device* d) { return DeviceDeleteCertificate(d->keypairs[32], 9) == 1; }
static bool CreateData(Device* d) { return DeviceCreateData(d, 2, 0, DATA_SIZE) == 1; }
static bool WriteData(Device* d) { return DeviceWriteDataEx(d, 1, 0, Raw(DATA), DATA_SIZE) == 1; }
static bool DeleteData(Device* d) { return DeviceDeleteData(d, 2) == 1; }

static void AddRewrites(const std::string& where, const std::string& parent, bool onDisk) {
  using Change = bool (*)(Device*);
  const struct {
    std::string row, who;
    Change call, undo;
    bool undoFirst;  // there must be something to delete
  } rows[] = {{"add certificate/", "DeviceAddCertificate", AddCert, DeleteCert, false},
              {"delete certificate/", "DeviceDeleteCertificate", DeleteCert, AddCert, true},
              {"create data/", "DeviceCreateData", CreateData, DeleteData, false},
              {"write data/", "DeviceWriteDataEx", WriteData, nullptr, false},
              {"delete data/", "DeviceDeleteData", DeleteData, CreateData, true}};
  for (const auto& row : rows) {
    const auto folder = [=] { return NewDeviceFolder(parent, 1, MAX_KEYPAIRS, MAX_CERTS - 1); };
    const auto add = [&](const std::string& who, const Make& make) {
      auto* const added = Add(row.row + where, who, make);
      if (onDisk) added->UseRealTime();  // it waits
    };
    add(row.who, [=] {
      const DeviceHandle device = FullDevice(folder());
      const auto undo = [=, isDue = row.undoFirst]() mutable {
        if (row.undo != nullptr && isDue) Check(row.undo(device.get()), "undoing " + row.row);
        isDue = true;
      };
      return Measured{[=] { return row.call(device.get()); }, undo};
    });
    add(onDisk ? "copy, write" : "copy, 2 SHA-512, write",
        [=] { return Measured{BareRewrite(folder(), !onDisk)}; });
  }
}

static void AddReadData() {
  const auto folder = [] { return NewDeviceFolder(g_memory, 1, MAX_KEYPAIRS, MAX_CERTS); };
  Add("read data/4 KB of 1 MB", "DeviceReadDataEx", [=] {
    return Measured{[device = FullDevice(folder()), data = DATA]() mutable {
      unsigned int length = 0;
      return DeviceReadDataEx(device.get(), 1, 0, Room(data), Len(data), &length) == 1;
    }};
  });
  Add("read data/4 KB of 1 MB", "read, SHA-512", [=] { return ReadAndHash(folder()); });
}

// --- Keys that are stored ---

static bool GenerateSecond(Device* d) {
  const ECCKeypairParams stored = {CURVE_P256, 0};
  Keypair* made = nullptr;
  return DeviceGenerateKeypair(d, ALGORITHM_ECC, 256, &stored, 2, "second", &made) == 1 &&
         DeviceFreeKeypair(made) == 1;
}
static bool ImportSecond(Device* d) {
  const std::string& pair = TestP256().pair;
  Keypair* made = nullptr;
  return DeviceImportKeypair(d, Raw(pair), Len(pair), 2, "second", &made) == 1 &&
         DeviceFreeKeypair(made) == 1;
}
static bool DeleteSecond(Device* d) {
  const std::shared_ptr<Keypair> second(DeviceGetKeypair(d, 1), DeviceFreeKeypair);
  return DeviceDeleteKeypair(second.get()) == 1;
}

static void AddStoredKeys() {
  const struct {
    std::string row, who, bare;
    bool (*call)(Device*);
    bool (*before)(Device*);
    bool generates, derives;
  } rows[] = {
      {"generate/P-256, stored", "DeviceGenerateKeypair",
       "EC_KEY_generate_key, PBKDF2, copy, write", GenerateSecond, DeleteSecond, true, true},
      {"import/P-256", "DeviceImportKeypair", "PBKDF2, copy, write", ImportSecond, DeleteSecond,
       false, true},
      {"delete/keypair", "DeviceDeleteKeypair", "copy, write", DeleteSecond, ImportSecond, false,
       false}};
  for (const auto& row : rows) {
    const auto folder = [] { return NewDeviceFolder(g_memory, 1, 1, 0); };
    Add(row.row, row.who, [=] {
      const DeviceHandle device = LoadDevice(folder());
      const auto before = [=] {
        if ((DeviceGetKeypairCount(device.get()) == 2) == (row.before == DeleteSecond))
          Check(row.before(device.get()), "preparing keypairs");
      };
      return Measured{[=] { return row.call(device.get()); }, before};
    });
    Add(row.row, row.bare, [=] {
      const std::string own = folder();
      return Measured{[=, device = LoadDevice(own), rewrite = BareRewrite(own)] {
        unsigned char material[40];
        return (!row.generates || BareEcGeneration()) &&
               (!row.derives || Derive(device->keypairs[0], material)) && rewrite();
      }};
    });
  }
}

static void AddPinChange() {
  const auto folder = [] { return NewDeviceFolder(g_memory, 1, MAX_KEYPAIRS, 0); };
  Add("change PIN/64 keypairs", "DeviceChangePwd", [=] {
    return Measured{[device = LoadDevice(folder()), from = std::string(PIN),
                     to = std::string("another one")]() mutable {
      std::swap(from, to);
      return DeviceChangePwd(device.get(), 1, to.c_str(), from.c_str(), nullptr) == 1;
    }};
  });
  Add("change PIN/64 keypairs", "PBKDF2, copy, write", [=] {
    const std::string own = folder();
    return Measured{[device = LoadDevice(own), rewrite = BareRewrite(own)] {
      unsigned char material[40];
      for (int i = 0; i < device->keypairCount; i++)
        if (!Derive(device->keypairs[i], material)) return false;
      return rewrite();
    }};
  });
}

void AddDevices() {
  for (const int keypairs : {1, 8, 64}) AddPin(keypairs);
  AddScan();
  AddRewrites("disk", g_disk, true);
  AddRewrites("memory", g_memory, false);
  AddReadData();
  AddStoredKeys();
  AddPinChange();
}
