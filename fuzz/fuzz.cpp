#include "fuzz/fuzz.h"

#include <dlfcn.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <unordered_map>

static unsigned char g_random = 0;

extern "C" int RAND_bytes(unsigned char* bytes, int length) {
  for (int i = 0; i < length; i++) bytes[i] = g_random++;
  return 1;
}

extern "C" int PKCS5_PBKDF2_HMAC(const char* pass, int passlen, const unsigned char* salt,
                                 int saltlen, int iter, const EVP_MD* digest, int keylen,
                                 unsigned char* out) {
  static const auto next =
      reinterpret_cast<decltype(&PKCS5_PBKDF2_HMAC)>(dlsym(RTLD_NEXT, "PKCS5_PBKDF2_HMAC"));
  static std::unordered_map<std::string, std::string> known;
  if (known.size() > 100000) known.clear();
  std::ostringstream name;
  name << passlen << ' ' << iter << ' ' << EVP_MD_get0_name(digest) << ' ' << keylen << ' '
       << View(pass, static_cast<size_t>(passlen)) << View(salt, static_cast<size_t>(saltlen));
  std::string& derived = known[name.str()];
  if (derived.empty()) {
    if (next(pass, passlen, salt, saltlen, iter, digest, keylen, out) != 1) return 0;
    derived = View(out, static_cast<size_t>(keylen));
  }
  memcpy(out, derived.data(), derived.size());
  return 1;
}

void Demand(bool holds, const char* condition, const char* file, int line) {
  if (holds) return;
  fprintf(stderr, "%s:%d: not so: %s\n", file, line, condition);
  abort();
}

std::string_view View(const void* bytes, size_t size) {
  return size == 0 ? std::string_view() : std::string_view(static_cast<const char*>(bytes), size);
}

namespace {
// The module and its folder, for the length of the program.
struct Module {
  std::string folder;

  Module() {
    const char* const base = getenv("TMPDIR");
    folder = base != nullptr ? base : access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
    folder += "/fuzz.XXXXXX";
    DEMAND(mkdtemp(folder.data()) != nullptr && DeviceInit() == 1);
    folder += '/';
    vakro_free(g_keyFolder);
    g_keyFolder = static_cast<char*>(vakro_malloc(folder.size() + 1, "fuzz", __LINE__));
    memcpy(g_keyFolder, folder.c_str(), folder.size() + 1);
  }
  Module(const Module&) = delete;
  Module& operator=(const Module&) = delete;
  ~Module() {
    DeviceEnd();
    std::filesystem::remove_all(folder);
  }
};
}  // namespace

static const std::string& Folder() {
  static const Module module;
  return module.folder;
}
static std::string Path() { return Folder() + "device"; }

World::World(std::string_view file) {
  g_random = 0;
  unlink(Path().c_str());
  unlink((Path() + BACKUP_SUFFIX).c_str());
  if (!file.empty()) Write(file);
}

void World::Write(std::string_view file) const {
  std::ofstream stream(Path(), std::ios::binary);
  stream << file;
  DEMAND(stream.flush().good());
}

std::string World::Read() const {
  std::ostringstream content;
  content << std::ifstream(Path(), std::ios::binary).rdbuf();
  return content.str();
}

DeviceHandle World::Load() const {
  const SetHandle set(DeviceGetAllDevices());
  DEMAND(set != nullptr && DeviceGetDeviceCount(set.get()) <= 1);
  DEMAND(access((Path() + BACKUP_SUFFIX).c_str(), F_OK) != 0);
  return DeviceHandle(DeviceGetDevice(set.get(), 0));
}

std::string Summary(const Device& device) {
  std::ostringstream text;
  text << device.serialNumber << '\n' << device.label << '\n' << device.fileTag << '\n';
  for (int i = 0; i < device.keypairCount; i++) {
    const Keypair& keypair = *device.keypairs[i];
    text << keypair.label << '\n'
         << keypair.type << ' ' << keypair.algorithm << ' ' << keypair.bits << ' '
         << Hex(View(keypair.publicKey, static_cast<size_t>(keypair.publicKeyLen))) << '\n';
    for (int c = 0; c < keypair.certCount; c++)
      text << Hex(View(keypair.certs[c]->data, static_cast<size_t>(keypair.certs[c]->length)))
           << '\n';
  }
  return text.str();
}

static constexpr unsigned int ALGORITHMS[] = {
    ALGORITHM_RSA_PKCS1_SIGN,    ALGORITHM_RSA_RAW_SIGN,    ALGORITHM_ECDSA_SIGN,
    ALGORITHM_SM2_SIGN,          ALGORITHM_RSA_RAW_ENCRYPT, ALGORITHM_SM2_ENCRYPT,
    ALGORITHM_RSA_PKCS1_ENCRYPT,
};
static constexpr int DIGEST_LEN = 32;
static const unsigned char BLOCK[4096] = {};  // a digest, a raw block, a signature, a plaintext

// Calls with a buffer that is as large as the function asks for.
template <class Call>
static void WithBuffer(Call call) {
  int needed = 0;
  if (call(nullptr, 0, &needed) != VAKRO_OK) return;
  DEMAND(needed > 0);
  std::string buffer(static_cast<size_t>(needed), '\0');
  int length = 0;
  const int result = call(reinterpret_cast<unsigned char*>(buffer.data()), needed, &length);
  DEMAND(result == VAKRO_OK || result == VAKRO_FAILED);
  DEMAND(length >= 0 && length <= needed);
}

static bool IsRaw(unsigned int algorithm) {
  return algorithm == ALGORITHM_RSA_RAW_SIGN || algorithm == ALGORITHM_RSA_RAW_ENCRYPT;
}

// The bits come from a file and may say anything.
static int ModulusSize(unsigned int bits) {
  return static_cast<int>(std::min<size_t>(bits / 8 + (bits % 8 != 0 ? 1 : 0), sizeof(BLOCK)));
}

void UsePrivateKey(Keypair* keypair) {
  const int modulusSize = ModulusSize(DeviceGetKeypairBits(keypair));
  for (const unsigned int algorithm : ALGORITHMS) {
    const int length = IsRaw(algorithm) ? modulusSize : DIGEST_LEN;
    WithBuffer([=](unsigned char* buffer, int size, int* written) {
      return DeviceSign(keypair, algorithm, nullptr, BLOCK, length, buffer, size, written);
    });
  }
}

void UsePublicKey(PublicKey* key) {
  const int modulusSize = ModulusSize(static_cast<unsigned int>(DeviceGetPublicKeyBits(key)));
  for (const unsigned int algorithm : ALGORITHMS) {
    const int length = IsRaw(algorithm) ? modulusSize : DIGEST_LEN;
    // Zeros are a raw RSA signature of zeros, and of nothing else.
    const int valid = DeviceVerify(key, algorithm, nullptr, BLOCK, length, BLOCK, modulusSize);
    DEMAND(valid == VAKRO_FAILED || (valid == VAKRO_OK && algorithm == ALGORITHM_RSA_RAW_SIGN));
    WithBuffer([=](unsigned char* buffer, int size, int* written) {
      return DevicePublicKeyEncrypt(key, algorithm, nullptr, BLOCK, length, buffer, size, written);
    });
  }
}
