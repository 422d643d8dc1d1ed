// The data objects in the device file: reading the list, writing it back, and the conversions of
// one object. They are not kept in memory between calls.
#include "store/inside.h"

static constexpr int SPARE_SLOTS = 8;  // a caller appends without growing the array

// --- One object ----------------------------------------------------------------------------------

Data* Json2Data(VakroJson* item) {
  if (!IsArray(item)) return nullptr;
  OwnedData data(static_cast<Data*>(vakro_malloc(sizeof(Data), "json", __LINE__)));
  if (!data) return nullptr;
  *data = {};
  if (!JsonNumber(vakro_json_getarrayitem(item, DATA_ID), &data->id) ||
      !JsonNumber(vakro_json_getarrayitem(item, DATA_LENGTH), &data->length) ||
      !JsonNumber(vakro_json_getarrayitem(item, DATA_RESERVED1), &data->reserved1) ||
      !JsonNumber(vakro_json_getarrayitem(item, DATA_RESERVED2), &data->reserved2))
    return nullptr;
  std::string_view hex;
  if (!JsonString(vakro_json_getarrayitem(item, DATA_VALUE), &hex) || hex.size() > INT_MAX)
    return nullptr;
  unsigned char* raw = nullptr;
  int length = 0;
  if (VakroPKICryptoHexDecode(hex.data(), static_cast<int>(hex.size()), &raw, &length) != 1)
    return nullptr;
  LibBytes value(raw);
  if (length != data->length) return nullptr;
  data->value = value.release();
  return data.release();
}

VakroJson* Data2Json(const Data* data) {
  if (data == nullptr) return nullptr;
  Json item(vakro_json_newarray());
  if (!item || !AddNumber(item.get(), data->id) || !AddNumber(item.get(), data->length) ||
      !AddNumber(item.get(), data->reserved1) || !AddNumber(item.get(), data->reserved2))
    return nullptr;
  char* raw = nullptr;
  int length = 0;
  if (VakroPKICryptoHexEncode(1, data->value, data->length, &raw, &length) != 1) return nullptr;
  const LibText hex(raw);
  if (!AddString(item.get(), {raw, static_cast<size_t>(length)})) return nullptr;
  return item.release();
}

VakroJson* Datas2Json(Data** list, int count) {
  Json datas(vakro_json_newarray());
  if (!datas) return nullptr;
  for (int i = 0; i < count; i++)
    if (!AddItem(datas.get(), Json(Data2Json(list[i])))) return nullptr;
  return datas.release();
}

// --- The list ------------------------------------------------------------------------------------

bool ReadDatas(const Json& root, Data*** list, unsigned int* count) {
  VakroJson* items = vakro_json_getarrayitem(root.get(), DEVICE_DATAS);
  if (items == nullptr) {
    *count = 0;
    return true;
  }
  if (!IsArray(items)) return false;

  const int stored = vakro_json_getarraysize(items);
  const size_t slots = static_cast<size_t>(stored) + SPARE_SLOTS;
  auto** datas = static_cast<Data**>(vakro_malloc(slots * sizeof(void*), "json", __LINE__));
  if (datas == nullptr) return false;
  for (int i = 0; i < stored; i++) {
    datas[i] = Json2Data(vakro_json_getarrayitem(items, i));
    if (datas[i] != nullptr) continue;
    FreeDatas(datas, i);
    return false;
  }
  *list = datas;
  *count = static_cast<unsigned int>(stored);
  return true;
}

Json ReadStoredTree(Device* device) {
  if (device == nullptr) return nullptr;
  FileImage image;
  if (ReadCurrent(device->filePath, device->backupPath, true, ReadImage, &image) !=
      ReadResult::GOOD)
    return nullptr;
  device->fileTag = be2int(image.bytes.get() + TAG_OFFSET);
  Json root;
  DecodeText(ImageText(image.bytes.get()), &root);
  return IsArray(root.get()) ? std::move(root) : nullptr;
}

int GetAllDatasFromFile(Device* device, Data*** list, unsigned int* count) {
  const Json root = ReadStoredTree(device);
  return root && ReadDatas(root, list, count) ? 1 : 0;
}

bool BeginDataChange(Device* device, FileChange* change) {
  if (BeginFileChange(device, Reading::RESTORED, change) != ReadResult::GOOD) return false;
  device->fileTag = be2int(change->image.bytes.get() + TAG_OFFSET);
  return IsArray(change->root.get());
}

// PutDatas makes `datas` the data objects of the tree; NULL when memory is out.
static Json PutDatas(Json root, const VakroJson* datas) {
  if (vakro_json_getarraysize(root.get()) != DEVICE_DATAS) {
    Json first(vakro_json_newarray());
    if (!first) return nullptr;
    for (int i = 0; i < DEVICE_DATAS; i++) {
      const VakroJson* item = vakro_json_getarrayitem(root.get(), i);
      if (item == nullptr || vakro_json_addarrayitem(first.get(), item) != 1) return nullptr;
    }
    root = std::move(first);
  }
  return vakro_json_addarrayitem(root.get(), datas) == 1 ? std::move(root) : nullptr;
}

VakroJson* UpdateData2DeviceJson(Device* device, VakroJson* datas) {
  Json root = ReadStoredTree(device);
  return root && datas != nullptr ? PutDatas(std::move(root), datas).release() : nullptr;
}

bool WriteDatas(FileChange* change, Device* device, Data** list, unsigned int count) {
  if (count > INT_MAX) return false;
  const Json datas(Datas2Json(list, static_cast<int>(count)));
  if (!datas) return false;
  Json tree = PutDatas(std::move(change->root), datas.get());
  return tree && RewriteFile(change, device, std::move(tree)) == 1;
}

bool HasRoomForData(const FileChange& change, int length) {
  constexpr unsigned int SHORTEST_ITEM = sizeof("[1,1,0,0,\"\"]") - 1;
  const unsigned int taken = change.image.size - HEADER_SIZE - DIGEST_SIZE + SHORTEST_ITEM;
  return taken <= MAX_TEXT_SIZE && static_cast<unsigned int>(length) <= (MAX_TEXT_SIZE - taken) / 2;
}

int WriteAllDatasToFile(Device* device, Data** list, unsigned int count) {
  FileChange change;
  return BeginDataChange(device, &change) && WriteDatas(&change, device, list, count) ? 1 : 0;
}
