// Reading the text with recovery from the backup, the backed-up rewrite, and the rewrite of a whole
// record. Files go through file.cpp, the container through container.cpp.
#include "store/store.h"

static Found ReadImageAt(const char* path, UtilBytes* image) {
  unsigned char* bytes = nullptr;
  unsigned int size = 0;
  const Found found = ReadImage(path, &bytes, &size);
  image->reset(bytes);
  return found;
}

// ReadCurrentImage reads the device file, or restores it from its backup if it is missing or
// damaged. A crash on the way leaves the backup, and the next read begins anew.
static Found ReadCurrentImage(const Device* device, UtilBytes* image) {
  const Found current = ReadImageAt(device->filePath, image);
  if (current != Found::MISSING_OR_DAMAGED) return current;
  const Found backup = ReadImageAt(device->backupPath, image);
  if (backup != Found::GOOD) return backup;
  if (CopyFileData(device->backupPath, device->filePath) != 1) return Found::UNKNOWN;
  remove(device->backupPath);
  return Found::GOOD;
}

int GetDeviceDataFromFile(Device* device, unsigned char** text, unsigned int* length) {
  if (device == nullptr) return 0;
  const FolderLock lock(device->filePath);
  UtilBytes image;
  if (ReadCurrentImage(device, &image) != Found::GOOD) return 0;
  device->fileTag = be2int(image.get() + TAG_OFFSET);
  const std::string_view stored = ImageText(image.get());
  memmove(image.get(), stored.data(), stored.size());  // the image's buffer becomes the text's
  *text = image.release();
  *length = static_cast<unsigned int>(stored.size());
  return 1;
}

// ReadCurrentTree decodes the current image. GOOD with a NULL tree: the text does not decode, or
// memory is out.
static Found ReadCurrentTree(const Device* device, unsigned int* tag, Json* root) {
  UtilBytes image;
  const Found found = ReadCurrentImage(device, &image);
  if (found != Found::GOOD) return found;
  *tag = be2int(image.get() + TAG_OFFSET);
  const std::string_view text = ImageText(image.get());
  root->reset(vakro_json_decode(text.data(), static_cast<unsigned int>(text.size())));
  return Found::GOOD;
}

Json ReadStoredTree(Device* device) {
  if (device == nullptr) return nullptr;
  const FolderLock lock(device->filePath);
  Json root;
  ReadCurrentTree(device, &device->fileTag, &root);
  return IsArray(root.get()) ? std::move(root) : nullptr;
}

// A valid backup may be the only good copy: only a valid device file may take its place, and one
// that is on the disk: the process that wrote it may have died before it had synced it.
static bool MayReplaceBackup(const Device* device) {
  UtilBytes image;
  if (ReadImageAt(device->backupPath, &image) == Found::MISSING_OR_DAMAGED) return true;
  return ReadImageAt(device->filePath, &image) == Found::GOOD && SyncFile(device->filePath);
}

// The steps, each on stable storage before the next begins, and what a crash leaves in them:
//   1. copy the device file to the backup   the device file as it was; a backup perhaps cut short
//   2. write the new content                a valid backup; the next read or scan restores it if
//                                           the device file is cut short
//   3. remove the backup                    the new content
int RewriteDeviceFile(Device* device, VakroJson* tree) {
  Json owner(tree);
  if (device == nullptr || device->backupPath == nullptr) return 0;
  unsigned int length = 0;
  const UtilText text = EncodeTree(tree, &length);
  owner.reset();  // its memory serves the copies that follow
  if (!text) return 0;

  const FolderLock lock(device->filePath);
  if (!MayReplaceBackup(device)) return 0;
  if (CopyFileData(device->filePath, device->backupPath) != 1) return 0;
  if (WriteDeviceDataToFile(device, reinterpret_cast<unsigned char*>(text.get()), length) != 1) {
    CopyFileData(device->backupPath, device->filePath);  // else the next read does it
    return 0;
  }
  remove(device->backupPath);
  return 1;
}

// --- The whole record ----------------------------------------------------------------------------

static Json Keypairs2Json(const Device* device) {
  Json list(vakro_json_newarray());
  if (!list) return nullptr;
  for (int i = 0; i < device->keypairCount; i++)
    if (!AddItem(list.get(), Json(Keypair2Json(device->keypairs[i])))) return nullptr;
  return list;
}

static bool IsInRecord(VakroJson* item, const Device* device) {
  for (int i = 0; i < device->keypairCount; i++)
    if (IsItemOf(item, device->keypairs[i])) return true;
  return false;
}

// KnowsAllKeypairs says whether the record holds every keypair of the stored list. One that it does
// not hold was stored by another process, or had no memory at loading, and must not be lost.
static bool KnowsAllKeypairs(const Device* device, VakroJson* list) {
  const int count = vakro_json_getarraysize(list);
  for (int i = 0; i < count; i++) {
    VakroJson* item = vakro_json_getarrayitem(list, i);
    if (item == nullptr || (!IsInRecord(item, device) && IsKeypairItem(item))) return false;
  }
  return true;
}

// CarryDatasOver appends the stored data-object item, if there is one, to the new tree. The
// device's fileTag stays: the record's keys are bound to it, whatever the file says by now.
static bool CarryDatasOver(const Device* device, VakroJson* tree) {
  unsigned int tag = 0;
  Json root;
  const Found found = ReadCurrentTree(device, &tag, &root);
  if (found == Found::MISSING_OR_DAMAGED) return true;  // nothing is left to carry over
  if (!root) return false;
  if (!KnowsAllKeypairs(device, vakro_json_getarrayitem(root.get(), DEVICE_KEYPAIRS))) return false;
  if (vakro_json_getarraysize(root.get()) <= DEVICE_DATAS) return true;
  const VakroJson* datas = vakro_json_getarrayitem(root.get(), DEVICE_DATAS);
  return datas != nullptr && vakro_json_addarrayitem(tree, datas) == 1;
}

int UpdateDeviceDataToFile(Device* device) {
  if (device == nullptr || device->keypairCount <= 0) return 0;
  Json tree(vakro_json_newarray());
  if (!tree || !AddName(tree.get(), device->serialNumber) || !AddName(tree.get(), device->label) ||
      !AddItem(tree.get(), Keypairs2Json(device)))
    return 0;
  const FolderLock lock(device->filePath);
  if (!CarryDatasOver(device, tree.get())) return 0;
  return RewriteDeviceFile(device, tree.release());
}
