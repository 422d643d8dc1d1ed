// The core records: their constructors and destructors, and the byte order of stored words.
#include "core/lock.h"
#include "core/owners.h"
#include "core/secret.h"
#include "core/shield.h"

#include <openssl/evp.h>

#include <string.h>
#include <utility>

static constexpr char TAG[] = "device";

DeviceSet* NewDeviceSet(void) { return Allocate<DeviceSet>(1, TAG); }

void FreeDeviceSet(DeviceSet* set) {
  if (set == nullptr) return;
  for (int i = 0; i < set->count; i++) FreeDevice(set->devices[i]);
  vakro_free(set);
}

Device* NewDevice(void) {
  Device* device = Allocate<Device>(1, TAG);
  if (device == nullptr) return nullptr;
  device->refCount = 1;
  device->maxKeypairs = MAX_KEYPAIRS;
  return device;
}

void FreeDevice(Device* device) {
  if (device == nullptr) return;
  for (int i = 0; i < device->keypairCount; i++) FreeKeypair(device->keypairs[i]);
  FreePin(device);
  FreeIfSet<vakro_free>(device->filePath);
  FreeIfSet<vakro_free>(device->backupPath);
  vakro_free(device);
}

char* CopyPin(const char* pin) {
  const size_t size = strlen(pin) + 1;
  char* copy = Allocate<char>(size, TAG);
  if (copy == nullptr) return nullptr;
  ShieldSecret(copy, size);
  memcpy(copy, pin, size);
  return copy;
}

void FreePin(Device* device) {
  if (device->pin != nullptr) {
    OPENSSL_cleanse(device->pin, strlen(device->pin));
    UnshieldSecret(device->pin);
  }
  FreeIfSet<vakro_free>(device->pin);
  device->pin = nullptr;
}

Keypair* NewKeypair(void) { return Allocate<Keypair>(1, TAG); }

void SetPrivateKey(Keypair* keypair, EVP_PKEY* key, int curve) {
  EVP_PKEY* before = nullptr;
  {
    const KeyLock lock;
    before = std::exchange(keypair->privateKey, key);
    WriteShared(keypair->curve, curve);
    OPENSSL_cleanse(&keypair->signingFactor, sizeof(keypair->signingFactor));
  }
  EVP_PKEY_free(before);
}

void FreeKeypair(Keypair* keypair) {
  if (keypair == nullptr) return;
  for (int i = 0; i < keypair->certCount; i++) FreeCert(keypair->certs[i]);
  FreeIfSet<vakro_free>(keypair->salt);
  FreeIfSet<vakro_free>(keypair->iv);
  FreeIfSet<vakro_free>(keypair->encryptedPrivateKey);
  FreeIfSet<VakroPKICryptoFreeMemory>(keypair->publicKey);
  EVP_PKEY_free(keypair->privateKey);
  OPENSSL_cleanse(&keypair->signingFactor, sizeof(keypair->signingFactor));
  UnshieldSecret(&keypair->signingFactor);
  vakro_free(keypair);
}

Cert* NewCert(const unsigned char* bytes, int length) {
  if (length < 0 || (bytes == nullptr && length > 0)) return nullptr;
  OwnedCert cert(Allocate<Cert>(1, TAG));
  if (!cert) return nullptr;
  const auto size = static_cast<size_t>(length);
  cert->data = Allocate<unsigned char>(size, TAG);
  if (cert->data == nullptr) return nullptr;
  if (size > 0) memcpy(cert->data, bytes, size);
  cert->length = length;
  return cert.release();
}

void FreeCert(Cert* cert) {
  if (cert == nullptr) return;
  FreeIfSet<vakro_free>(cert->data);
  vakro_free(cert);
}

Data* newData(int id, int length) {
  if (length < 0) return nullptr;
  OwnedData data(Allocate<Data>(1, TAG));
  if (!data) return nullptr;
  data->value = Allocate<unsigned char>(static_cast<size_t>(length), TAG);
  if (data->value == nullptr) return nullptr;
  data->id = id;
  data->length = length;
  return data.release();
}

void FreeData(Data* data) {
  if (data == nullptr) return;
  if (data->value != nullptr && data->length > 0)
    OPENSSL_cleanse(data->value, static_cast<size_t>(data->length));
  FreeIfSet<VakroPKICryptoFreeMemory>(data->value);
  OPENSSL_cleanse(data, sizeof(*data));
  vakro_free(data);
}

void FreeDatas(Data** array, int count) {
  if (array == nullptr) return;
  for (int i = 0; i < count; i++) FreeData(array[i]);
  vakro_free(array);
}

void removeData(Data** array, int count, int index) {
  if (array == nullptr || index < 0 || index >= count) return;
  FreeData(array[index]);
  for (int i = index + 1; i < count; i++) array[i - 1] = array[i];
}

void FreeTempKeypair(Keypair** array) {
  for (int i = 0; i < MAX_KEYPAIRS; i++) {
    Keypair* keypair = array[i];
    if (keypair == nullptr) continue;
    if (keypair->saltLen != 0) vakro_free(keypair->salt);
    if (keypair->ivLen != 0) vakro_free(keypair->iv);
    if (keypair->encryptedPrivateKeyLen != 0) vakro_free(keypair->encryptedPrivateKey);
    vakro_free(keypair);
    array[i] = nullptr;
  }
}

unsigned int be2int(const unsigned char* bytes) {
  return static_cast<unsigned int>(bytes[0]) << 24 | static_cast<unsigned int>(bytes[1]) << 16 |
         static_cast<unsigned int>(bytes[2]) << 8 | static_cast<unsigned int>(bytes[3]);
}

void int2be(unsigned int value, unsigned char* bytes) {
  bytes[0] = static_cast<unsigned char>(value >> 24);
  bytes[1] = static_cast<unsigned char>(value >> 16);
  bytes[2] = static_cast<unsigned char>(value >> 8);
  bytes[3] = static_cast<unsigned char>(value);
}
