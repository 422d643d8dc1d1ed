#include "world.h"

#include "harness.h"
#include "keypair/keypair.h"
#include "sm2/sm2.h"

#include <openssl/rand.h>
#include <stdlib.h>
#include <sys/vfs.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <sstream>

namespace fs = std::filesystem;

static std::map<std::pair<unsigned int, int>, Key> g_keys;

World::World(std::string* disk, std::string* memory) {
  for (std::string* folder : {disk, memory}) {
    std::string made = *folder + "/vakro-bench-XXXXXX";
    Check(mkdtemp(made.data()) != nullptr, "a folder in " + *folder);
    *folder = fs::canonical(made).string() + "/";
    folders_.push_back(*folder);
  }
  Check(DeviceInit() == 1, "DeviceInit");
}

World::~World() {
  g_keys.clear();
  DeviceEnd();
  for (const std::string& folder : folders_) {
    std::error_code ignored;
    fs::remove_all(folder, ignored);
  }
}

std::string FileSystemOf(const std::string& folder) {
  struct statfs info = {};
  if (statfs(folder.c_str(), &info) != 0) return "unknown";
  switch (static_cast<unsigned long>(info.f_type)) {
    case 0xEF53:
      return "ext4";
    case 0x01021994:
      return "tmpfs";
    case 0x58465342:
      return "xfs";
    case 0x9123683E:
      return "btrfs";
    case 0x794C7630:
      return "overlay";
    default:
      return "other";
  }
}

std::string NewFolder(const std::string& parent) {
  static int number = 0;
  std::string folder = parent + std::to_string(number++) + "/";
  fs::create_directory(folder);
  return folder;
}

std::string ReadFile(const std::string& path) {
  std::ostringstream content;
  content << std::ifstream(path, std::ios::binary).rdbuf();
  return content.str();
}

void WriteFile(const std::string& path, const std::string& content) {
  std::ofstream file(path, std::ios::binary);
  file << content;
  Check(file.flush().good(), "writing " + path);
}

// --- Device files ---

static std::string Container(const std::string& text) {
  unsigned char header[8] = {0, 0, 0, 7};
  int2be(static_cast<unsigned int>(text.size()), header + 4);
  unsigned char digest[64];
  Check(EVP_Digest(text.data(), text.size(), digest, nullptr, EVP_sha512(), nullptr) == 1, "hash");
  return std::string(header, header + sizeof(header)) + text +
         std::string(digest, digest + sizeof(digest));
}

static std::string SomeCertificate() {
  static std::mt19937 random;
  unsigned char bytes[CERT_SIZE];
  for (unsigned char& byte : bytes) byte = static_cast<unsigned char>(random());
  unsigned char text[CERT_SIZE * 4 / 3 + 4];
  return std::string(text, text + EVP_EncodeBlock(text, bytes, CERT_SIZE));
}

// Puts certificates into the empty lists that end each keypair.
static std::string WithCertificates(const std::string& text, const CertCount& certs) {
  static const std::string EMPTY = ",[]]";
  std::string result;
  size_t at = 0;
  for (int keypair = 0;; keypair++) {
    const size_t found = text.find(EMPTY, at);
    result += text.substr(at, found - at);
    if (found == std::string::npos) return result;
    result += ",[";
    for (int i = 0; i < certs(keypair); i++)
      result += (i == 0 ? "\"" : "\",\"") + SomeCertificate();
    result += certs(keypair) == 0 ? "]]" : "\"]]";
    at = found + EMPTY.size();
  }
}

std::string KeypairEncoding(const Key& key) {
  unsigned char* bytes = nullptr;
  int length = 0;
  EVP_PKEY* const pkey = key.pair->privateKey;
  const bool rsa = key.pair->algorithm == ALGORITHM_RSA;
  Check((rsa ? EncodeRSAKeypair(const_cast<RSA*>(EVP_PKEY_get0_RSA(pkey)), &bytes, &length)
             : EncodeECCKeypair(key.pair->curve, EVP_PKEY_get0_EC_KEY(pkey), &bytes, &length)) == 1,
        "encoding a keypair");
  const LibBytes owned(bytes);
  return std::string(bytes, bytes + length);
}

// The text of a device of `keypairs` keypairs without certificates.
static std::string DeviceText(int keypairs) {
  const std::string folder = NewFolder(g_options.memory);
  WriteFile(folder + "device", Container("[\"0\",\"bench\",[]]"));
  const DeviceHandle device = LoadDevice(folder, BENCH_PIN);
  const std::string encodings[] = {KeypairEncoding(EccKeyOf(CURVE_P256)),
                                   KeypairEncoding(EccKeyOf(CURVE_SM2)),
                                   KeypairEncoding(RsaKeyOf(2048))};
  for (int i = 0; i < keypairs; i++) {
    const std::string& encoding = encodings[i % 3];
    Keypair* made = nullptr;
    const std::string label = "keypair " + std::to_string(i);
    Check(DeviceImportKeypair(device.get(), reinterpret_cast<const unsigned char*>(encoding.data()),
                              static_cast<int>(encoding.size()), 1, label.c_str(), &made) == 1,
          "DeviceImportKeypair");
    DeviceFreeKeypair(made);
  }
  const std::string file = ReadFile(folder + "device");
  fs::remove_all(folder);
  return file.substr(8, file.size() - 8 - 64);
}

std::string NewDeviceFolder(const std::string& parent, int devices, int keypairs,
                            const CertCount& certs) {
  std::string folder = NewFolder(parent);
  const std::string file = Container(WithCertificates(DeviceText(keypairs), certs));
  for (int i = 0; i < devices; i++) WriteFile(folder + "device" + std::to_string(i), file);
  return folder;
}

void UseFolder(const std::string& folder) {
  Check(DeviceSetKeyFolder(folder.c_str()) == 1, "memory");
}

DeviceHandle LoadDevice(const std::string& folder, const char* pin) {
  UseFolder(folder);
  const SetHandle set(DeviceGetAllDevices(), DeviceFreeDevices);
  DeviceHandle device(DeviceGetDevice(set.get(), 0), DeviceFreeDevice);
  Check(device != nullptr, "loading " + folder);
  int retries = 0;
  Check(pin == nullptr || DeviceVerifyPwd(device.get(), PIN_TYPE_USER, pin, &retries) == 1, "PIN");
  return device;
}

// --- Keys ---

std::shared_ptr<Keypair> GenerateTemporary(unsigned int algorithm, int size) {
  Device none = {};  // a temporary keypair touches no device
  const RSAKeypairParams rsa = {nullptr, 0, 1};
  const ECCKeypairParams ecc = {size, 1};
  const bool isRsa = algorithm == ALGORITHM_RSA;
  const void* params = isRsa ? static_cast<const void*>(&rsa) : &ecc;
  Keypair* made = nullptr;
  Check(DeviceGenerateKeypair(&none, algorithm, isRsa ? size : 256, params, 1, "temporary",
                              &made) == 1,
        "DeviceGenerateKeypair");
  return {made, DeviceFreeKeypair};
}

static Key KeyOf(unsigned int algorithm, int size) {
  Key& key = g_keys[{algorithm, size}];
  if (key.pair != nullptr) return key;
  const SameRandom random;
  key.pair = GenerateTemporary(algorithm, size);
  key.pub.reset(DeviceGetPublicKeyFromKeypair(key.pair.get()), DeviceFreePublicKey);
  Check(key.pub != nullptr, "DeviceGetPublicKeyFromKeypair");
  return key;
}

Key RsaKeyOf(int bits) { return KeyOf(ALGORITHM_RSA, bits); }
Key EccKeyOf(int curve) { return KeyOf(ALGORITHM_ECC, curve); }

// --- Random numbers ---

static std::mt19937_64 g_random;

static int NextBytes(unsigned char* bytes, int length) {
  for (int i = 0; i < length; i++) bytes[i] = static_cast<unsigned char>(g_random());
  return 1;
}

SameRandom::SameRandom() {
  static const RAND_METHOD METHOD = {nullptr, NextBytes, nullptr,
                                     nullptr, NextBytes, [] { return 1; }};
  g_random.seed(4);  // finds its primes soon
  RAND_set_rand_method(&METHOD);
}

SameRandom::~SameRandom() { RAND_set_rand_method(RAND_OpenSSL()); }
