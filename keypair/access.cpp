// Keypair handles: taken, read, given back; and the deletion of a keypair.
#include "core/answer.h"
#include "core/error_mark.h"
#include "core/lock.h"
#include "core/secret.h"
#include "keypair/keypair.h"
#include "keypair/private_key.h"
#include "store/change.h"

#include <string.h>

int HasKeypair(const Device* device, unsigned int type, const char* label) {
  for (int i = 0; i < device->keypairCount; i++) {
    const Keypair* keypair = device->keypairs[i];
    if (keypair->type == type && strcmp(keypair->label, label) == 0) return 1;
  }
  return 0;
}

EVP_PKEY* GetPrivateKey(const Keypair* keypair) { return keypair->privateKey; }

int FetchPrivateKey(const Keypair* keypair, PrivateKey& fetched) {
  const KeyLock lock;
  if (!lock.held) return VAKRO_FAILED;
  EVP_PKEY* const cached = GetPrivateKey(keypair);
  if (cached == nullptr) return VAKRO_NOT_VERIFIED;
  if (EVP_PKEY_up_ref(cached) != 1) return VAKRO_FAILED;
  fetched.key.reset(cached);
  fetched.curve = keypair->curve;
  fetched.factor = keypair->signingFactor;
  return VAKRO_OK;
}

void KeepSigningFactor(Keypair* keypair, const PrivateKey& fetched) {
  const KeyLock lock;
  if (lock.held && GetPrivateKey(keypair) == fetched.key.get())
    keypair->signingFactor = fetched.factor;
  ShieldSecret(&keypair->signingFactor, sizeof(keypair->signingFactor));
}

int DeleteKeypairFromDevice(Device* device, Keypair* keypair) {
  if (device == nullptr) return 0;
  int at = 0;
  while (at < device->keypairCount && device->keypairs[at] != keypair) at++;
  if (at == device->keypairCount) return 1;
  WriteShared(device->keypairCount, device->keypairCount - 1);
  for (; at < device->keypairCount; at++) device->keypairs[at] = device->keypairs[at + 1];
  device->keypairs[device->keypairCount] = nullptr;
  return 1;
}

int DeviceGetKeypairCount(Device* device) {
  return device == nullptr ? VAKRO_NULL_HANDLE : ReadShared(device->keypairCount);
}

Keypair* DeviceGetKeypair(Device* device, int index) {
  if (device == nullptr || index < 0) return nullptr;
  const ModuleLock lock;
  if (!lock.held || index >= device->keypairCount) return nullptr;
  AddReferences(device, 1);
  return device->keypairs[index];
}

int DeviceFreeKeypair(Keypair* keypair) {
  if (keypair == nullptr) return VAKRO_NULL_HANDLE;
  if (keypair->isTemp == 0 && keypair->device != nullptr) return DeviceFreeDevice(keypair->device);
  FreeKeypair(keypair);
  return VAKRO_OK;
}

int DeviceDeleteKeypair(Keypair* keypair) {
  const ErrorMark mark;
  if (keypair == nullptr) return VAKRO_NULL_HANDLE;
  if (keypair->isTemp != 0) return VAKRO_FAILED;
  const ModuleLock lock;
  if (!lock.held) return VAKRO_FAILED;
  if (GetPrivateKey(keypair) == nullptr) return VAKRO_NOT_VERIFIED;
  Device* const device = keypair->device;
  FileChange change;
  if (device == nullptr || !BeginCheckedChange(device, &change) ||
      DeleteKeypairFromChange(&change, keypair) != 1)
    return VAKRO_FAILED;
  DeleteKeypairFromDevice(device, keypair);
  keypair->device = nullptr;
  ReleaseReferences(device, 2);  // its place on the device, and the caller's handle
  return VAKRO_OK;
}

unsigned int DeviceGetKeypairType(Keypair* keypair) {
  return keypair == nullptr ? 0 : keypair->type;
}

unsigned int DeviceGetKeypairAlgorithm(Keypair* keypair) {
  return keypair == nullptr ? 0 : keypair->algorithm;
}

unsigned int DeviceGetKeypairBits(Keypair* keypair) {
  return keypair == nullptr ? 0 : keypair->bits;
}

int DeviceGetKeypairLabel(Keypair* keypair, char* buffer, int size, int* length) {
  if (keypair == nullptr) return VAKRO_NULL_HANDLE;
  return AnswerString(keypair->label, buffer, size, length);
}
