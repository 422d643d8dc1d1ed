// Device handles: taken, given back, and the release that frees a device.
#include "core/lock.h"
#include "core/owners.h"

void AddReferences(Device* device, unsigned int count) {
  std::atomic_ref(device->refCount).fetch_add(count);
}

void ReleaseReferences(Device* device, unsigned int count) {
  const unsigned int left = std::atomic_ref(device->refCount).fetch_sub(count) - count;
  if (left == static_cast<unsigned int>(device->keypairCount)) FreeDevice(device);
}

void LowerReferences(Device* device) { std::atomic_ref(device->refCount).fetch_sub(1); }

Device* DeviceGetDevice(DeviceSet* set, unsigned int index) {
  if (set == nullptr || set->count < 0 || index >= static_cast<unsigned int>(set->count))
    return nullptr;
  const ModuleLock lock;
  if (!lock.held) return nullptr;
  Device* device = set->devices[index];
  AddReferences(device, 1);
  return device;
}

int DeviceFreeDevice(Device* device) {
  if (device == nullptr) return VAKRO_OK;
  const ModuleLock lock;
  if (!lock.held) return VAKRO_FAILED;
  ReleaseReferences(device, 1);
  return VAKRO_OK;
}

int DeviceFreeDevices(DeviceSet* set) {
  if (set == nullptr) return VAKRO_OK;
  for (int i = 0; i < set->count; i++) DeviceFreeDevice(set->devices[i]);
  vakro_free(set);
  return VAKRO_OK;
}
