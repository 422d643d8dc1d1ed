// The data objects in the device file: reading the list, writing it back, and the conversions of
// one object. They are not kept in memory between calls.
#include "store/store.h"

static constexpr int SPARE_SLOTS = 8;  // a caller appends without growing the array

// ReadStoredTree reads, checks and decodes the device file's text; NULL on any failure.
static Json ReadStoredTree(Device* device) {
  unsigned char* raw = nullptr;
  unsigned int length = 0;
  if (GetDeviceDataFromFile(device, &raw, &length) != 1) return nullptr;
  const UtilBytes text(raw);
  return Json(vakro_json_decode(reinterpret_cast<const char*>(raw), length));
}

// --- One object ----------------------------------------------------------------------------------

Data* Json2Data(VakroJson* item) {
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

int GetAllDatasFromFile(Device* device, Data*** list, unsigned int* count) {
  const Json root = ReadStoredTree(device);
  if (!IsArray(root.get())) return 0;
  VakroJson* items = vakro_json_getarrayitem(root.get(), DEVICE_DATAS);
  if (items == nullptr) {
    *count = 0;
    return 1;
  }
  if (!IsArray(items)) return 0;

  const int stored = vakro_json_getarraysize(items);
  const size_t slots = static_cast<size_t>(stored) + SPARE_SLOTS;
  auto** datas = static_cast<Data**>(vakro_malloc(slots * sizeof(void*), "json", __LINE__));
  if (datas == nullptr) return 0;
  for (int i = 0; i < stored; i++) {
    datas[i] = Json2Data(vakro_json_getarrayitem(items, i));
    if (datas[i] != nullptr) continue;
    FreeDatas(datas, i);
    return 0;
  }
  *list = datas;
  *count = static_cast<unsigned int>(stored);
  return 1;
}

VakroJson* UpdateData2DeviceJson(Device* device, VakroJson* datas) {
  Json root = ReadStoredTree(device);
  if (!IsArray(root.get()) || datas == nullptr) return nullptr;
  if (vakro_json_getarraysize(root.get()) != DEVICE_ITEMS) {
    Json first(vakro_json_newarray());
    if (!first) return nullptr;
    for (int i = 0; i < DEVICE_ITEMS; i++) {
      const VakroJson* item = vakro_json_getarrayitem(root.get(), i);
      if (item == nullptr || vakro_json_addarrayitem(first.get(), item) != 1) return nullptr;
    }
    root = std::move(first);
  }
  if (vakro_json_addarrayitem(root.get(), datas) != 1) return nullptr;
  return root.release();
}

int WriteAllDatasToFile(Device* device, Data** list, unsigned int count) {
  if (device == nullptr || count > INT_MAX) return 0;
  const FolderLock lock(device->filePath);
  const Json datas(Datas2Json(list, static_cast<int>(count)));
  if (!datas) return 0;
  VakroJson* tree = UpdateData2DeviceJson(device, datas.get());
  return tree != nullptr ? RewriteDeviceFile(device, tree) : 0;
}
