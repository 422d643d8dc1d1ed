// Changes of one device file in one breath.
#include "device/change.h"

#include "core/openssl_owners.h"
#include "keypair/keypair.h"
#include "store/change.h"
#include "store/store.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <new>
#include <utility>

static int ToResult(ReadResult found) { return static_cast<int>(found); }

// SetPaths gives a record the paths of its file and backup.
static bool SetPaths(Device* device, const char* path) {
  device->filePath = Join("device", {path}).release();
  device->backupPath = Join("device", {path, BACKUP_SUFFIX}).release();
  return device->filePath != nullptr && device->backupPath != nullptr;
}

int LoadDevice(const char* path, Device** out) {
  const OwnedDevice paths(NewDevice());
  if (!paths || !SetPaths(paths.get(), path)) return -1;
  FileImage image;
  ReadResult found = ReadCurrent(path, paths->backupPath, false, ReadImage, &image);
  if (found != ReadResult::GOOD) return ToResult(found);
  Device* loaded = nullptr;
  found = LoadImage(image.bytes.get(), &loaded);
  if (found != ReadResult::GOOD) return ToResult(found);
  std::swap(loaded->filePath, paths->filePath);
  std::swap(loaded->backupPath, paths->backupPath);
  *out = loaded;
  return 1;
}

// --- Keys ----------------------------------------------------------------------------------------

static bool IsSame(const unsigned char* a, int aLen, const unsigned char* b, int bLen) {
  return aLen == bLen && (aLen == 0 || memcmp(a, b, static_cast<size_t>(aLen)) == 0);
}

static const Keypair* FindSame(const Device* device, const Keypair* keypair) {
  for (int i = 0; i < device->keypairCount; i++) {
    const Keypair* other = device->keypairs[i];
    if (other->algorithm == keypair->algorithm && other->privateKey != nullptr &&
        IsSame(other->encryptedPrivateKey, other->encryptedPrivateKeyLen,
               keypair->encryptedPrivateKey, keypair->encryptedPrivateKeyLen) &&
        IsSame(other->salt, other->saltLen, keypair->salt, keypair->saltLen) &&
        IsSame(other->iv, other->ivLen, keypair->iv, keypair->ivLen))
      return other;
  }
  return nullptr;
}

int TakeOverKeys(Device* fresh, Device* verified) {
  if (verified->pin == nullptr) return VAKRO_NOT_VERIFIED;
  EvpKey keys[MAX_KEYPAIRS];
  int curves[MAX_KEYPAIRS] = {};
  for (int i = 0; i < fresh->keypairCount; i++) {
    const Keypair* keypair = fresh->keypairs[i];
    const Keypair* known =
        fresh->fileTag == verified->fileTag ? FindSame(verified, keypair) : nullptr;
    if (known == nullptr) {
      keys[i].reset(DecryptKeyPair(keypair->algorithm, keypair, verified->pin, &curves[i]));
      if (!keys[i]) return VAKRO_WRONG_PIN;
    } else {
      if (EVP_PKEY_up_ref(known->privateKey) != 1) return VAKRO_FAILED;
      keys[i].reset(known->privateKey);
      curves[i] = known->curve;
    }
  }
  char* const pin = CopyPin(verified->pin);
  if (pin == nullptr) return VAKRO_FAILED;
  FreePin(fresh);
  fresh->pin = pin;
  for (int i = 0; i < fresh->keypairCount; i++) {
    Keypair* keypair = fresh->keypairs[i];
    const bool isEcc = keypair->algorithm == ALGORITHM_ECC;
    SetPrivateKey(keypair, keys[i].release(), isEcc ? curves[i] : keypair->curve);
  }
  return VAKRO_OK;
}

// --- A change ------------------------------------------------------------------------------------

struct OpenFile {
  FileChange change;
  EditedRecord edited;
};

static void Close(DeviceChange& change) {
  if (change.file == nullptr) return;
  change.file->~OpenFile();
  vakro_free(std::exchange(change.file, nullptr));
}

DeviceChange::~DeviceChange() {
  FreeDevice(device);
  FreeDatas(datas, static_cast<int>(dataCount));
  Close(*this);
}

int BeginChange(const char* path, DeviceChange& change) {
  const OwnedDevice paths(NewDevice());
  void* const memory = vakro_malloc(sizeof(OpenFile), "device", __LINE__);
  if (memory == nullptr) return -1;
  change.file = new (memory) OpenFile;
  if (!paths || !SetPaths(paths.get(), path)) return -1;
  ReadResult found = BeginFileChange(paths.get(), Reading::RESTORED, &change.file->change);
  if (found != ReadResult::GOOD) return ToResult(found);
  if (StoredKeypairs(change.file->change) == nullptr) return 0;
  found = LoadRecord(change.file->change, &change.file->edited);
  if (found != ReadResult::GOOD) return ToResult(found);
  change.device = change.file->edited.device;
  change.datasKnown = ReadDatas(change.file->change.root, &change.datas, &change.dataCount);
  std::swap(change.device->filePath, paths->filePath);
  std::swap(change.device->backupPath, paths->backupPath);
  return 1;
}

static bool HasNamesakes(const Device* device) {
  for (int i = 0; i < device->keypairCount; i++)
    for (int j = 0; j < i; j++)
      if (device->keypairs[i]->type == device->keypairs[j]->type &&
          strcmp(device->keypairs[i]->label, device->keypairs[j]->label) == 0)
        return true;
  return false;
}

static int Write(DeviceChange& change) {
  if (!change.datasChanged) return WriteEdited(&change.file->change, change.file->edited, nullptr);
  const Json datas(Datas2Json(change.datas, static_cast<int>(change.dataCount)));
  return datas ? WriteEdited(&change.file->change, change.file->edited, datas.get()) : VAKRO_FAILED;
}

int CommitChange(DeviceChange& change) {
  if (change.device == nullptr || change.file == nullptr) return VAKRO_FAILED;
  const int result = HasNamesakes(change.device) ? VAKRO_ALREADY_EXISTS : Write(change);
  const int why = errno;
  Close(change);
  errno = why;
  return result;
}

Device* TakeRecord(DeviceChange& change) { return std::exchange(change.device, nullptr); }

// --- Copies --------------------------------------------------------------------------------------

int CopyDeviceFile(const char* path, const char* destination) {
  FileImage image;
  const ReadResult found = ReadImage(path, &image);
  if (found != ReadResult::GOOD) return ToResult(found);
  return WriteNewFile(destination, image);
}
