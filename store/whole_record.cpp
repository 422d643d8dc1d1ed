// The text of a device file as a caller wants it, and the rewrite of a whole record.
#include "store/inside.h"

int GetDeviceDataFromFile(Device* device, unsigned char** text, unsigned int* length) {
  if (device == nullptr) return 0;
  FileImage image;
  if (ReadCurrent(device->filePath, device->backupPath, true, ReadImage, &image) !=
      ReadResult::GOOD)
    return 0;
  device->fileTag = be2int(image.bytes.get() + TAG_OFFSET);
  const std::string_view stored = ImageText(image.bytes.get());
  memmove(image.bytes.get(), stored.data(), stored.size());  // the buffer becomes the text's
  *text = image.bytes.release();
  *length = static_cast<unsigned int>(stored.size());
  return 1;
}

static Json Keypairs2Json(const Device* device) {
  Json list(vakro_json_newarray());
  if (!list) return nullptr;
  for (int i = 0; i < device->keypairCount; i++)
    if (!AddItem(list.get(), Json(Keypair2Json(device->keypairs[i])))) return nullptr;
  return list;
}

// RecordTree is the tree of the whole record; it knows of no data objects.
static Json RecordTree(const Device* device) {
  Json tree(vakro_json_newarray());
  const bool built = tree && AddName(tree.get(), device->serialNumber) &&
                     AddName(tree.get(), device->label) &&
                     AddItem(tree.get(), Keypairs2Json(device));
  return built ? std::move(tree) : nullptr;
}

// Rewrite carries the stored data objects over to `tree`, whatever they are, and writes it. Of a
// text that is no device nothing can be carried over.
static int Rewrite(FileChange* change, Device* device, Json tree) {
  if (!tree) return 0;
  VakroJson* const root = change->root.get();
  if (HasDatas(root)) {
    const VakroJson* datas = vakro_json_getarrayitem(root, DEVICE_DATAS);
    if (datas == nullptr || vakro_json_addarrayitem(tree.get(), datas) != 1) return 0;
  }
  return RewriteFile(change, device, std::move(tree));
}

int WriteRecord(FileChange* change, Device* device) {
  return device->keypairCount > 0 ? Rewrite(change, device, RecordTree(device)) : 0;
}

UtilBytes MakeRecordImage(const Device* device, unsigned int* size) {
  const Json tree = RecordTree(device);
  unsigned int length = 0;
  const UtilText text = tree ? EncodeTree(tree.get(), &length) : nullptr;
  return text ? MakeImage(device->fileTag, {text.get(), length}, size) : nullptr;
}

int UpdateDeviceDataToFile(Device* device) {
  if (device == nullptr || device->keypairCount <= 0) return 0;
  Json tree = RecordTree(device);
  if (!tree) return 0;
  FileChange change;
  ReadResult found = BeginFileChange(device, Reading::RESTORED, &change);
  // Of a damaged file without a good backup nothing is carried over, but it makes a backup.
  if (found == ReadResult::BAD) found = ReadFile(device->filePath, &change.image);
  return found == ReadResult::GOOD ? Rewrite(&change, device, std::move(tree)) : 0;
}
