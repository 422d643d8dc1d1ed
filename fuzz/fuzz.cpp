#include "fuzz/fuzz.h"

#include <dlfcn.h>
#include <stdio.h>
#include <stdlib.h>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <tuple>

static unsigned char g_random = 0;

extern "C" int RAND_bytes(unsigned char* bytes, int length) {
  for (int i = 0; i < length; i++) bytes[i] = g_random++;
  return 1;
}

extern "C" int PKCS5_PBKDF2_HMAC(const char* pass, int passlen, const unsigned char* salt,
                                 int saltlen, int iter, const EVP_MD* digest, int keylen,
                                 unsigned char* out) {
  static const auto next =
      reinterpret_cast<decltype(&PKCS5_PBKDF2_HMAC)>(dlsym(RTLD_NEXT, __func__));
  static std::map<std::tuple<std::string, std::string, int, const EVP_MD*, int>, std::string> known;
  if (known.size() > 100000) known.clear();
  std::string& derived = known[{View(pass, passlen), View(salt, saltlen), iter, digest, keylen}];
  if (derived.empty()) {
    if (next(pass, passlen, salt, saltlen, iter, digest, keylen, out) != 1) return 0;
    derived = View(out, keylen);
  }
  memcpy(out, derived.data(), derived.size());
  return 1;
}

std::map<std::string_view, Target>& Targets() {
  static std::map<std::string_view, Target> all;
  return all;
}

void Demand(bool holds, const char* condition, const char* file, int line) {
  if (holds) return;
  fprintf(stderr, "%s:%d: not so: %s\n", file, line, condition);
  abort();
}

// Starts the module on a folder of its own, for the length of the program.
static std::string StartModule() {
  const char* const base = getenv("TMPDIR");
  std::string folder = base != nullptr ? base : access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
  folder += "/fuzz.XXXXXX";
  DEMAND(mkdtemp(folder.data()) != nullptr && DeviceInit() == 1);
  folder += '/';
  vakro_free(g_keyFolder);
  g_keyFolder = Allocate<char>(folder.size() + 1, "fuzz");
  folder.copy(g_keyFolder, folder.size());
  atexit([] {
    std::filesystem::remove_all(g_keyFolder);
    DeviceEnd();
  });
  return folder + "device";
}

static std::string Path(const char* suffix = "") {
  static const std::string path = StartModule();
  return path + suffix;
}

void StoreFile(std::string_view file) {
  g_random = 0;
  for (const char* const suffix : {"", BACKUP_SUFFIX}) unlink(Path(suffix).c_str());
  if (!file.empty()) DEMAND((std::ofstream(Path(), std::ios::binary) << file).flush().good());
}

std::string StoredFile() {
  std::ostringstream content;
  content << std::ifstream(Path(), std::ios::binary).rdbuf();
  return content.str();
}

DeviceHandle LoadDevice(const char* pin) {
  const SetHandle set(DeviceGetAllDevices());
  DEMAND(set != nullptr && DeviceGetDeviceCount(set.get()) <= 1);
  DEMAND(access(Path(BACKUP_SUFFIX).c_str(), F_OK) != 0);
  DeviceHandle device(DeviceGetDevice(set.get(), 0));
  if (pin != nullptr) DEMAND(DeviceVerifyPwd(device.get(), PIN_TYPE_USER, pin, nullptr) == 1);
  return device;
}

std::string Summary(const Device& device) {
  std::ostringstream text;
  text << device.serialNumber << '\n' << device.label << '\n' << device.fileTag << '\n';
  for (int i = 0; i < device.keypairCount; i++) {
    const Keypair& k = *device.keypairs[i];
    text << k.label << '\n'
         << k.type << ' ' << k.algorithm << ' ' << k.bits << ' '
         << Hex(View(k.publicKey, k.publicKeyLen)) << '\n';
    for (int c = 0; c < k.certCount; c++)
      text << Hex(View(k.certs[c]->data, k.certs[c]->length)) << '\n';
  }
  return text.str();
}
