// Listing, finding and putting of data objects.
#include "tools/data_objects.h"

#include "store/store.h"
#include "tools/change.h"
#include "tools/keys.h"

#include <sys/stat.h>
#include <algorithm>

namespace {
struct DataRecords {
  Data** items = nullptr;
  unsigned int count = 0;
  DataRecords() = default;
  DataRecords(const DataRecords&) = delete;
  DataRecords& operator=(const DataRecords&) = delete;
  ~DataRecords() { FreeDatas(items, static_cast<int>(count)); }
};
}  // namespace

static Failure Unreadable(Device* device) {
  return Failure("The data objects of device " + NameOf(device) + " can't be read.",
                 "'softdevice check' says what is wrong with them.");
}

static DataObject Describe(const Data* data) {
  const ByteSpan bytes(data->value, static_cast<size_t>(data->length));
  return {data->id, data->length, FingerprintOf(bytes)};
}

std::vector<DataObject> DataObjects(Device* device) {
  const ModuleLock lock;
  DataRecords list;
  if (!lock.held || GetAllDatasFromFile(device, &list.items, &list.count) != 1) {
    throw Unreadable(device);
  }
  std::vector<DataObject> objects;
  for (unsigned int i = 0; i < list.count; i++) {
    objects.push_back(Describe(list.items[i]));
  }
  std::sort(objects.begin(), objects.end(),
            [](const DataObject& a, const DataObject& b) { return a.id < b.id; });
  return objects;
}

std::string NameOfObject(int id) { return "data object " + std::to_string(id); }

DataObject FindObject(Device* device, int id) {
  for (const DataObject& object : DataObjects(device)) {
    if (object.id == id) return object;
  }
  throw Failure(EXIT_NOT_FOUND, "There is no " + NameOfObject(id) + ".",
                "'softdevice data list' shows what there is.");
}

static Failure Taken(int id) {
  return Failure(EXIT_EXISTS, "There is a " + NameOfObject(id) + " already.",
                 "Choose another number.");
}

void RefuseTaken(Device* device, int id) {
  for (const DataObject& object : DataObjects(device)) {
    if (object.id == id) throw Taken(id);
  }
}

// --- Putting ---------------------------------------------------------------------------------

static constexpr size_t SLACK = 65536;  // bytes of a device file that no object is given

// The text of the device file holds two digits for a byte.
void RequireRoom(const Device* device, size_t size) {
  struct stat status = {};
  const size_t taken =
      stat(device->filePath, &status) == 0 ? static_cast<size_t>(status.st_size) : 0;
  const size_t room = (MAX_FILE_SIZE - std::min<size_t>(MAX_FILE_SIZE, taken + SLACK)) / 2;
  if (size <= room) return;
  throw Failure("The device has room for a data object of at most " + Count(room, "byte") + ".");
}

static Data** EndOf(const DeviceChange& change) { return change.datas + change.dataCount; }

static Data** FindIn(const DeviceChange& change, int id) {
  return std::find_if(change.datas, EndOf(change),
                      [id](const Data* data) { return data->id == id; });
}

static int FreeNumber(const DeviceChange& change) {
  int id = 1;
  while (FindIn(change, id) != EndOf(change)) id++;
  return id;
}

static void Append(DeviceChange& change, int id, const Bytes& bytes) {
  OwnedData data(newData(id, static_cast<int>(bytes.size())));
  if (data && change.datas == nullptr) change.datas = Allocate<Data*>(1, "tools");
  if (!data || change.datas == nullptr) throw std::bad_alloc();
  std::copy(bytes.begin(), bytes.end(), data->value);
  change.datas[change.dataCount++] = data.release();
  change.datasChanged = true;
}

int PutObject(const Session& session, int id, const Bytes& bytes) {
  RequireRoom(session.device.get(), bytes.size());
  ChangeDevice(session, "put the data object", [&](DeviceChange& change) {
    if (!change.datasKnown) throw Unreadable(session.device.get());
    if (FindIn(change, id) != EndOf(change)) throw Taken(id);
    if (id == 0) id = FreeNumber(change);
    Append(change, id, bytes);
  });
  return id;
}

void DeleteObject(const Session& session, const DataObject& object) {
  const std::string name = NameOfObject(object.id);
  ChangeDevice(session, "delete " + name, [&](DeviceChange& change) {
    if (!change.datasKnown) throw Unreadable(session.device.get());
    Data** const found = FindIn(change, object.id);
    if (found == EndOf(change)) throw Failure(EXIT_NOT_FOUND, "The " + name + " is gone by now.");
    if (Describe(*found).fingerprint != object.fingerprint) {
      throw Failure("The " + name +
                    " has been changed or replaced meanwhile; nothing was deleted.");
    }
    FreeData(*found);
    std::copy(found + 1, EndOf(change), found);
    change.dataCount--;
    change.datasChanged = true;
  });
}
