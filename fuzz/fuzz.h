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

// RunTarget runs the target of that name over `input`.
void RunTarget(std::string_view name, std::string_view input);

// The targets, by file: texts.cpp, keys.cpp, device_file.cpp.
void FuzzBase64(std::string_view input);
void FuzzHex(std::string_view input);
void FuzzJson(std::string_view input);
void FuzzEccSignature(std::string_view input);
void FuzzSm2Ciphertext(std::string_view input);
void FuzzKeypairEncoding(std::string_view input);
void FuzzPublicKeyEncoding(std::string_view input);
void FuzzDataObjects(std::string_view input);
void FuzzDeviceFile(std::string_view input);

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

// Nothing is expected of a key made by hostile bytes but a documented result, with every algorithm.
void UsePrivateKey(Keypair* keypair);  // signs
void UsePublicKey(PublicKey* key);     // verifies and encrypts

#endif
