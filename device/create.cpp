// New devices. A crash on the way leaves no file, or, where the file system does not know files
// without names, one that no scan accepts.
#include "device/create.h"

#include "device/anchor.h"
#include "device/device.h"
#include "store/change.h"

#include <openssl/rand.h>

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <utility>

static constexpr size_t SERIAL_BYTES = 8;                          // of a random serial number
static constexpr size_t FILE_NAME_SIZE = 3 * (NAME_SIZE - 1) + 1;  // all escaped

static bool DrawSerialNumber(char (&text)[NAME_SIZE]) {
  unsigned char bytes[SERIAL_BYTES];
  if (RAND_bytes(bytes, sizeof bytes) != 1) return false;
  for (size_t i = 0; i < sizeof bytes; i++) snprintf(text + 2 * i, 3, "%02X", bytes[i]);
  return true;
}

// The name of a device's file: its serial number, in which everything is escaped that may mean
// something to a file system or, like a dot, to the module; and the escape character itself, so
// that no two serial numbers have the same name.
static void MakeFileName(const char* serialNumber, char (&name)[FILE_NAME_SIZE]) {
  char* at = name;
  for (; *serialNumber != '\0'; serialNumber++) {
    const char c = *serialNumber;
    const bool plain = (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
    if (plain || c == '-') {
      *at++ = c;
    } else {
      at += snprintf(at, 4, "_%02X", static_cast<unsigned int>(static_cast<unsigned char>(c)));
    }
  }
  *at = '\0';
}

static bool IsName(const char* text) {
  const size_t length = strnlen(text, NAME_SIZE);
  return length >= 1 && length < NAME_SIZE;
}

Device* NewDeviceRecord(const char* serialNumber, const char* label) {
  OwnedDevice device(NewDevice());
  unsigned char tag[4];
  if (!device || RAND_bytes(tag, sizeof tag) != 1) return nullptr;
  device->fileTag = be2int(tag);
  if (!IsName(label) || (serialNumber != nullptr && !IsName(serialNumber))) return nullptr;
  memcpy(device->label, label, strlen(label) + 1);
  if (serialNumber == nullptr) {
    if (!DrawSerialNumber(device->serialNumber)) return nullptr;
  } else {
    memcpy(device->serialNumber, serialNumber, strlen(serialNumber) + 1);
  }
  char name[FILE_NAME_SIZE];
  MakeFileName(device->serialNumber, name);
  device->filePath = GetFilePath(g_keyFolder, name);
  if (device->filePath == nullptr) return nullptr;
  device->backupPath = Join("device", {device->filePath, BACKUP_SUFFIX}).release();
  return device->backupPath != nullptr ? device.release() : nullptr;
}

// Makes the folder at `path`, which ends in a slash, and those above it, where they are missing.
static bool MakeFolder(const char* path) {
  const UtilText copy(GetFilePath(path, ""));
  if (!copy) return false;
  for (char* slash = strchr(copy.get() + 1, '/'); slash != nullptr;
       slash = strchr(slash + 1, '/')) {
    *slash = '\0';
    const bool made = mkdir(copy.get(), 0700) == 0;
    if (!made && errno != EEXIST) return false;
    if (made) SyncFolder(copy.get());
    *slash = '/';
  }
  return true;
}

// 1, or why there is no room for another device. The scan also puts devices back that are there as
// backups only.
static int CheckFolder(const char* serialNumber) {
  DeviceSet* const set = DeviceGetAllDevices();
  if (set == nullptr) return VAKRO_FAILED;
  int result = set->count < MAX_DEVICES ? VAKRO_OK : NO_ROOM;
  for (int i = 0; i < set->count; i++)
    if (strcmp(set->devices[i]->serialNumber, serialNumber) == 0) result = VAKRO_ALREADY_EXISTS;
  DeviceFreeDevices(set);
  return result;
}

int StoreNewDevice(const Device* device) {
  if (!MakeFolder(g_keyFolder)) return VAKRO_FAILED;
  const int room = CheckFolder(device->serialNumber);
  if (room != VAKRO_OK) return room;
  // A backup would one day take the place of the file.
  if (access(device->backupPath, F_OK) == 0) return VAKRO_ALREADY_EXISTS;
  FileImage image;
  image.bytes = MakeRecordImage(device, &image.size);
  if (!image.bytes) {
    errno = ENOMEM;
    return VAKRO_FAILED;
  }
  const int written = WriteNewFile(device->filePath, image);
  return written == -1 ? VAKRO_FAILED : written;
}

int CreateDevice(const char* serialNumber, const char* label, const char* pin, char** path) {
  if (path != nullptr) *path = nullptr;
  errno = ENOMEM;
  const OwnedDevice device(NewDeviceRecord(serialNumber, label));
  if (!device) return VAKRO_FAILED;
  if (pin != nullptr) {
    const int anchored = AddAnchor(device.get(), pin);
    if (anchored != VAKRO_OK) return anchored;
  }
  const int stored = StoreNewDevice(device.get());
  // The record's own copy: it has done its duty.
  if (path != nullptr) *path = std::exchange(device->filePath, nullptr);
  return stored;
}
