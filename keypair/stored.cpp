// What generation and import share: the checks before a key is made, and its way onto the device.
#include "keypair/stored.h"

#include "store/store.h"

#include <string.h>

int CheckRoom(const Device* device, unsigned int type, const char* label) {
  if (HasKeypair(device, type, label)) return VAKRO_ALREADY_EXISTS;
  return device->keypairCount < MAX_KEYPAIRS ? VAKRO_OK : VAKRO_FAILED;
}

int CheckOwner(const Device* device, const char* label) {
  if (device->pin == nullptr) return VAKRO_NOT_VERIFIED;
  return strlen(label) < NAME_SIZE ? VAKRO_OK : VAKRO_FAILED;
}

int StoreKeypair(Device* device, OwnedKeypair keypair, const char* label, Keypair** out) {
  memcpy(keypair->label, label, strlen(label) + 1);
  const int encrypted = keypair->algorithm == ALGORITHM_ECC
                            ? EncryptECCKeypair(device, keypair.get())
                            : EncryptRSAKeypair(device, keypair.get());
  if (encrypted != 1 || AddhKeypairToFile(device, keypair.get()) != 1) return VAKRO_FAILED;
  // The file holds the keypair; nothing below can fail.
  keypair->isTemp = 0;
  keypair->device = device;
  device->refCount += 2;
  *out = keypair.get();
  device->keypairs[device->keypairCount] = keypair.release();
  WriteShared(device->keypairCount, device->keypairCount + 1);
  return VAKRO_OK;
}
