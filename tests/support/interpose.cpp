#include "tests/support/interpose.h"

#include "vakro_crypto.h"
#include "vakro_util.h"

#include <dirent.h>
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <link.h>
#include <openssl/crypto.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/rand.h>
#include <openssl/rsa.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <atomic>
#include <deque>
#include <map>
#include <span>
#include <string_view>
#include <tuple>
#include <type_traits>

namespace {
constexpr char OPENSSL_MALLOC[] = "OPENSSL_malloc";

thread_local Fault t_fault;
thread_local bool t_armed = false;
thread_local long t_calls = 0;
thread_local const char* t_hit = nullptr;
thread_local int (*t_hook)(const ImportCall&) = nullptr;
std::atomic<long> g_live{0};
std::deque<std::string> g_randRange;
std::vector<std::string> g_unknown;

bool Listed(const std::string& names, const std::string& name) {
  if (names == "*") return name != OPENSSL_MALLOC;
  return ("|" + names + "|").find("|" + name + "|") != std::string::npos;
}

int UsualError(const ImportCall& call) {
  if (strstr(call.name, "open") != nullptr) return EMFILE;
  return call.modifies ? ENOSPC : EIO;
}

// Says whether the call must fail, and has then set errno.
bool MustFail(const ImportCall& call) {
  if (t_hook != nullptr) {
    const int usual = errno;
    const int error = t_hook(call);
    errno = error != 0 ? error : usual;
    if (error != 0) return true;
  }
  if (!t_armed || !Listed(t_fault.name, call.name)) return false;
  if (t_fault.file != nullptr &&
      (call.path == nullptr || !std::string_view(call.path).ends_with(t_fault.file)))
    return false;
  t_calls++;
  if (t_calls != t_fault.nth && !(t_fault.andLater && t_fault.nth > 0 && t_calls > t_fault.nth))
    return false;
  t_hit = call.name;
  if (call.onFiles) errno = t_fault.error != 0 ? t_fault.error : UsualError(call);
  return true;
}

// --- Wrappers ------------------------------------------------------------------------------------

// What the arguments of a file call tell.
template <class... Rest>
ImportCall About(const char* path, Rest...) {
  return {.path = path};
}
template <class... Rest>
ImportCall About(int fd, Rest...) {
  return {.fd = fd};
}
template <class... Rest>
ImportCall About(FILE* stream, Rest...) {
  return {.stream = stream};
}
template <class... Rest>
ImportCall About(DIR* folder, Rest...) {
  return {.fd = dirfd(folder)};
}
ImportCall About(const void* bytes, size_t size, size_t count, FILE* stream) {
  return {.stream = stream, .bytes = bytes, .length = size * count};
}

template <auto* real>
const char* name = nullptr;  // under which the libraries import it

// The wrappers call the function that the test program itself would call. A result of -1 for
// failure is 0 where there is no sign.
template <auto* real, int failure, class Result, class... Args>
Result Wrapped(Args... args) {
  if (!MustFail({.name = name<real>})) return real(args...);
  if constexpr (std::is_pointer_v<Result>)
    return nullptr;
  else
    return static_cast<Result>(failure);
}

template <auto* real, bool modifies, class Result, class... Args>
Result WrappedFile(Args... args) {
  ImportCall call = About(args...);
  call.name = name<real>;
  call.onFiles = true;
  call.modifies = modifies;
  if (!MustFail(call)) return real(args...);
  if (call.stream != nullptr) call.stream->_flags |= _IO_ERR_SEEN;
  if constexpr (std::is_pointer_v<Result>)
    return nullptr;
  else
    return static_cast<Result>(std::is_signed_v<Result> ? -1 : 0);
}

FILE* WrappedFopen(const char* path, const char* mode) {
  const bool modifies = strchr("wa", mode[0]) != nullptr;
  const ImportCall call = {.name = "fopen", .onFiles = true, .modifies = modifies, .path = path};
  return MustFail(call) ? nullptr : fopen(path, mode);
}

int WrappedOpen(const char* path, int flags, mode_t mode) {
  const bool modifies = (flags & (O_WRONLY | O_RDWR | O_CREAT)) != 0;
  const ImportCall call = {.name = "open", .onFiles = true, .modifies = modifies, .path = path};
  return MustFail(call) ? -1 : open(path, flags, mode);
}

int WrappedFclose(FILE* stream) {  // which closes in any case
  const bool fails = MustFail({.name = "fclose", .onFiles = true, .stream = stream});
  return fclose(stream) != 0 || fails ? EOF : 0;
}

// Slow on purpose, and mostly asked for the same keys: they are derived once.
int WrappedDerivation(const char* pin, int pinLength, const unsigned char* salt, int saltLength,
                      int rounds, const EVP_MD* hash, int length, unsigned char* key) {
  if (MustFail({.name = "PKCS5_PBKDF2_HMAC"})) return 0;
  thread_local std::map<std::tuple<std::string, std::string, int, const EVP_MD*>, std::string> keys;
  std::string& known = keys[{{pin, static_cast<size_t>(pinLength)},
                             {reinterpret_cast<const char*>(salt), static_cast<size_t>(saltLength)},
                             rounds,
                             hash}];
  const auto wanted = static_cast<size_t>(length);
  if (known.size() != wanted) {
    if (PKCS5_PBKDF2_HMAC(pin, pinLength, salt, saltLength, rounds, hash, length, key) != 1)
      return 0;
    known.assign(reinterpret_cast<const char*>(key), wanted);
  }
  memcpy(key, known.data(), wanted);
  return 1;
}

int WrappedRandRange(BIGNUM* result, const BIGNUM* range) {
  if (g_randRange.empty()) return Wrapped<BN_rand_range, 0, int>(result, range);
  const std::string hex = g_randRange.front();
  g_randRange.pop_front();
  return BN_hex2bn(&result, hex.c_str()) != 0 ? 1 : 0;
}

// --- The tables ----------------------------------------------------------------------------------

struct Import {
  void* real;
  void* wrapper;
  const char** name;
};

template <auto* real, int failure, class Result, class... Args>
Import Row(Result (*)(Args...)) {
  Result (*wrapper)(Args...) = Wrapped<real, failure, Result, Args...>;
  return {reinterpret_cast<void*>(real), reinterpret_cast<void*>(wrapper), &name<real>};
}
template <auto* real, bool modifies, class Result, class... Args>
Import FileRow(Result (*)(Args...)) {
  Result (*wrapper)(Args...) = WrappedFile<real, modifies, Result, Args...>;
  return {reinterpret_cast<void*>(real), reinterpret_cast<void*>(wrapper), &name<real>};
}
template <auto* real>
Import OwnRow(auto* wrapper) {
  return {reinterpret_cast<void*>(real), reinterpret_cast<void*>(wrapper), &name<real>};
}

template <int failure, auto*... reals>
void AddRows(std::vector<Import>& to) {
  (to.push_back(Row<reals, failure>(reals)), ...);
}
template <bool modifies, auto*... reals>
void AddFileRows(std::vector<Import>& to) {
  (to.push_back(FileRow<reals, modifies>(reals)), ...);
}

std::vector<Import> Imports() {
  std::vector<Import> all = {OwnRow<fopen>(WrappedFopen), OwnRow<open>(WrappedOpen),
                             OwnRow<fclose>(WrappedFclose), OwnRow<BN_rand_range>(WrappedRandRange),
                             OwnRow<PKCS5_PBKDF2_HMAC>(WrappedDerivation)};
  // 0 or NULL is failure.
  AddRows<0, vakro_lock_new, vakro_lock_lock, vakro_json_decode, vakro_json_encode,
          vakro_json_getarrayitem, vakro_json_newarray, vakro_json_newstring, vakro_json_newnumber,
          vakro_json_addarrayitem, vakro_json_dup, vakro_hexencode, vakro_hexdecode,
          vakro_base64encode, vakro_base64decode>(all);
  AddRows<0, VakroPKICryptoGetPseudoDevice, VakroPKICryptoNewHash, VakroPKICryptoHashUpdate,
          VakroPKICryptoHashFinal, VakroPKICryptoNewMac, VakroPKICryptoMacUpdate,
          VakroPKICryptoMacFinal, VakroPKICryptoNewCipher, VakroPKICryptoCipherSetPadding,
          VakroPKICryptoCipherUpdate, VakroPKICryptoCipherFinal, VakroPKICryptoHexEncode,
          VakroPKICryptoHexDecode, VakroPKICryptoRSAPrivKeyFromDER, VakroPKICryptoRSAPrivKeyToDER,
          VakroPKICryptoRSAPubKeyFromDER, VakroPKICryptoDecodeRSAPubKey,
          VakroPKICryptoEncodeECCKeyPair, VakroPKICryptoEncodeECCPubKey,
          VakroPKICryptoDecodeECCKeyPair, VakroPKICryptoDecodeECCPubKey,
          VakroPKICryptoEncodeECCSignature, VakroPKICryptoDecodeECCSignature>(all);
  AddRows<0, BN_new, BN_bin2bn, BN_set_word, BN_CTX_new, EC_GFp_simple_method, EC_GROUP_new,
          EC_GROUP_set_curve_GFp, EC_GROUP_set_generator, EC_GROUP_precompute_mult, EC_POINT_new,
          EC_POINT_point2oct, EC_POINT_oct2point, EC_POINT_set_affine_coordinates_GFp, EC_KEY_new,
          EC_KEY_new_by_curve_name, EC_KEY_set_group, EC_KEY_set_public_key, EC_KEY_set_private_key,
          EC_KEY_generate_key, ECDSA_sign, EVP_PKEY_new, EVP_PKEY_set1_RSA, EVP_PKEY_set1_EC_KEY,
          EVP_PKEY_get1_RSA, EVP_PKEY_get1_EC_KEY, EVP_PKEY_up_ref, RSA_new, RSA_set0_key,
          RSA_generate_key_ex, i2d_RSAPrivateKey, i2d_RSAPublicKey, d2i_RSAPrivateKey, RAND_bytes>(
      all);
  AddRows<0, d2i_RSAPublicKey, ECDSA_SIG_new, d2i_ECDSA_SIG, i2d_ECDSA_SIG, EVP_MD_fetch,
          EVP_MD_CTX_new, EVP_DigestInit_ex, EVP_DigestUpdate, EVP_DigestFinal_ex, HMAC_CTX_new,
          HMAC_Init_ex, HMAC_Update, HMAC_Final, EVP_CIPHER_CTX_new, EVP_CIPHER_CTX_ctrl,
          EVP_CipherInit_ex, EVP_CipherUpdate, EVP_EncryptUpdate, EVP_EncryptFinal_ex,
          EVP_DecryptUpdate, EVP_DecryptFinal_ex>(all);
  AddRows<-1, RSA_private_encrypt, RSA_private_decrypt, RSA_public_encrypt, RSA_public_decrypt,
          BN_bn2binpad, ECDSA_verify>(all);
  AddRows<ENOMEM, pthread_mutexattr_init, pthread_mutexattr_settype, pthread_mutex_init,
          pthread_mutex_lock>(all);
  AddFileRows<false, fseek, ftell, fread, fsync, fdatasync, opendir, readdir, stat, lstat, fstat,
              access, flock>(all);
  AddFileRows<true, fwrite, fflush, rename, remove, fchmod, fchown>(all);
  return all;
}

// Do not fail, or only for a wrong argument.
const char NEVER_FAIL[] =
    "BN_CTX_free|BN_bn2bin|BN_clear_free|BN_free|BN_is_zero|BN_num_bits|BN_value_one|"
    "CRYPTO_free|CRYPTO_memcmp|ECDSA_SIG_free|ECDSA_SIG_get0_r|ECDSA_SIG_get0_s|ECDSA_SIG_set0|"
    "ECDSA_size|"
    "EC_GROUP_free|EC_KEY_free|EC_KEY_get0_group|EC_KEY_get0_private_key|"
    "EC_KEY_get0_public_key|EC_POINT_clear_free|EVP_CIPHER_CTX_free|EVP_MD_CTX_free|"
    "EVP_MD_free|EVP_PKEY_free|EVP_PKEY_get0_EC_KEY|EVP_PKEY_get_base_id|EVP_aes_256_gcm|"
    "EVP_sha512|HMAC_CTX_free|OPENSSL_cleanse|RSA_free|RSA_get0_e|RSA_get0_n|RSA_size|"
    "VakroPKICryptoFreeCipher|VakroPKICryptoFreeDevice|VakroPKICryptoFreeHash|"
    "VakroPKICryptoFreeMac|VakroPKICryptoFreeMemory|vakro_malloc|vakro_free|close|closedir|fileno|"
    "free|getpid|malloc|"
    "memchr|memcmp|memcpy|memmove|memset|pthread_mutex_destroy|pthread_mutex_unlock|"
    "pthread_mutexattr_destroy|strcmp|strlen|strnlen|strrchr|vakro_json_free|"
    "vakro_json_getarraysize|vakro_json_getnumber|vakro_json_getstring|"
    "vakro_json_getstringlength|vakro_json_gettype|vakro_lock_free|vakro_lock_unlock";

// --- The patch -----------------------------------------------------------------------------------

// A library finds what it imports in its table of addresses, which the linker has already filled
// in and made read-only.
bool Replace(void** slot, const char* symbol) {
  static const std::vector<Import> imports = Imports();
  for (const Import& import : imports) {
    if (*slot != import.real) continue;
    const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    const auto at = reinterpret_cast<uintptr_t>(slot) / page * page;
    if (mprotect(reinterpret_cast<void*>(at), page, PROT_READ | PROT_WRITE) != 0) abort();
    *slot = import.wrapper;
    *import.name = symbol;
    return true;
  }
  return false;
}

void NoteUnknown(const char* symbol) {
  if (symbol[0] != '_' && symbol[0] != '\0' && !Listed(NEVER_FAIL, symbol))
    g_unknown.emplace_back(symbol);
}

int PatchLibrary(dl_phdr_info* info, size_t /*size*/, void* /*data*/) {
  if (strstr(info->dlpi_name, "libvakro_") == nullptr) return 0;
  std::map<ElfW(Sxword), uintptr_t> tags;
  for (const auto& segment : std::span(info->dlpi_phdr, info->dlpi_phnum)) {
    if (segment.p_type != PT_DYNAMIC) continue;
    auto* entry = reinterpret_cast<const ElfW(Dyn)*>(info->dlpi_addr + segment.p_vaddr);
    for (; entry->d_tag != DT_NULL; entry++) tags[entry->d_tag] = entry->d_un.d_ptr;
  }
  const auto* symbols = reinterpret_cast<const ElfW(Sym)*>(tags[DT_SYMTAB]);
  const auto* names = reinterpret_cast<const char*>(tags[DT_STRTAB]);
  for (const auto& [start, size] :
       {std::pair(DT_JMPREL, DT_PLTRELSZ), std::pair(DT_RELA, DT_RELASZ)}) {
    const auto* entries = reinterpret_cast<const ElfW(Rela)*>(tags[start]);
    for (const ElfW(Rela) & entry : std::span(entries, tags[size] / sizeof(*entries))) {
      const ElfW(Sym)& symbol = symbols[ELF64_R_SYM(entry.r_info)];
      if (ELF64_ST_TYPE(symbol.st_info) != STT_FUNC) continue;
      auto* slot = reinterpret_cast<void**>(info->dlpi_addr + entry.r_offset);
      const bool found = Replace(slot, names + symbol.st_name);
      if (!found && symbol.st_shndx == SHN_UNDEF) NoteUnknown(names + symbol.st_name);
    }
  }
  return 0;
}

void* OpensslMalloc(size_t size, const char* /*file*/, int /*line*/) {
  return MustFail({.name = OPENSSL_MALLOC}) ? nullptr : malloc(size);
}
void* OpensslRealloc(void* memory, size_t size, const char* /*file*/, int /*line*/) {
  return MustFail({.name = OPENSSL_MALLOC}) ? nullptr : realloc(memory, size);
}
void OpensslFree(void* memory, const char* /*file*/, int /*line*/) { free(memory); }

const bool g_patched = [] {
  if (CRYPTO_set_mem_functions(OpensslMalloc, OpensslRealloc, OpensslFree) != 1) abort();
  dl_iterate_phdr(PatchLibrary, nullptr);
  return true;
}();
}  // namespace

void ArmFault(const Fault& fault) {
  t_fault = fault;
  t_calls = 0;
  t_hit = nullptr;
  t_armed = true;
}
void DisarmFault() { t_armed = false; }
const char* FaultHit() { return t_hit; }
void HookCalls(int (*hook)(const ImportCall& call)) { t_hook = hook; }
long LiveAllocations() { return g_live; }
void FixRandRange(std::initializer_list<const char*> hex) {
  g_randRange.assign(hex.begin(), hex.end());
}
std::vector<std::string> UnknownImports() { return g_unknown; }

// These two are defined here for the test program too, which gives back what the module hands out.
extern "C" void* vakro_malloc(size_t size, const char* file, int line) {
  static const auto next =
      reinterpret_cast<decltype(&vakro_malloc)>(dlsym(RTLD_NEXT, "vakro_malloc"));
  void* memory = MustFail({.name = "vakro_malloc"}) ? nullptr : next(size, file, line);
  if (memory != nullptr) g_live++;
  return memory;
}

extern "C" void vakro_free(void* memory) {
  static const auto next = reinterpret_cast<decltype(&vakro_free)>(dlsym(RTLD_NEXT, "vakro_free"));
  if (memory != nullptr) g_live--;
  next(memory);
}
