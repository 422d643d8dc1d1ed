// Loads the module at run time, as a host with plug-ins does, and lists the devices of a folder.
//   load LIBRARY FOLDER
//   cc load.c -o load $(pkg-config --cflags vakro) -ldl
#include <vakro_device.h>

#include <dlfcn.h>
#include <stdio.h>

// The functions that are used, each with the type that the header gives it.
#define FUNCTIONS(F)       \
  F(DeviceInit)            \
  F(DeviceEnd)             \
  F(DeviceSetKeyFolder)    \
  F(DeviceGetAllDevices)   \
  F(DeviceGetDeviceCount)  \
  F(DeviceGetDevice)       \
  F(DeviceGetLabel)        \
  F(DeviceGetKeypairCount) \
  F(DeviceFreeDevice)      \
  F(DeviceFreeDevices)

#define DECLARE(name) static __typeof__(name)* my##name;
FUNCTIONS(DECLARE)

#define RESOLVE(name)                         \
  *(void**)&my##name = dlsym(library, #name); \
  if (my##name == NULL) return fprintf(stderr, "%s\n", dlerror()), 1;

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  void* library = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
  if (library == NULL) return fprintf(stderr, "%s\n", dlerror()), 1;
  FUNCTIONS(RESOLVE)

  if (myDeviceInit() != VAKRO_OK || myDeviceSetKeyFolder(argv[2]) != VAKRO_OK) return 1;
  DeviceSet* set = myDeviceGetAllDevices();
  for (int i = 0; i < myDeviceGetDeviceCount(set); i++) {
    unsigned char label[64];
    unsigned int length = 0;
    Device* device = myDeviceGetDevice(set, (unsigned int)i);
    if (myDeviceGetLabel(device, label, sizeof label, &length) == VAKRO_OK) {
      printf("%s: %d keypairs\n", (char*)label, myDeviceGetKeypairCount(device));
    }
    myDeviceFreeDevice(device);
  }
  myDeviceFreeDevices(set);
  myDeviceEnd();
  return dlclose(library);
}
