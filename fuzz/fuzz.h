// Fuzz targets: functions over one kind of foreign bytes each. They demand the contract of what
// they call, not only that nothing crashes.
//
// The program replaces two functions that the module imports, for speed and so that an input takes
// the same path every time: RAND_bytes counts up from 0 with every stored file, and
// PKCS5_PBKDF2_HMAC remembers its results. Both stay true to their contract, so the files are real
// device files.
#ifndef VAKRO_FUZZ_FUZZ_H
#define VAKRO_FUZZ_FUZZ_H

#include "device/owners.h"
#include "tests/support/device_file.h"

// Targets is every target, by name. FUZZ begins the definition of one; its argument is `input`.
using Target = void (*)(std::string_view input);
std::map<std::string_view, Target>& Targets();
#define FUZZ(name)                                                                        \
  static void name(std::string_view input);                                               \
  [[maybe_unused]] static const bool g_is_##name = Targets().emplace(#name, name).second; \
  static void name(std::string_view input)

// DEMAND ends the program when the condition does not hold.
#define DEMAND(condition) Demand(condition, #condition, __FILE__, __LINE__)
void Demand(bool holds, const char* condition, const char* file, int line);

using SetHandle = std::unique_ptr<DeviceSet, Release<DeviceFreeDevices>>;
using DeviceHandle = std::unique_ptr<Device, Release<DeviceFreeDevice>>;
using KeypairHandle = std::unique_ptr<Keypair, Release<DeviceFreeKeypair>>;
using PublicHandle = std::unique_ptr<PublicKey, Release<DeviceFreePublicKey>>;

template <class Size>
std::string View(const void* bytes, Size size) {
  return size == 0 ? "" : std::string(static_cast<const char*>(bytes), static_cast<size_t>(size));
}

// --- The started module, on a temporary folder that holds at most one device file ----------------

void StoreFile(std::string_view file);  // with no backup beside it; "" removes it
std::string StoredFile();
DeviceHandle LoadDevice(const char* pin = nullptr);  // NULL when nothing loads; opened with `pin`

// Summary is what a rewrite must not change unasked: everything that is stored of a device but
// salt, iv and encrypted private key.
std::string Summary(const Device& device);

// Use calls with every algorithm, on zeros, and a buffer that is as large as the function asks for.
// Nothing is expected of a key made by hostile bytes but a documented result. The bits come from a
// file and may say anything.
template <auto Operation, class Key>
void Use(Key* key, unsigned int bits) {
  const std::string digest(32, '\0'), block(std::min(bits / 8 + (bits % 8 != 0), 4096u), '\0');
  for (const std::string& data : {digest, block})
    for (const unsigned int algorithm :
         {ALGORITHM_RSA_RAW_SIGN, ALGORITHM_RSA_RAW_ENCRYPT, ALGORITHM_RSA_PKCS1_SIGN,
          ALGORITHM_ECDSA_SIGN, ALGORITHM_SM2_SIGN, ALGORITHM_SM2_ENCRYPT,
          ALGORITHM_RSA_PKCS1_ENCRYPT}) {
      int length = 0;
      const auto call = [&](unsigned char* buffer, int size) {
        return Operation(key, algorithm, nullptr, Raw(data), Len(data), buffer, size, &length);
      };
      if (call(nullptr, 0) != VAKRO_OK) continue;
      const int needed = length;
      DEMAND(needed > 0);
      std::vector<unsigned char> buffer(static_cast<size_t>(needed));
      const int result = call(buffer.data(), needed);
      DEMAND((result == VAKRO_OK || result == VAKRO_FAILED) && length >= 0 && length <= needed);
    }
}

#endif
