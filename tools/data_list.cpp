// Looking at, and dropping, the fourth item of a device file's root.
#include "tools/data_list.h"

#include "store/change.h"
#include "store/store.h"

static constexpr int LIST_ITEM = 3;  // of the root

static Json ReadRoot(Device* device) {
  unsigned char* raw = nullptr;
  unsigned int length = 0;
  if (GetDeviceDataFromFile(device, &raw, &length) != 1) return nullptr;
  const UtilBytes text(raw);
  return Json(vakro_json_decode(reinterpret_cast<const char*>(raw), length));
}

static int CountObjects(VakroJson* root) {
  const int size = vakro_json_getarraysize(root);
  if (size < LIST_ITEM) return -2;
  if (size == LIST_ITEM) return -1;
  VakroJson* list = vakro_json_getarrayitem(root, LIST_ITEM);
  return vakro_json_gettype(list) == VAKRO_JSON_ARRAY ? vakro_json_getarraysize(list) : -2;
}

int StoredObjects(Device* device) {
  const ModuleLock lock;
  if (!lock.held) return -2;
  return CountObjects(ReadRoot(device).get());
}

void ForgetEmptyList(Device* device) {
  const ModuleLock lock;
  if (!lock.held) throw Failure("The module can't be locked.");
  FileChange change;
  const Json root(BeginDataChange(device, &change) ? std::move(change.root) : nullptr);
  const int objects = CountObjects(root.get());
  if (objects == -2) throw Failure("The device file can't be read.");
  if (objects == -1) {
    throw Failure("The device has no list of data objects.", "Nothing needs doing.");
  }
  if (objects > 0) {
    throw Failure("The device still holds data objects.",
                  "'softdevice data list' shows them, 'softdevice data delete' removes one.");
  }
  // Anything behind the list is none of ours to drop.
  if (vakro_json_getarraysize(root.get()) != LIST_ITEM + 1) {
    throw Failure("The device file holds more than this tool knows; it is left as it is.");
  }
  Json rest(VakroJsonDeleteArrayItem(root.get(), LIST_ITEM));
  RequireChange(rest == nullptr ? VAKRO_FAILED : RewriteFile(&change, device, std::move(rest)),
                "rewrite the device file");
}
