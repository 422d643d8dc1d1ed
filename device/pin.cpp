// The PIN: a PIN is right when it decrypts every private key of the device; nothing of it is
// stored. A verified device keeps its keys and a copy of the PIN until it is freed.
#include "core/error_mark.h"
#include "core/openssl_owners.h"
#include "core/secret.h"
#include "device/device.h"
#include "keypair/keypair.h"
#include "store/change.h"

#include <string.h>

int IsSamePin(const char* pin, const char* candidate) {
  const size_t length = strlen(pin);
  return strlen(candidate) == length && CRYPTO_memcmp(pin, candidate, length) == 0 ? 1 : 0;
}

static void DropKeys(Device* device, int count) {
  for (int i = 0; i < count; i++) {
    Keypair* keypair = device->keypairs[i];
    SetPrivateKey(keypair, nullptr, -1);
  }
}

int VerifyPin(Device* device, const char* pin) {
  if (device->pin != nullptr) return IsSamePin(device->pin, pin) != 0 ? VAKRO_OK : VAKRO_WRONG_PIN;
  // Signatures take no module lock: the records get the keys only when the PIN has opened them all.
  EvpKey keys[MAX_KEYPAIRS];
  int curves[MAX_KEYPAIRS] = {};
  for (int i = 0; i < device->keypairCount; i++) {
    const Keypair* keypair = device->keypairs[i];
    keys[i].reset(DecryptKeyPair(keypair->algorithm, keypair, pin, &curves[i]));
    if (!keys[i]) {
      // The record tells by curve -1 that these were opened in vain. It may hold keys all the same:
      // of an attempt that had no memory to keep the PIN.
      DropKeys(device, i);
      return VAKRO_WRONG_PIN;
    }
  }
  for (int i = 0; i < device->keypairCount; i++) {
    Keypair* keypair = device->keypairs[i];
    const bool ecc = keypair->algorithm == ALGORITHM_ECC;
    SetPrivateKey(keypair, keys[i].release(), ecc ? curves[i] : keypair->curve);
  }
  device->pin = CopyPin(pin);
  return device->pin != nullptr ? VAKRO_OK : VAKRO_FAILED;
}

namespace {
// The freshly encrypted blobs of a PIN change; they borrow the device's private keys.
struct Scratch {
  Keypair* keypairs[MAX_KEYPAIRS] = {};
  Scratch() = default;
  Scratch(const Scratch&) = delete;
  Scratch& operator=(const Scratch&) = delete;
  ~Scratch() { FreeTempKeypair(keypairs); }
};
}  // namespace

static bool EncryptAgain(Device* device, Scratch& scratch) {
  for (int i = 0; i < device->keypairCount; i++) {
    const Keypair* keypair = device->keypairs[i];
    Keypair* fresh = NewKeypair();
    if (fresh == nullptr) return false;
    scratch.keypairs[i] = fresh;
    fresh->privateKey = keypair->privateKey;
    const bool ecc = keypair->algorithm == ALGORITHM_ECC;
    if (ecc) fresh->curve = keypair->curve;
    if ((ecc ? EncryptECCKeypair(device, fresh) : EncryptRSAKeypair(device, fresh)) != 1)
      return false;
  }
  return true;
}

static void TakeBytes(unsigned char*& to, int& toLen, unsigned char*& from, int& fromLen) {
  FreeIfSet<vakro_free>(to);
  to = from;
  toLen = fromLen;
  from = nullptr;
  fromLen = 0;
}

static void TakeOver(Keypair* keypair, Keypair* fresh) {
  TakeBytes(keypair->salt, keypair->saltLen, fresh->salt, fresh->saltLen);
  TakeBytes(keypair->iv, keypair->ivLen, fresh->iv, fresh->ivLen);
  TakeBytes(keypair->encryptedPrivateKey, keypair->encryptedPrivateKeyLen,
            fresh->encryptedPrivateKey, fresh->encryptedPrivateKeyLen);
}

int ChangePin(Device* device, const char* newPin) {
  Scratch scratch;
  // The encryption takes its password from the device.
  char* const oldPin = device->pin;
  device->pin = const_cast<char*>(newPin);
  const bool encrypted = EncryptAgain(device, scratch);
  device->pin = oldPin;
  if (!encrypted) return VAKRO_FAILED;
  FreePin(device);
  device->pin = CopyPin(newPin);
  if (device->pin == nullptr) return VAKRO_FAILED;
  for (int i = 0; i < device->keypairCount; i++) TakeOver(device->keypairs[i], scratch.keypairs[i]);
  return VAKRO_OK;
}

int DeviceVerifyPwd(Device* device, int type, const char* pin, int* retries) {
  const ErrorMark mark;
  if (device == nullptr) return VAKRO_FAILED;
  if (retries != nullptr) *retries = -1;
  if (type != PIN_TYPE_USER) return VAKRO_NOT_SUPPORTED;
  if (pin == nullptr) return VAKRO_FAILED;
  const ModuleLock lock;
  if (!lock.held) return VAKRO_FAILED;
  return VerifyPin(device, pin);
}

// TakeOthersCerts gives each keypair the certificates that the file has for it; on false the record
// is as it was. What the record had is in `lists` then.
static bool TakeOthersCerts(const FileChange& change, Device* device, CertList* lists) {
  bool others[MAX_KEYPAIRS] = {};
  for (int i = 0; i < device->keypairCount; i++) {
    if (!ReadStoredCerts(change, device->keypairs[i], &lists[i], &others[i])) return false;
  }
  for (int i = 0; i < device->keypairCount; i++)
    if (others[i]) ExchangeCerts(device->keypairs[i], &lists[i]);
  return true;
}

int DeviceChangePwd(Device* device, int type, const char* oldPin, const char* newPin,
                    int* retries) {
  const ErrorMark mark;
  if (device == nullptr) return VAKRO_FAILED;
  if (type != PIN_TYPE_USER) return VAKRO_NOT_SUPPORTED;
  if (retries != nullptr) *retries = -1;
  if (oldPin == nullptr || newPin == nullptr) return VAKRO_FAILED;
  const ModuleLock lock;
  if (!lock.held) return VAKRO_FAILED;
  const int verified = VerifyPin(device, oldPin);
  if (verified != VAKRO_OK) return verified;
  FileChange change;
  CertList certs[MAX_KEYPAIRS];
  const ReadResult found = BeginFileChange(device, Reading::RESTORED, &change);
  // Where there is no file any more nothing of another process can be undone.
  const bool isGone = found == ReadResult::BAD && !change.lock.IsHeld();
  if (!isGone && (found != ReadResult::GOOD || StoredKeypairs(change) == nullptr ||
                  !HoldsSameKeypairs(change, device) || !TakeOthersCerts(change, device, certs)))
    return VAKRO_FAILED;
  const int changed = ChangePin(device, newPin);
  if (changed != VAKRO_OK) return changed;
  // From here on the record holds the new PIN, whether the file can be written or not; until it is
  // written the old PIN is the one that the next scan will need.
  const bool isWritten = WriteRecord(&change, device) == 1;
  if (!isGone) NoteWritten(change, device, isWritten);
  return isWritten ? VAKRO_OK : VAKRO_FAILED;
}
