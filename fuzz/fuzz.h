// What the fuzz targets share. A target is one LLVMFuzzerTestOneInput over one kind of foreign
// bytes. It demands the contract of what it calls, not only that nothing crashes.
//
// The program replaces two functions that the module imports, for speed and so that an input takes
// the same path every time: RAND_bytes counts up from 0 with every world, and PKCS5_PBKDF2_HMAC
// remembers its results. Both stay true to their contract, so the files are real device files.
#ifndef VAKRO_FUZZ_FUZZ_H
#define VAKRO_FUZZ_FUZZ_H

#include "device/owners.h"
#include "tests/support/device_file.h"

#include <string>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size);

// DEMAND ends the program when the condition does not hold.
#define DEMAND(condition) Demand(condition, #condition, __FILE__, __LINE__)
void Demand(bool holds, const char* condition, const char* file, int line);

using SetHandle = std::unique_ptr<DeviceSet, Release<DeviceFreeDevices>>;
using DeviceHandle = std::unique_ptr<Device, Release<DeviceFreeDevice>>;
using KeypairHandle = std::unique_ptr<Keypair, Release<DeviceFreeKeypair>>;
using PublicHandle = std::unique_ptr<PublicKey, Release<DeviceFreePublicKey>>;

std::string_view View(const void* bytes, size_t size);

// The started module on a temporary key folder that holds at most one device file.
struct World {
  // Empties the folder, but for `file` if it isn't empty.
  explicit World(std::string_view file = {});
  World(const World&) = delete;
  World& operator=(const World&) = delete;

  void Write(std::string_view file) const;  // over the device file
  std::string Read() const;                 // the device file; "" when there is none
  DeviceHandle Load() const;                // scans; NULL when nothing loads. No backup is left
};

// Summary is what a rewrite must not change unasked: everything that is stored of a device but
// salt, iv and encrypted private key.
std::string Summary(const Device& device);

// Signs with every algorithm. Nothing is expected of a key made by hostile bytes but a documented
// result.
void UsePrivateKey(Keypair* keypair);
void UsePublicKey(PublicKey* key);  // verifies and encrypts, likewise

#endif
