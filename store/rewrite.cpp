// A change of a device file: locked, read and decoded once, rewritten under the protection of a
// backup. What a change does to the tree is records.cpp's, datas.cpp's and whole_record.cpp's.
#include "store/inside.h"

#include <errno.h>

// ReadUnchecked reads a device file of which only the length word must fit.
static ReadResult ReadUnchecked(const char* path, FileImage* image) {
  const ReadResult read = ReadFile(path, image);
  if (read != ReadResult::GOOD) return read;
  const bool fits = image->size >= HEADER_SIZE &&
                    be2int(image->bytes.get() + LENGTH_OFFSET) <= image->size - HEADER_SIZE;
  return fits ? ReadResult::GOOD : ReadResult::BAD;
}

static ReadResult LockAndRead(const Device* device, Reading reading, FileChange* change) {
  if (reading == Reading::RESTORED)
    return LockCurrent(device->filePath, device->backupPath, &change->lock, &change->image);
  switch (change->lock.Take(device->filePath, device->backupPath)) {
    case LockResult::HELD:
      break;
    case LockResult::MISSING:
      return ReadResult::BAD;
    default:
      return ReadResult::UNKNOWN;
  }
  const auto read = reading == Reading::CHECKED ? ReadImage : ReadUnchecked;
  return read(device->filePath, &change->image);
}

ReadResult BeginFileChange(const Device* device, Reading reading, FileChange* change) {
  if (device == nullptr || device->filePath == nullptr || device->backupPath == nullptr)
    return ReadResult::BAD;
  const ReadResult found = LockAndRead(device, reading, change);
  if (found != ReadResult::GOOD) return found;
  const ReadResult decoded = DecodeText(ImageText(change->image.bytes.get()), &change->root);
  return decoded == ReadResult::UNKNOWN ? decoded : ReadResult::GOOD;
}

// A valid backup may be the only good copy: only a valid device file may take its place, and one
// that is on the disk: the process that wrote it may have died before it had synced it.
static bool MayReplaceBackup(const FileChange& change, const Device* device) {
  FileImage backup;
  if (ReadImage(device->backupPath, &backup) == ReadResult::BAD) return true;
  return CheckImage(change.image) == ReadResult::GOOD && SyncFile(device->filePath);
}

static bool WriteBackup(const FileChange& change, const Device* device) {
  const FileImage& image = change.image;
  const File file = OpenFresh(device->backupPath, &image.status);
  return WriteOut(file, image.bytes.get(), image.size) && SyncFolder(device->backupPath);
}

void PutBack(const FileChange& change, const Device* device) {
  const FileImage& image = change.image;
  const File file = OpenEmptied(device->filePath, &image.status);
  WriteOut(file, image.bytes.get(), image.size);
}

// The steps, each on stable storage before the next begins, and what a crash leaves in them:
//   1. copy the device file to the backup   the device file as it was; a backup perhaps cut short
//   2. write the new content                a valid backup; the next read or scan restores it if
//                                           the device file is cut short
//   3. remove the backup                    the new content
int RewriteFile(FileChange* change, Device* device, Json tree) {
  unsigned int length = 0;
  const UtilText text = EncodeTree(tree.get(), &length);
  tree.reset();  // its memory serves what follows
  change->root.reset();
  if (!text || length > MAX_TEXT_SIZE) return 0;
  if (!change->lock.Names(device->filePath) || !MayReplaceBackup(*change, device)) return 0;
  if (!WriteBackup(*change, device)) return 0;
  if (WriteDeviceDataToFile(device, reinterpret_cast<unsigned char*>(text.get()), length) != 1) {
    const int why = errno;
    PutBack(*change, device);  // else the next read does it
    errno = why;
    return 0;
  }
  remove(device->backupPath);
  return 1;
}
