// The software device and the release of buffers.
#include "platform/crypto/crypto.h"

#include <atomic>

// A handle keeps the digests that were used on it, because OpenSSL takes longer to look one up than
// to make a hash object with it.
struct VakroPKICryptoDevice {
  std::atomic<EVP_MD*> sha512;  // EVP_MD_free; NULL until first used
  std::atomic<EVP_MD*> sm3;
};

VakroPKICryptoDevice* VakroPKICryptoGetPseudoDevice(void) {
  auto memory = NewArray<VakroPKICryptoDevice>(1);
  return memory ? new (memory.release()) VakroPKICryptoDevice{} : nullptr;
}

void VakroPKICryptoFreeDevice(VakroPKICryptoDevice* device) {
  if (device == nullptr) return;
  EVP_MD_free(device->sha512);
  EVP_MD_free(device->sm3);
  vakro_free(device);
}

void VakroPKICryptoFreeMemory(void* buffer) { vakro_free(buffer); }

static const EVP_MD* Fetch(std::atomic<EVP_MD*>* place, const char* name) {
  EVP_MD* const kept = place->load(std::memory_order_acquire);
  if (kept != nullptr) return kept;
  EVP_MD* const fetched = EVP_MD_fetch(nullptr, name, nullptr);
  EVP_MD* other = nullptr;
  if (fetched == nullptr || place->compare_exchange_strong(other, fetched)) return fetched;
  EVP_MD_free(fetched);  // another thread was faster
  return other;
}

const EVP_MD* FindDigest(VakroPKICryptoDevice* device, int algorithm) {
  if (device == nullptr) return nullptr;
  switch (algorithm) {
    case VAKRO_HASH_SHA512:
      return Fetch(&device->sha512, "SHA512");
    case VAKRO_HASH_SM3:
      return Fetch(&device->sm3, "SM3");
    default:
      return nullptr;
  }
}
