// Scoped owners and guards: whatever must be given back has one of these from the line it is born
// on. The deleter names the allocator, so the type says whose memory it is.
#ifndef VAKRO_CORE_OWNERS_H
#define VAKRO_CORE_OWNERS_H

#include "core/records.h"
#include "vakro_crypto.h"
#include "vakro_util.h"

#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>
#include <initializer_list>
#include <memory>
#include <string_view>

template <auto Free>
struct Release {
  template <class T>
  void operator()(T* p) const noexcept {
    Free(p);
  }
};

// FreeIfSet gives back what is there; that the maker's release functions take NULL is not relied
// on.
template <auto Free>
void FreeIfSet(auto* p) {
  if (p != nullptr) Free(p);
}

using UtilBytes = std::unique_ptr<unsigned char[], Release<vakro_free>>;
using UtilText = std::unique_ptr<char[], Release<vakro_free>>;
using LibBytes = std::unique_ptr<unsigned char[], Release<VakroPKICryptoFreeMemory>>;
using LibText = std::unique_ptr<char[], Release<VakroPKICryptoFreeMemory>>;
// What a function of the crypto library hands out. A function that fails may have written to its
// outputs all the same, so they are looked at, and become someone's, on success only.
struct LibOutput {
  unsigned char* bytes = nullptr;
  int length = 0;

  // Passes the output on when `result` is 1; returns `result`.
  int HandOut(int result, unsigned char** out, int* outLen) const {
    if (result != 1) return result;
    *out = bytes;
    *outLen = length;
    return result;
  }
};

using Lock = std::unique_ptr<VakroLock, Release<vakro_lock_free>>;
using Json = std::unique_ptr<VakroJson, Release<vakro_json_free>>;

inline void CloseFile(FILE* file) { fclose(file); }
using File = std::unique_ptr<FILE, Release<CloseFile>>;

using SoftDevice = std::unique_ptr<VakroPKICryptoDevice, Release<VakroPKICryptoFreeDevice>>;
using HashObject = std::unique_ptr<VakroPKICryptoHash, Release<VakroPKICryptoFreeHash>>;
using MacObject = std::unique_ptr<VakroPKICryptoMac, Release<VakroPKICryptoFreeMac>>;
using CipherObject = std::unique_ptr<VakroPKICryptoCipher, Release<VakroPKICryptoFreeCipher>>;

using OwnedSet = std::unique_ptr<DeviceSet, Release<FreeDeviceSet>>;
using OwnedDevice = std::unique_ptr<Device, Release<FreeDevice>>;
using OwnedKeypair = std::unique_ptr<Keypair, Release<FreeKeypair>>;
using OwnedCert = std::unique_ptr<Cert, Release<FreeCert>>;
using OwnedData = std::unique_ptr<Data, Release<FreeData>>;

// Allocate returns `count` zeroed elements of plain memory from vakro_malloc, or NULL; `tag` names
// the allocating folder. A count of 0 gives memory too.
template <class T>
T* Allocate(size_t count, const char* tag, int line = __builtin_LINE()) {
  if (count > SIZE_MAX / sizeof(T)) return nullptr;
  void* const memory = vakro_malloc(count * sizeof(T), tag, line);
  if (memory != nullptr) memset(memory, 0, count * sizeof(T));
  return static_cast<T*>(memory);
}

// Join returns the parts, one behind the other, as a string; NULL when memory is out.
inline UtilText Join(const char* tag, std::initializer_list<std::string_view> parts,
                     int line = __builtin_LINE()) {
  size_t length = 0;
  for (const std::string_view part : parts) length += part.size();
  UtilText text(Allocate<char>(length + 1, tag, line));
  char* end = text.get();
  if (end == nullptr) return nullptr;
  for (const std::string_view part : parts) end += part.copy(end, part.size());
  return text;
}

// A file descriptor for a scope; below 0 there is none.
struct Descriptor {
  const int fd;
  explicit Descriptor(int descriptor) : fd(descriptor) {}
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  ~Descriptor() {
    if (fd >= 0) close(fd);
  }
};

#endif
