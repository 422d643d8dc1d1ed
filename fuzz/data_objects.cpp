// Data-object items: the input is the JSON text of the fourth root item, in a device file whose
// digest is right. A list that can't be read makes every call fail and the file stay as it is; one
// that can be read is written and read again as the same list, beside an untouched rest of the
// file.
#include "fuzz/fuzz.h"
#include "store/store.h"

static constexpr std::string_view HEAD = R"(["0123456789","abc",[],)";

// Reads the list as text, one line an object.
static int ReadList(Device* device, std::string& text) {
  Data** list = nullptr;
  unsigned int count = 0;
  text.clear();
  const int result = GetAllDatasFromFile(device, &list, &count);
  for (unsigned int i = 0; i < count; i++) {
    const Data& data = *list[i];
    DEMAND(data.length >= 0);
    text += std::to_string(data.id) + ' ' + std::to_string(data.reserved1) + ' ' +
            std::to_string(data.reserved2) + ' ' +
            Hex(View(data.value, static_cast<size_t>(data.length))) + '\n';
  }
  if (result == 1) {
    FreeDatas(list, static_cast<int>(count));
  } else {
    DEMAND(list == nullptr && count == 0);
  }
  return result;
}

// Writes the list back as it was read.
static int RewriteList(Device* device) {
  Data** list = nullptr;
  unsigned int count = 0;
  DEMAND(GetAllDatasFromFile(device, &list, &count) == 1);
  const int result = WriteAllDatasToFile(device, list, count);
  FreeDatas(list, static_cast<int>(count));
  return result;
}

static void CheckRefused(Device* device) {
  unsigned char byte = 0;
  DEMAND(DeviceCreateData(device, 7, 0, 1) == VAKRO_FAILED);
  DEMAND(DeviceReadDataEx(device, 7, 0, &byte, 1, nullptr) == VAKRO_FAILED);
  DEMAND(DeviceWriteDataEx(device, 7, 0, &byte, 1) == VAKRO_FAILED);
  DEMAND(DeviceDeleteData(device, 7) == VAKRO_FAILED);
}

static void CheckCalls(Device* device, const std::string& text) {
  unsigned char bytes[2] = {0x5a, 0xa5};
  unsigned int length = 0;
  const int created = DeviceCreateData(device, 7, 0, 3);
  DEMAND(created == VAKRO_OK || created == VAKRO_ALREADY_EXISTS);
  if (created != VAKRO_OK) return;
  DEMAND(DeviceWriteDataEx(device, 7, 1, bytes, 2) == VAKRO_OK);
  DEMAND(DeviceReadDataEx(device, 7, 2, bytes, 2, &length) == VAKRO_OK);
  DEMAND(length == 1 && bytes[0] == 0xa5);
  DEMAND(DeviceDeleteData(device, 7) == VAKRO_OK);
  std::string after;
  DEMAND(ReadList(device, after) == 1 && after == text);
}

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size) {
  static const DeviceHandle device = World(StoredDevice{.keypairs = {}}.File()).Load();
  const std::string file = Container(TAG, std::string(HEAD) + std::string(View(data, size)) + "]");
  const World world(file);
  std::string text;
  if (ReadList(device.get(), text) != 1) {
    CheckRefused(device.get());
    DEMAND(world.Read() == file);
    return 0;
  }
  DEMAND(world.Read() == file);
  DEMAND(RewriteList(device.get()) == 1);
  std::string after;
  DEMAND(ReadList(device.get(), after) == 1 && after == text);
  CheckCalls(device.get(), text);
  DEMAND(TextOf(world.Read()).starts_with(HEAD));
  return 0;
}
