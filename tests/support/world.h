// The world of a test: a started module whose key folder is a temporary one, handles that give
// themselves back, and snapshots that show that a refused call changed nothing.
#ifndef VAKRO_TESTS_WORLD_H
#define VAKRO_TESTS_WORLD_H

#include "core/openssl_owners.h"
#include "core/secret.h"
#include "device/device.h"
#include "tests/support/device_file.h"
#include "tests/support/folder.h"
#include "tests/support/interpose.h"

#include <openssl/err.h>

#include <functional>
#include <string>
#include <vector>

using SetHandle = std::unique_ptr<DeviceSet, Release<DeviceFreeDevices>>;
using DeviceHandle = std::unique_ptr<Device, Release<DeviceFreeDevice>>;
using KeypairHandle = std::unique_ptr<Keypair, Release<DeviceFreeKeypair>>;
using PublicHandle = std::unique_ptr<PublicKey, Release<DeviceFreePublicKey>>;

std::string Bytes(const unsigned char* bytes, long length);
// Every field of the record, as text; without `addresses` it says the same of equal devices.
std::string Describe(const Device& device, bool addresses = true);

// Random bytes are the same from each call of FixRandom on, until the end of the test: `first`,
// then a fixed sequence.
void FixRandom(const std::string& first = "");

// The handle of a new keypair, or NULL; the result must be `want`.
KeypairHandle Import(Device* device, std::string_view pair, int want = 1,
                     const std::string& label = "new");
KeypairHandle Generate(Device* device, unsigned int algorithm, int bits, const void* params,
                       const std::string& label = "new");

// Starts the module on an empty folder; at the end stops it, removes the folder and expects every
// block of vakro_malloc back. It does so as it is made and destroyed: what a derived test holds is
// made on the running module, and has been given back before.
class ModuleTest : public FolderTest {
 protected:
  ModuleTest();
  ~ModuleTest() override;

  // Writes the file as "dev" and loads it; verified with PIN unless `pin` is NULL.
  DeviceHandle Load(const std::string& file = StoredDevice().File(), const char* pin = PIN) {
    Write("dev", file);
    return Rescan(pin);
  }
  static DeviceHandle Rescan(const char* pin = nullptr);  // the one device of the folder

  // Makes a call of the interface and gives its result. The caller's queue of OpenSSL errors, his
  // mark in it included, must come out as it was.
  static int LeavingErrors(const std::function<int()>& call);

  // Expects the call to give `want` and to leave the folder, the record (which may be NULL), the
  // live allocations and OpenSSL's errors as they were.
  void Refuses(int want, const Device* device, const std::function<int()>& call) const;

 private:
  const long live_ = LiveAllocations();
};

#endif
