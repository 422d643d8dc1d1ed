// What generation and import share: the checks before a key is made, and its way onto the device.
#include "keypair/new_keypair.h"

#include "core/openssl_owners.h"
#include "store/change.h"

#include <string.h>

int CheckNameAndRoom(const Device* device, unsigned int type, const char* label) {
  if (HasKeypair(device, type, label)) return VAKRO_ALREADY_EXISTS;
  return device->keypairCount >= device->maxKeypairs ? VAKRO_FAILED : VAKRO_OK;
}

int CheckPinAndLabel(const Device* device, const char* label) {
  if (device->pin == nullptr) return VAKRO_NOT_VERIFIED;
  return strlen(label) < NAME_SIZE ? VAKRO_OK : VAKRO_FAILED;
}

// OpensFile says whether the device's PIN opens what its file holds by now. A record that was
// loaded when the file held no keypairs has taken any PIN for its own; a keypair stored under it
// beside another process's would leave a device that no PIN opens.
static bool OpensFile(const FileChange& change, Device* device) {
  switch (WhosePin(change, device)) {
    case FilePin::OURS:
      return true;
    case FilePin::ANOTHERS:
      return false;
    case FilePin::UNTOLD:
      break;
  }
  const OwnedKeypair first = LoadFirstKeypair(change);
  if (!first) return false;
  first->device = device;
  int curve = 0;
  const EvpKey key(DecryptKeyPair(first->algorithm, first.get(), device->pin, &curve));
  return key != nullptr;
}

static bool Encipher(Device* device, Keypair* keypair) {
  return (keypair->algorithm == ALGORITHM_ECC ? EncryptECCKeypair(device, keypair)
                                              : EncryptRSAKeypair(device, keypair)) == 1;
}

int AppendKeypair(Device* device, Keypair* made) {
  OwnedKeypair keypair(made);
  if (device->keypairCount >= device->maxKeypairs) return VAKRO_OUT_OF_RANGE;
  if (!Encipher(device, keypair.get())) return VAKRO_FAILED;
  keypair->isTemp = 0;
  keypair->maxCerts = MAX_CERTS;
  keypair->device = device;
  AddReferences(device, 1);
  device->keypairs[device->keypairCount] = keypair.release();
  WriteShared(device->keypairCount, device->keypairCount + 1);
  return VAKRO_OK;
}

int StoreKeypair(Device* device, OwnedKeypair keypair, const char* label, Keypair** out) {
  memcpy(keypair->label, label, strlen(label) + 1);
  if (!Encipher(device, keypair.get())) return VAKRO_FAILED;
  FileChange change;
  if (!BeginCheckedChange(device, &change)) return VAKRO_FAILED;
  if (HoldsKeypair(change, keypair->type, label)) return VAKRO_ALREADY_EXISTS;
  if (CountKeypairs(change) >= device->maxKeypairs || !OpensFile(change, device) ||
      AddKeypairToChange(&change, device, keypair.get()) != 1)
    return VAKRO_FAILED;
  // The file holds the keypair; nothing below can fail.
  keypair->isTemp = 0;
  keypair->device = device;
  AddReferences(device, 2);
  *out = keypair.get();
  device->keypairs[device->keypairCount] = keypair.release();
  WriteShared(device->keypairCount, device->keypairCount + 1);
  return VAKRO_OK;
}
