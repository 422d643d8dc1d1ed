// The data-object calls: each reads the list from the device file, works on it, and writes the
// whole list back if it has changed. They need no PIN.
#include "core/error_mark.h"
#include "core/owners.h"
#include "core/secret.h"
#include "device/device.h"
#include "store/change.h"

#include <string.h>

namespace {
// The module lock, the file in hand, and the list, for the length of one call.
struct DataList {
  const ModuleLock lock;
  Device* const device;
  FileChange change;
  Data** datas = nullptr;
  unsigned int count = 0;

  explicit DataList(Device* of) : device(of) {}
  DataList(const DataList&) = delete;
  DataList& operator=(const DataList&) = delete;
  ~DataList() { FreeDatas(datas, static_cast<int>(count)); }

  bool Read() {
    if (lock.held) change.root = ReadStoredTree(device);
    return change.root && ReadDatas(change.root, &datas, &count);
  }
  bool ReadToWrite() {
    return lock.held && BeginDataChange(device, &change) && ReadDatas(change.root, &datas, &count);
  }
  bool Write() { return WriteDatas(&change, device, datas, count); }

  // The index of the first object with this id, or -1.
  int Find(int id) const {
    for (unsigned int i = 0; i < count; i++) {
      if (datas[i]->id == id) return static_cast<int>(i);
    }
    return -1;
  }

  // Takes over `data`. A list that was read has room for more; one that was not is made here.
  bool Append(OwnedData data) {
    if (datas == nullptr) datas = Allocate<Data*>(1, "device");
    if (datas == nullptr) return false;
    datas[count] = data.release();
    count++;
    return true;
  }
};
}  // namespace

int DeviceCreateData(Device* device, int id, int /*reserved*/, int length) {
  const ErrorMark mark;
  if (device == nullptr) return VAKRO_NULL_HANDLE;
  if (id < 1 || length < 1) return VAKRO_INVALID_ARGUMENT;
  DataList list(device);
  if (!list.ReadToWrite()) return VAKRO_FAILED;
  if (list.Find(id) >= 0) return VAKRO_ALREADY_EXISTS;
  if (!HasRoomForData(list.change, length)) return VAKRO_FAILED;
  OwnedData data(newData(id, length));
  if (!data || !list.Append(std::move(data))) return VAKRO_FAILED;
  return list.Write() ? VAKRO_OK : VAKRO_FAILED;
}

int DeviceReadDataEx(Device* device, int id, int offset, unsigned char* buffer, int size,
                     unsigned int* length) {
  const ErrorMark mark;
  if (device == nullptr) return VAKRO_NULL_HANDLE;
  if (id < 1) return VAKRO_INVALID_ARGUMENT;
  DataList list(device);
  if (!list.Read()) return VAKRO_FAILED;
  const int index = list.Find(id);
  if (index < 0) return VAKRO_NO_SUCH_DATA;
  const Data& data = *list.datas[index];
  if (offset < 0 || offset > data.length) return VAKRO_FAILED;
  const int available = data.length - offset;
  if (length != nullptr) *length = static_cast<unsigned int>(available);
  if (buffer == nullptr) return VAKRO_OK;
  const int fits = size < 0 ? 0 : size;
  const int copied = available < fits ? available : fits;
  if (copied > 0) memcpy(buffer, data.value + offset, static_cast<size_t>(copied));
  if (length != nullptr) *length = static_cast<unsigned int>(copied);
  return VAKRO_OK;
}

static bool Fits(const Data& data, int offset, int length) {
  return offset >= 0 && offset <= data.length && length <= data.length - offset;
}

int DeviceWriteDataEx(Device* device, int id, int offset, const unsigned char* bytes, int length) {
  const ErrorMark mark;
  if (device == nullptr) return VAKRO_NULL_HANDLE;
  if (id < 1 || length < 1 || bytes == nullptr) return VAKRO_INVALID_ARGUMENT;
  DataList list(device);
  if (!list.ReadToWrite()) return VAKRO_FAILED;
  const int index = list.Find(id);
  if (index < 0) return VAKRO_NO_SUCH_DATA;
  const Data& data = *list.datas[index];
  if (!Fits(data, offset, length)) return VAKRO_OUT_OF_RANGE;
  memcpy(data.value + offset, bytes, static_cast<size_t>(length));
  return list.Write() ? VAKRO_OK : VAKRO_FAILED;
}

int DeviceDeleteData(Device* device, int id) {
  const ErrorMark mark;
  if (device == nullptr) return VAKRO_NULL_HANDLE;
  if (id < 1) return VAKRO_INVALID_ARGUMENT;
  DataList list(device);
  if (!list.ReadToWrite()) return VAKRO_FAILED;
  const int index = list.Find(id);
  if (index < 0) return VAKRO_NO_SUCH_DATA;
  removeData(list.datas, static_cast<int>(list.count), index);
  list.count--;
  return list.Write() ? VAKRO_OK : VAKRO_FAILED;
}
