// Scoped owners and guards: whatever must be given back has one of these from the line it is born
// on. The deleter names the allocator, so the type says whose memory it is.
#ifndef VAKRO_DEVICE_OWNERS_H
#define VAKRO_DEVICE_OWNERS_H

#include "device/device.h"

#include <openssl/bn.h>
#include <openssl/crypto.h>
#include <openssl/ec.h>
#include <openssl/rsa.h>

#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>
#include <memory>

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
inline void FreeOpensslMemory(void* memory) { OPENSSL_free(memory); }
using OpensslBytes = std::unique_ptr<unsigned char[], Release<FreeOpensslMemory>>;
using Lock = std::unique_ptr<VakroLock, Release<vakro_lock_free>>;
using Json = std::unique_ptr<VakroJson, Release<vakro_json_free>>;

inline void CloseFile(FILE* file) { fclose(file); }
using File = std::unique_ptr<FILE, Release<CloseFile>>;

using SoftDevice = std::unique_ptr<VakroPKICryptoDevice, Release<VakroPKICryptoFreeDevice>>;
using HashObject = std::unique_ptr<VakroPKICryptoHash, Release<VakroPKICryptoFreeHash>>;
using MacObject = std::unique_ptr<VakroPKICryptoMac, Release<VakroPKICryptoFreeMac>>;
using CipherObject = std::unique_ptr<VakroPKICryptoCipher, Release<VakroPKICryptoFreeCipher>>;

using EvpKey = std::unique_ptr<EVP_PKEY, Release<EVP_PKEY_free>>;
using RsaKey = std::unique_ptr<RSA, Release<RSA_free>>;
using EcKey = std::unique_ptr<EC_KEY, Release<EC_KEY_free>>;
using EcGroup = std::unique_ptr<EC_GROUP, Release<EC_GROUP_free>>;
using EcPoint = std::unique_ptr<EC_POINT, Release<EC_POINT_clear_free>>;
using BigNum = std::unique_ptr<BIGNUM, Release<BN_clear_free>>;
using BnCtx = std::unique_ptr<BN_CTX, Release<BN_CTX_free>>;

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

// Stack memory for secrets, zero at first and wiped at the end.
template <size_t N>
struct Wiped {
  unsigned char bytes[N] = {};
  Wiped() = default;
  Wiped(const Wiped&) = delete;
  Wiped& operator=(const Wiped&) = delete;
  ~Wiped() { OPENSSL_cleanse(bytes, N); }
};

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

// Heap memory of the crypto or the utility library that holds a secret; wiped, then released.
template <auto Free>
struct SecretBytes {
  unsigned char* bytes = nullptr;
  size_t length = 0;
  SecretBytes(unsigned char* p, size_t n) : bytes(p), length(n) {}
  SecretBytes(const SecretBytes&) = delete;
  SecretBytes& operator=(const SecretBytes&) = delete;
  ~SecretBytes() {
    if (bytes != nullptr) OPENSSL_cleanse(bytes, length);
    Free(bytes);
  }
};
using SecretUtilBytes = SecretBytes<vakro_free>;
using SecretLibBytes = SecretBytes<VakroPKICryptoFreeMemory>;

// The module lock for a scope. Check `held` before anything else.
struct ModuleLock {
  const bool held;
  ModuleLock() : held(DeviceLockDevice(nullptr) == 1) {}
  ModuleLock(const ModuleLock&) = delete;
  ModuleLock& operator=(const ModuleLock&) = delete;
  ~ModuleLock() {
    if (held) DeviceUnlockDevice(nullptr);
  }
};

// AnswerBytes is the size query of every exported getter of bytes: `needed` bytes at `bytes`, the
// caller's `buffer` of `size` bytes or NULL. Returns 1, or -4 when the buffer is too small; 0 for a
// NULL `length`.
template <class Length>
int AnswerBytes(const void* bytes, int needed, void* buffer, int size, Length* length) {
  if (length == nullptr) return VAKRO_FAILED;
  *length = static_cast<Length>(needed);
  if (buffer == nullptr) return VAKRO_OK;
  if (size < needed) return VAKRO_BUFFER_TOO_SMALL;
  if (needed > 0) memcpy(buffer, bytes, static_cast<size_t>(needed));
  return VAKRO_OK;
}

// AnswerString is the size query over a string and its NUL.
template <class Length>
int AnswerString(const char* text, void* buffer, int size, Length* length) {
  return AnswerBytes(text, static_cast<int>(strlen(text)) + 1, buffer, size, length);
}

#endif
