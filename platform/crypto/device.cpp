// The software device and the release of buffers.
#include "vakro_crypto.h"
#include "vakro_util.h"

// The software has no state; a handle is a token that can be counted.
struct VakroPKICryptoDevice {
  int unused;
};

VakroPKICryptoDevice* VakroPKICryptoGetPseudoDevice(void) {
  return static_cast<VakroPKICryptoDevice*>(
      vakro_malloc(sizeof(VakroPKICryptoDevice), "crypto", __LINE__));
}

void VakroPKICryptoFreeDevice(VakroPKICryptoDevice* device) { vakro_free(device); }

void VakroPKICryptoFreeMemory(void* buffer) { vakro_free(buffer); }
