// What generation and import share: the checks before a key is made, and its way onto the device.
#include "keypair/stored.h"

#include "core/openssl_owners.h"
#include "store/store.h"

#include <string.h>

int CheckRoom(const Device* device, unsigned int type, const char* label) {
  if (HasKeypair(device, type, label)) return VAKRO_ALREADY_EXISTS;
  return device->keypairCount >= device->maxKeypairs ? VAKRO_FAILED : VAKRO_OK;
}

int CheckOwner(const Device* device, const char* label) {
  if (device->pin == nullptr) return VAKRO_NOT_VERIFIED;
  return strlen(label) < NAME_SIZE ? VAKRO_OK : VAKRO_FAILED;
}

static bool HasBlob(const Device* device, const Keypair* stored) {
  for (int i = 0; i < device->keypairCount; i++) {
    const Keypair* keypair = device->keypairs[i];
    if (keypair->encryptedPrivateKeyLen == stored->encryptedPrivateKeyLen &&
        memcmp(keypair->encryptedPrivateKey, stored->encryptedPrivateKey,
               static_cast<size_t>(stored->encryptedPrivateKeyLen)) == 0)
      return true;
  }
  return false;
}

// OpensStored says whether the device's PIN opens what its file holds by now. A record that was
// loaded when the file held no keypairs has taken any PIN for its own; a keypair stored under it
// beside another process's would leave a device that no PIN opens. Caller holds the folder lock.
static bool OpensStored(const Device* device) {
  unsigned char* raw = nullptr;
  unsigned int size = 0;
  const Found found = ReadImage(device->filePath, &raw, &size);
  if (found != Found::GOOD) return found == Found::MISSING_OR_DAMAGED;  // then nothing opens it
  const UtilBytes image(raw);
  const OwnedDevice stored(GetDeviceHandleFromData(raw, size));
  if (!stored) return false;
  for (int i = 0; i < stored->keypairCount; i++)
    if (HasBlob(device, stored->keypairs[i])) return true;
  if (stored->keypairCount == 0) return true;
  Keypair* first = stored->keypairs[0];
  int curve = 0;
  const EvpKey key(DecryptKeyPair(first->algorithm, first, device->pin, &curve));
  return key != nullptr;
}

int StoreKeypair(Device* device, OwnedKeypair keypair, const char* label, Keypair** out) {
  memcpy(keypair->label, label, strlen(label) + 1);
  const int encrypted = keypair->algorithm == ALGORITHM_ECC
                            ? EncryptECCKeypair(device, keypair.get())
                            : EncryptRSAKeypair(device, keypair.get());
  if (encrypted != 1) return VAKRO_FAILED;
  const FolderLock lock(device->filePath);
  if (!OpensStored(device) || AddhKeypairToFile(device, keypair.get()) != 1) return VAKRO_FAILED;
  // The file holds the keypair; nothing below can fail.
  keypair->isTemp = 0;
  keypair->device = device;
  AddReferences(device, 2);
  *out = keypair.get();
  device->keypairs[device->keypairCount] = keypair.release();
  WriteShared(device->keypairCount, device->keypairCount + 1);
  return VAKRO_OK;
}
