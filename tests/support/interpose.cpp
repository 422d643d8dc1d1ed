#include "tests/support/interpose.h"

#include "vakro_crypto.h"
#include "vakro_util.h"

#include <dirent.h>
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <link.h>
#include <openssl/bn.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/rand.h>
#include <openssl/rsa.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <atomic>
#include <deque>
#include <string_view>
#include <utility>
#include <vector>

namespace {

thread_local Fault t_fault;
thread_local bool t_armed = false;
thread_local long t_calls = 0;
thread_local const char* t_hit = nullptr;
thread_local int (*t_hook)(const FileCall&) = nullptr;
thread_local int t_hookError = 0;
std::atomic<long> g_live{0};
std::deque<std::string> g_randRange;

void* Next(const char* name) {
  void* next = dlsym(RTLD_NEXT, name);
  if (next == nullptr) {
    fprintf(stderr, "no library defines %s\n", name);
    abort();
  }
  return next;
}

bool Listed(std::string_view names, std::string_view name) {
  if (names == "*") return true;
  for (size_t at = 0; at <= names.size();) {
    const size_t end = std::min(names.find('|', at), names.size());
    if (names.substr(at, end - at) == name) return true;
    at = end + 1;
  }
  return false;
}

// The code of the three libraries. Calls from elsewhere, OpenSSL's own among them, are left alone.
bool FromLibraries(const void* caller) {
  static const auto ranges = [] {
    std::vector<std::pair<uintptr_t, uintptr_t>> found;
    dl_iterate_phdr(
        [](dl_phdr_info* info, size_t, void* out) {
          if (strstr(info->dlpi_name, "libvakro_") == nullptr) return 0;
          for (int i = 0; i < info->dlpi_phnum; i++) {
            const uintptr_t start = info->dlpi_addr + info->dlpi_phdr[i].p_vaddr;
            static_cast<decltype(found)*>(out)->emplace_back(start,
                                                             start + info->dlpi_phdr[i].p_memsz);
          }
          return 0;
        },
        &found);
    return found;
  }();
  const auto at = reinterpret_cast<uintptr_t>(caller);
  return std::any_of(ranges.begin(), ranges.end(),
                     [at](const auto& range) { return at >= range.first && at < range.second; });
}

bool MustFail(const char* name, const void* caller, const char* path = nullptr) {
  if (!t_armed || !Listed(t_fault.name, name) || !FromLibraries(caller)) return false;
  if (t_fault.file != nullptr &&
      (path == nullptr || !std::string_view(path).ends_with(t_fault.file)))
    return false;
  t_calls++;
  if (t_calls != t_fault.nth && !(t_fault.andLater && t_fault.nth > 0 && t_calls > t_fault.nth))
    return false;
  t_hit = name;
  return true;
}

bool MustFail(const FileCall& call, const void* caller) {
  if (t_hook != nullptr && FromLibraries(caller)) {
    const int usual = errno;
    t_hookError = t_hook(call);
    errno = usual;
    if (t_hookError != 0) return true;
  }
  return MustFail(call.name, caller, call.path);
}

template <class Result>
Result Failed(int usual, Result result) {
  const int error = std::exchange(t_hookError, 0);
  errno = error != 0 ? error : t_fault.error != 0 ? t_fault.error : usual;
  return result;
}

// A stream that has failed says so to ferror too.
size_t FailedStream(FILE* file, int usual) {
  file->_flags |= _IO_ERR_SEEN;
  return Failed(usual, size_t{0});
}

}  // namespace

void ArmFault(const Fault& fault) {
  t_fault = fault;
  t_calls = 0;
  t_hit = nullptr;
  t_armed = true;
}
void DisarmFault() { t_armed = false; }
long FaultCalls() { return t_calls; }
const char* FaultHit() { return t_hit; }
void HookFiles(int (*hook)(const FileCall& call)) { t_hook = hook; }
long LiveAllocations() { return g_live; }
void FixRandRange(std::initializer_list<const char*> hex) {
  g_randRange.assign(hex.begin(), hex.end());
}

#define CALLER __builtin_return_address(0)

// Defines `name`: the next library's function, or `failure` when its turn to fail has come.
#define INTERPOSE_AS(result, name, params, spec, args, failure)       \
  extern "C" result name params spec {                                \
    using Function = result(*) params;                                \
    static const auto next = reinterpret_cast<Function>(Next(#name)); \
    return MustFail(#name, CALLER) ? failure : next args;             \
  }
// The same for a file call; the last arguments are its FileCall behind the name.
#define INTERPOSE_FILE(result, function, params, spec, args, failure, ...)           \
  extern "C" result function params spec {                                           \
    using Function = result(*) params;                                               \
    static const auto next = reinterpret_cast<Function>(Next(#function));            \
    return MustFail({.name = #function, __VA_ARGS__}, CALLER) ? failure : next args; \
  }
#define INTERPOSE(result, name, params, args, failure) \
  INTERPOSE_AS(result, name, params, , args, failure)
#define INTERPOSE_NEW(type, name, params, args) INTERPOSE(type*, name, params, args, nullptr)
#define INTERPOSE_INT(name, params, args) INTERPOSE(int, name, params, args, 0)

// clang-format off
using Bytes = const unsigned char*;
using Out = unsigned char**;

// Utility library
INTERPOSE_NEW(VakroLock, vakro_lock_new, (void), ())
INTERPOSE_INT(vakro_lock_lock, (VakroLock* l), (l))
INTERPOSE_NEW(VakroJson, vakro_json_decode, (const char* t, unsigned int n), (t, n))
INTERPOSE_INT(vakro_json_encode, (const VakroJson* v, unsigned int f, char** t, unsigned int* n), (v, f, t, n))
INTERPOSE_NEW(VakroJson, vakro_json_getarrayitem, (VakroJson* a, int i), (a, i))
INTERPOSE_NEW(VakroJson, vakro_json_newarray, (void), ())
INTERPOSE_NEW(VakroJson, vakro_json_newstring, (const char* t, unsigned int n), (t, n))
INTERPOSE_NEW(VakroJson, vakro_json_newnumber, (double n), (n))
INTERPOSE_INT(vakro_json_addarrayitem, (VakroJson* a, const VakroJson* i), (a, i))
INTERPOSE_NEW(VakroJson, vakro_json_dup, (const VakroJson* v), (v))
INTERPOSE_INT(vakro_hexencode, (int m, Bytes b, int n, char** t, int* tn), (m, b, n, t, tn))
INTERPOSE_INT(vakro_hexdecode, (const char* t, int tn, Out b, int* n), (t, tn, b, n))
INTERPOSE_INT(vakro_base64encode, (int m, Bytes b, int n, char** t, int* tn), (m, b, n, t, tn))
INTERPOSE_INT(vakro_base64decode, (int m, const char* t, int tn, Out b, int* n), (m, t, tn, b, n))

// Crypto library
INTERPOSE_NEW(VakroPKICryptoDevice, VakroPKICryptoGetPseudoDevice, (void), ())
INTERPOSE_NEW(VakroPKICryptoHash, VakroPKICryptoNewHash, (VakroPKICryptoDevice* d, int a), (d, a))
INTERPOSE_INT(VakroPKICryptoHashUpdate, (VakroPKICryptoHash* h, Bytes b, int n), (h, b, n))
INTERPOSE_INT(VakroPKICryptoHashFinal, (VakroPKICryptoHash* h, Out d, int* n), (h, d, n))
INTERPOSE_NEW(VakroPKICryptoMac, VakroPKICryptoNewMac, (VakroPKICryptoDevice* d, int a, Bytes k, int n, const void* p), (d, a, k, n, p))
INTERPOSE_INT(VakroPKICryptoMacUpdate, (VakroPKICryptoMac* m, Bytes b, int n), (m, b, n))
INTERPOSE_INT(VakroPKICryptoMacFinal, (VakroPKICryptoMac* m, Out v, int* n), (m, v, n))
INTERPOSE_NEW(VakroPKICryptoCipher, VakroPKICryptoNewCipher, (VakroPKICryptoDevice* d, int e, int a, Bytes k, int n, const AEADParams* p), (d, e, a, k, n, p))
INTERPOSE_INT(VakroPKICryptoCipherSetPadding, (VakroPKICryptoCipher* c, int p), (c, p))
INTERPOSE_INT(VakroPKICryptoCipherUpdate, (VakroPKICryptoCipher* c, Bytes i, int n, Out o, int* on), (c, i, n, o, on))
INTERPOSE_INT(VakroPKICryptoCipherFinal, (VakroPKICryptoCipher* c, Out o, int* on), (c, o, on))
INTERPOSE_INT(VakroPKICryptoHexEncode, (int m, Bytes b, int n, char** t, int* tn), (m, b, n, t, tn))
INTERPOSE_INT(VakroPKICryptoHexDecode, (const char* t, int tn, Out b, int* n), (t, tn, b, n))
INTERPOSE_INT(VakroPKICryptoRSAPrivKeyFromDER, (Bytes d, int n, Out e, int* en), (d, n, e, en))
INTERPOSE_INT(VakroPKICryptoRSAPrivKeyToDER, (Bytes e, int en, Out d, int* n), (e, en, d, n))
INTERPOSE_INT(VakroPKICryptoRSAPubKeyFromDER, (Bytes d, int n, Out e, int* en), (d, n, e, en))
INTERPOSE_INT(VakroPKICryptoDecodeRSAPubKey, (Bytes e, int en, Out m, int* mn, Out x, int* xn), (e, en, m, mn, x, xn))
INTERPOSE_INT(VakroPKICryptoEncodeECCKeyPair, (int c, Bytes x, int xn, Bytes y, int yn, Bytes d, int dn, Out o, int* on), (c, x, xn, y, yn, d, dn, o, on))
INTERPOSE_INT(VakroPKICryptoEncodeECCPubKey, (int c, Bytes x, int xn, Bytes y, int yn, Out o, int* on), (c, x, xn, y, yn, o, on))
INTERPOSE_INT(VakroPKICryptoDecodeECCKeyPair, (Bytes b, int n, int* c, Out x, int* xn, Out y, int* yn, Out d, int* dn), (b, n, c, x, xn, y, yn, d, dn))
INTERPOSE_INT(VakroPKICryptoDecodeECCPubKey, (Bytes b, int n, int* c, Out x, int* xn, Out y, int* yn), (b, n, c, x, xn, y, yn))
INTERPOSE_INT(VakroPKICryptoEncodeECCSignature, (Bytes r, int rn, Bytes s, int sn, Out o, int* on), (r, rn, s, sn, o, on))
INTERPOSE_INT(VakroPKICryptoDecodeECCSignature, (Bytes b, int n, Out r, int* rn, Out s, int* sn), (b, n, r, rn, s, sn))

// OpenSSL
INTERPOSE_NEW(BIGNUM, BN_new, (void), ())
INTERPOSE_NEW(BIGNUM, BN_secure_new, (void), ())
INTERPOSE_NEW(BIGNUM, BN_bin2bn, (Bytes b, int n, BIGNUM* r), (b, n, r))
INTERPOSE_NEW(BN_CTX, BN_CTX_new, (void), ())
INTERPOSE_NEW(BN_CTX, BN_CTX_secure_new, (void), ())
INTERPOSE_INT(BN_mod_add, (BIGNUM* r, const BIGNUM* a, const BIGNUM* b, const BIGNUM* m, BN_CTX* c), (r, a, b, m, c))
INTERPOSE_INT(BN_mod_mul, (BIGNUM* r, const BIGNUM* a, const BIGNUM* b, const BIGNUM* m, BN_CTX* c), (r, a, b, m, c))
INTERPOSE_NEW(BIGNUM, BN_mod_inverse, (BIGNUM* r, const BIGNUM* a, const BIGNUM* n, BN_CTX* c), (r, a, n, c))
INTERPOSE_NEW(const EC_METHOD, EC_GFp_simple_method, (void), ())
INTERPOSE_NEW(EC_GROUP, EC_GROUP_new, (const EC_METHOD* m), (m))
INTERPOSE_INT(EC_GROUP_set_curve_GFp, (EC_GROUP* g, const BIGNUM* p, const BIGNUM* a, const BIGNUM* b, BN_CTX* c), (g, p, a, b, c))
INTERPOSE_INT(EC_GROUP_set_generator, (EC_GROUP* g, const EC_POINT* p, const BIGNUM* n, const BIGNUM* h), (g, p, n, h))
INTERPOSE_INT(EC_GROUP_precompute_mult, (EC_GROUP* g, BN_CTX* c), (g, c))
INTERPOSE_NEW(EC_POINT, EC_POINT_new, (const EC_GROUP* g), (g))
INTERPOSE_INT(EC_POINT_mul, (const EC_GROUP* g, EC_POINT* r, const BIGNUM* n, const EC_POINT* q, const BIGNUM* m, BN_CTX* c), (g, r, n, q, m, c))
INTERPOSE(size_t, EC_POINT_point2oct, (const EC_GROUP* g, const EC_POINT* p, point_conversion_form_t f, unsigned char* b, size_t n, BN_CTX* c), (g, p, f, b, n, c), 0)
INTERPOSE_INT(EC_POINT_oct2point, (const EC_GROUP* g, EC_POINT* p, Bytes b, size_t n, BN_CTX* c), (g, p, b, n, c))
INTERPOSE_NEW(EC_KEY, EC_KEY_new, (void), ())
INTERPOSE_NEW(EC_KEY, EC_KEY_new_by_curve_name, (int n), (n))
INTERPOSE_INT(EC_KEY_set_group, (EC_KEY* k, const EC_GROUP* g), (k, g))
INTERPOSE_INT(EC_KEY_set_public_key, (EC_KEY* k, const EC_POINT* p), (k, p))
INTERPOSE_INT(EC_KEY_set_private_key, (EC_KEY* k, const BIGNUM* d), (k, d))
INTERPOSE_INT(EC_KEY_generate_key, (EC_KEY* k), (k))
INTERPOSE_INT(ECDSA_sign, (int t, Bytes d, int n, unsigned char* s, unsigned int* sn, EC_KEY* k), (t, d, n, s, sn, k))
INTERPOSE_NEW(EVP_PKEY, EVP_PKEY_new, (void), ())
INTERPOSE_INT(EVP_PKEY_set1_RSA, (EVP_PKEY* p, RSA* r), (p, r))
INTERPOSE_INT(EVP_PKEY_set1_EC_KEY, (EVP_PKEY* p, EC_KEY* k), (p, k))
INTERPOSE_NEW(RSA, RSA_new, (void), ())
INTERPOSE_INT(RSA_generate_key_ex, (RSA* r, int b, BIGNUM* e, BN_GENCB* c), (r, b, e, c))
INTERPOSE_INT(i2d_RSAPrivateKey, (const RSA* r, Out o), (r, o))
INTERPOSE_INT(i2d_RSAPublicKey, (const RSA* r, Out o), (r, o))
INTERPOSE_NEW(RSA, d2i_RSAPrivateKey, (RSA** r, Bytes* b, long n), (r, b, n))
INTERPOSE(int, RSA_private_encrypt, (int n, Bytes f, unsigned char* t, RSA* r, int p), (n, f, t, r, p), -1)
INTERPOSE(int, RSA_private_decrypt, (int n, Bytes f, unsigned char* t, RSA* r, int p), (n, f, t, r, p), -1)
INTERPOSE(int, RSA_public_encrypt, (int n, Bytes f, unsigned char* t, RSA* r, int p), (n, f, t, r, p), -1)
INTERPOSE(int, RSA_public_decrypt, (int n, Bytes f, unsigned char* t, RSA* r, int p), (n, f, t, r, p), -1)
INTERPOSE_INT(PKCS5_PBKDF2_HMAC, (const char* p, int pn, Bytes s, int sn, int i, const EVP_MD* m, int n, unsigned char* o), (p, pn, s, sn, i, m, n, o))
INTERPOSE_INT(RAND_bytes, (unsigned char* b, int n), (b, n))

// C library
INTERPOSE_FILE(int, fseek, (FILE* f, long o, int w), , (f, o, w), Failed(EIO, -1), .stream = f)
INTERPOSE_FILE(long, ftell, (FILE* f), , (f), Failed(EIO, -1L), .stream = f)
INTERPOSE_FILE(size_t, fread, (void* p, size_t s, size_t n, FILE* f), , (p, s, n, f), FailedStream(f, EIO), .stream = f)
INTERPOSE_FILE(size_t, fwrite, (const void* p, size_t s, size_t n, FILE* f), , (p, s, n, f), FailedStream(f, ENOSPC), .stream = f, .bytes = p, .length = s * n, .modifies = true)
INTERPOSE_FILE(int, fflush, (FILE* f), , (f), Failed(ENOSPC, EOF), .stream = f, .modifies = true)
INTERPOSE_FILE(int, fclose, (FILE* f), , (f), (next(f), Failed(ENOSPC, EOF)), .stream = f)
INTERPOSE_FILE(int, fsync, (int d), , (d), Failed(EIO, -1), .fd = d)
INTERPOSE_FILE(int, fdatasync, (int d), , (d), Failed(EIO, -1), .fd = d)
INTERPOSE_FILE(int, rename, (const char* a, const char* b), noexcept, (a, b), Failed(EXDEV, -1), .path = a, .modifies = true)
INTERPOSE_FILE(int, remove, (const char* p), noexcept, (p), Failed(EBUSY, -1), .path = p, .modifies = true)
INTERPOSE_FILE(int, unlink, (const char* p), noexcept, (p), Failed(EBUSY, -1), .path = p, .modifies = true)
INTERPOSE_FILE(DIR*, opendir, (const char* p), , (p), Failed(EMFILE, nullptr), .path = p)
INTERPOSE_FILE(dirent*, readdir, (DIR* d), , (d), Failed(EIO, nullptr), .fd = dirfd(d))
INTERPOSE_FILE(int, stat, (const char* p, struct stat* s), noexcept, (p, s), Failed(EIO, -1), .path = p)
INTERPOSE_FILE(int, lstat, (const char* p, struct stat* s), noexcept, (p, s), Failed(EIO, -1), .path = p)
INTERPOSE_FILE(int, fstat, (int d, struct stat* s), noexcept, (d, s), Failed(EIO, -1), .fd = d)
INTERPOSE_FILE(int, access, (const char* p, int m), noexcept, (p, m), Failed(EIO, -1), .path = p)
INTERPOSE_FILE(int, fchmod, (int d, mode_t m), noexcept, (d, m), Failed(EPERM, -1), .fd = d, .modifies = true)
INTERPOSE_FILE(int, fchown, (int d, uid_t u, gid_t g), noexcept, (d, u, g), Failed(EPERM, -1), .fd = d, .modifies = true)
INTERPOSE_FILE(int, ftruncate, (int d, off_t n), noexcept, (d, n), Failed(EIO, -1), .fd = d, .modifies = true)
INTERPOSE_FILE(int, flock, (int d, int o), noexcept, (d, o), Failed(ENOLCK, -1), .fd = d)
// clang-format on

extern "C" FILE* fopen(const char* path, const char* mode) {
  static const auto next = reinterpret_cast<FILE* (*)(const char*, const char*)>(Next("fopen"));
  const bool modifies = strchr("wa", mode[0]) != nullptr;
  return MustFail({.name = "fopen", .path = path, .modifies = modifies}, CALLER)
             ? Failed(EMFILE, nullptr)
             : next(path, mode);
}

extern "C" int open(const char* path, int flags, ...) {
  static const auto next = reinterpret_cast<int (*)(const char*, int, ...)>(Next("open"));
  const bool modifies = (flags & (O_WRONLY | O_RDWR | O_CREAT)) != 0;
  if (MustFail({.name = "open", .path = path, .modifies = modifies}, CALLER))
    return Failed(EMFILE, -1);
  va_list rest;
  va_start(rest, flags);
  const unsigned int mode = (flags & O_CREAT) != 0 ? va_arg(rest, unsigned int) : 0;
  va_end(rest);
  return next(path, flags, mode);
}

extern "C" void* vakro_malloc(size_t size, const char* file, int line) {
  static const auto next =
      reinterpret_cast<void* (*)(size_t, const char*, int)>(Next("vakro_malloc"));
  void* memory = MustFail("vakro_malloc", CALLER) ? nullptr : next(size, file, line);
  if (memory != nullptr) g_live++;
  return memory;
}

extern "C" void vakro_free(void* memory) {
  static const auto next = reinterpret_cast<void (*)(void*)>(Next("vakro_free"));
  if (memory != nullptr) g_live--;
  next(memory);
}

extern "C" int BN_rand_range(BIGNUM* result, const BIGNUM* range) {
  static const auto next = reinterpret_cast<int (*)(BIGNUM*, const BIGNUM*)>(Next("BN_rand_range"));
  if (MustFail("BN_rand_range", CALLER)) return 0;
  if (g_randRange.empty()) return next(result, range);
  const std::string hex = g_randRange.front();
  g_randRange.pop_front();
  return BN_hex2bn(&result, hex.c_str()) != 0 ? 1 : 0;
}
