// What a caller reads of a set and its devices without taking a handle.
#include "core/answer.h"
#include "device/device.h"

#include <string.h>

int DeviceGetDeviceCount(DeviceSet* set) {
  return set == nullptr ? VAKRO_INVALID_ARGUMENT : set->count;
}

int DeviceGetLabel(Device* device, unsigned char* buffer, int size, unsigned int* length) {
  if (device == nullptr) return VAKRO_NULL_HANDLE;
  return AnswerString(device->label, buffer, size, length);
}

int DeviceGetSerialNumber(Device* device, unsigned char* buffer, int size, unsigned int* length) {
  if (device == nullptr) return VAKRO_NULL_HANDLE;
  return AnswerString(device->serialNumber, buffer, size, length);
}
