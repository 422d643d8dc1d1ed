#include "tests/support/interpose.h"

#include "tests/support/device_file.h"
#include "vakro_crypto.h"
#include "vakro_util.h"

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <fnmatch.h>
#include <link.h>
#include <openssl/crypto.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/rand.h>
#include <openssl/rsa.h>
#include <openssl/sha.h>
#include <openssl/x509.h>
#include <pthread.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <atomic>
#include <map>
#include <span>
#include <type_traits>

// How a fault comes in front of a library call. A library calls others through a table of addresses
// that the linker has filled in. When this program starts, it walks through the tables of the three
// libraries under test and puts a wrapper in the place of each address that it knows. So there are:
//
//   the wrappers   one for each function: asks the hooks, then makes the call or fails
//   the list       which functions have one, and how each of them fails
//   the patch      puts the wrappers into the tables
namespace {
std::atomic<long> g_live{0};
std::vector<std::string> g_unknown;

// --- The wrappers --------------------------------------------------------------------------------

// Whether a hook wants the call to fail; errno then says with which error.
bool MustFail(const ImportCall& call) {
  const int usual = errno;
  int error = 0;
  for (const Hook* hook = Hook::t_innermost; hook != nullptr; hook = hook->outer)
    if (const int asked = hook->ask(call); asked != 0) error = asked;
  errno = error != 0 ? error : usual;
  return error != 0;
}

// How a function tells that it has failed: by 0 or NULL; by -1; or, as a file call, by NULL, by -1
// or by half of what it was to read or write.
enum Kind { ZERO, MINUS_ONE, READS, MODIFIES };

// What the arguments of a file call tell; `how` is the mode of fopen or the new path of rename.
ImportCall About(const char* path, int flags, mode_t /*mode*/) {
  return {.modifies = (flags & (O_WRONLY | O_RDWR | O_CREAT)) != 0, .path = path};
}
ImportCall About(const void* bytes, size_t size, size_t count, FILE* stream) {
  return {.stream = stream, .bytes = {static_cast<const char*>(bytes), size * count}};
}
ImportCall About(const char* path, auto...) { return {.path = path}; }
ImportCall About(FILE* stream, auto...) { return {.stream = stream}; }
ImportCall About(DIR* /*folder*/) { return {}; }
ImportCall About(int fd, auto...) { return {.fd = fd}; }

// A function that fails may have written to its outputs: nothing of that may be used or released.
template <class T>
void Scribble(T** out) {
  if constexpr (!std::is_const_v<T>)
    if (out != nullptr) *out = reinterpret_cast<T*>(0x5a5a5a5a);
}
void Scribble(int* out) { *out = 0x5a5a5a; }
void Scribble(auto /*no output*/) {}

template <Kind kind, auto* real>
struct Wrapper;
template <Kind kind, class Result, class... Args, Result (*real)(Args...)>
struct Wrapper<kind, real> {
  static inline const char* name = "";  // under which the libraries import it

  static Result Call(Args... args) {
    ImportCall call;
    if constexpr (kind >= READS) call = About(args...);
    call.name = name;
    call.onFiles = kind >= READS;
    call.modifies |= kind == MODIFIES;
    if (Hook::t_innermost == nullptr || !MustFail(call)) return real(args...);
    (Scribble(args), ...);
    if (call.name == "fclose") static_cast<void>(real(args...));  // it has closed when it fails
    if constexpr (std::is_pointer_v<Result>)
      return nullptr;
    else if constexpr (std::is_unsigned_v<Result>)
      return call.bytes.size() / 2;
    else
      return kind == ZERO ? 0 : -1;
  }
};

// These stand in for what can't be wrapped as it is.
int Open(const char* path, int flags, mode_t mode) { return open(path, flags, mode); }
int SetLock(int fd, int command, struct flock* lock) { return fcntl(fd, command, lock); }

// The utility library's own: behind them stand all blocks that the three libraries and the test
// program take from it.
void* Malloc(size_t size) {
  void* const memory = MustFail({.name = "vakro_malloc"}) ? nullptr : malloc(size);
  if (memory != nullptr) g_live++;
  return memory;
}
void Free(void* memory) {
  if (memory != nullptr) g_live--;
  free(memory);
}

// OpenSSL is told to take its memory here.
void* OpensslRealloc(void* memory, size_t size, const char* /*file*/, int /*line*/) {
  return MustFail({.name = "OPENSSL_malloc"}) ? nullptr : realloc(memory, size);
}
void* OpensslMalloc(size_t size, const char* file, int line) {
  return OpensslRealloc(nullptr, size, file, line);
}
void OpensslFree(void* memory, const char* /*file*/, int /*line*/) { free(memory); }

// --- The list ------------------------------------------------------------------------------------

void* Address(auto* function) { return reinterpret_cast<void*>(function); }

struct Replacement {
  void* wrapper;
  const char** name;  // where it looks for the name of the function
};
std::map<void*, Replacement> g_replacements;  // by the address of the function that is imported

template <Kind kind, auto*... reals>
void Wrap() {
  ((g_replacements[Address(reals)] = {Address(Wrapper<kind, reals>::Call),
                                      &Wrapper<kind, reals>::name}),
   ...);
}

// To let the calls of one more function fail, add it to those that fail as it does.
void WrapAll() {
  Wrap<ZERO, vakro_lock_new, vakro_lock_lock, vakro_json_decode, vakro_json_encode,
       vakro_json_getarrayitem, vakro_json_newarray, vakro_json_newstring, vakro_json_newnumber,
       vakro_json_addarrayitem, vakro_json_dup, vakro_hexencode, vakro_hexdecode,
       vakro_base64encode, vakro_base64decode>();
  Wrap<ZERO, VakroPKICryptoGetPseudoDevice, VakroPKICryptoNewHash, VakroPKICryptoHashUpdate,
       VakroPKICryptoHashFinal, VakroPKICryptoNewMac, VakroPKICryptoMacUpdate,
       VakroPKICryptoMacFinal, VakroPKICryptoNewCipher, VakroPKICryptoCipherSetPadding,
       VakroPKICryptoCipherUpdate, VakroPKICryptoCipherFinal, VakroPKICryptoHexEncode,
       VakroPKICryptoHexDecode, VakroPKICryptoRSAPrivKeyFromDER, VakroPKICryptoRSAPrivKeyToDER,
       VakroPKICryptoRSAPubKeyFromDER, VakroPKICryptoDecodeRSAPubKey,
       VakroPKICryptoEncodeECCKeyPair, VakroPKICryptoEncodeECCPubKey,
       VakroPKICryptoDecodeECCKeyPair, VakroPKICryptoDecodeECCPubKey,
       VakroPKICryptoEncodeECCSignature, VakroPKICryptoDecodeECCSignature>();
  Wrap<ZERO, BN_GENCB_new, BN_new, BN_dup, BN_bin2bn, BN_set_word, BN_sub_word, BN_CTX_new,
       BN_nnmod, BN_rand_range, BN_priv_rand_range, EC_GFp_simple_method, EC_KEY_METHOD_new,
       EC_KEY_set_method, EC_KEY_oct2key, EC_GROUP_new, EC_GROUP_set_curve_GFp,
       EC_GROUP_set_generator, EC_GROUP_precompute_mult, EC_POINT_new, EC_POINT_point2oct,
       EC_POINT_oct2point, EC_POINT_set_affine_coordinates_GFp, EC_KEY_new,
       EC_KEY_new_by_curve_name, EC_KEY_set_group, EC_KEY_set_public_key, EC_KEY_set_private_key,
       EC_KEY_generate_key, ECDSA_sign, EVP_PKEY_new, EVP_PKEY_set1_RSA, EVP_PKEY_set1_EC_KEY,
       EVP_PKEY_get1_RSA, EVP_PKEY_get1_EC_KEY, EVP_PKEY_up_ref, RSA_new, RSA_set0_key,
       RSA_generate_key_ex, i2d_RSAPrivateKey, i2d_RSAPublicKey, d2i_RSAPrivateKey,
       d2i_RSAPublicKey, d2i_ECDSA_SIG, RAND_bytes, Derive, EVP_MD_fetch, EVP_MD_CTX_new,
       EVP_DigestInit_ex, EVP_DigestUpdate, EVP_DigestFinal_ex, HMAC_CTX_new, HMAC_Init_ex,
       HMAC_Update, HMAC_Final, EVP_CIPHER_CTX_new, EVP_CIPHER_CTX_ctrl, EVP_CipherInit_ex,
       EVP_CipherUpdate, EVP_EncryptUpdate, EVP_EncryptFinal_ex, EVP_DecryptUpdate,
       EVP_DecryptFinal_ex, SHA1, SHA256, d2i_X509, EC_POINT_mul, EC_GROUP_new_by_curve_name,
       ECDSA_SIG_new, ECDSA_SIG_set0, i2d_ECDSA_SIG, RSA_check_key, RSA_set0_factors,
       RSA_set0_crt_params>();
  Wrap<MINUS_ONE, EC_POINT_cmp, RSA_private_encrypt, RSA_private_decrypt, RSA_public_encrypt,
       RSA_public_decrypt, BN_bn2binpad, ECDSA_verify, pthread_mutexattr_init,
       pthread_mutexattr_settype, pthread_mutex_init, pthread_mutex_lock, mlock, munlock, madvise,
       mincore, nanosleep>();
  Wrap<READS, Open, SetLock, fdopen, fclose, fread, fsync, fdatasync, opendir, readdir, stat, lstat,
       fstat, access>();
  Wrap<MODIFIES, fwrite, fflush, ftruncate, rename, remove, fchmod, fchown, write, pwrite, mkdir,
       unlink, linkat>();
  static const char* unused = "";
  g_replacements[Address(malloc)] = {Address(Malloc), &unused};
  g_replacements[Address(free)] = {Address(Free), &unused};
  g_replacements[Address(open)] = g_replacements[Address(Open)];
  g_replacements[Address(fcntl)] = g_replacements[Address(SetLock)];
  g_replacements[Address(PKCS5_PBKDF2_HMAC)] = g_replacements[Address(Derive)];
}

// Never fail, or only for a wrong argument. ImportsTest tells of functions that stand neither above
// nor here.
constexpr char NEVER_FAIL[] =
    "@(_*|mem*|str*|snprintf|vsnprintf|close*|fileno|feof|malloc|mmap|munmap|getpid|clock_gettime|"
    "sysconf|vakro_malloc|vakro_json_get*|*[Ff]ree*|*_get0_*|*_unlock|*_destroy|*_size|"
    "pthread_rwlock_*|pthread_cond_*|pthread_setcancelstate|ERR_set_mark|ERR_pop_to_mark|"
    "CRYPTO_memcmp|OPENSSL_cleanse|BN_GENCB_set|BN_bn2bin|BN_is_zero|BN_is_negative|BN_num_bits|"
    "BN_value_one|ASN1_put_object|EC_GROUP_order_bits|EC_KEY_OpenSSL|EC_KEY_get_method|"
    "EC_KEY_METHOD_set_keygen|EVP_sha512|EVP_aes_256_gcm|EVP_PKEY_get_id|EVP_PKEY_get_bits|"
    "EVP_sm3|EVP_sha*|RSA_*_PKCS1_*|X509_check_ca|BN_cmp|RAND_add|OPENSSL_init_crypto|syscall|"
    "qsort|gmtime_r|secure_getenv|faccessat|geteuid)";

// --- The patch -----------------------------------------------------------------------------------

// Puts the wrapper into a place of a library's table, which the linker has made read-only.
void Patch(void** slot, const char* symbol, bool isImported) {
  const auto found = g_replacements.find(*slot);
  if (found == g_replacements.end()) {
    if (isImported && fnmatch(NEVER_FAIL, symbol, FNM_EXTMATCH) != 0)
      g_unknown.emplace_back(symbol);
    return;
  }
  const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  const auto start = reinterpret_cast<uintptr_t>(slot) / page * page;
  if (mprotect(reinterpret_cast<void*>(start), page, PROT_READ | PROT_WRITE) != 0) abort();
  *slot = found->second.wrapper;
  *found->second.name = symbol;
}

// Goes through the tables of a library: the linker's instructions to fill them in say where they
// are and under which name a function was looked for.
void PatchLibrary(const link_map& library) {
  std::map<ElfW(Sxword), uintptr_t> tags;
  for (const auto* entry = library.l_ld; entry->d_tag != DT_NULL; entry++)
    tags[entry->d_tag] = entry->d_un.d_ptr;
  const auto* symbols = reinterpret_cast<const ElfW(Sym)*>(tags[DT_SYMTAB]);
  const auto* names = reinterpret_cast<const char*>(tags[DT_STRTAB]);
  for (const auto& [table, size] : {std::pair(DT_JMPREL, DT_PLTRELSZ), {DT_RELA, DT_RELASZ}}) {
    const auto* entries = reinterpret_cast<const ElfW(Rela)*>(tags[table]);
    for (const ElfW(Rela) & entry : std::span(entries, tags[size] / sizeof(*entries))) {
      const ElfW(Sym)& symbol = symbols[ELF64_R_SYM(entry.r_info)];
      if (ELF64_ST_TYPE(symbol.st_info) != STT_FUNC) continue;
      auto* slot = reinterpret_cast<void**>(library.l_addr + entry.r_offset);
      Patch(slot, names + symbol.st_name, symbol.st_shndx == SHN_UNDEF);
    }
  }
}

const bool g_patched = [] {
  if (CRYPTO_set_mem_functions(OpensslMalloc, OpensslRealloc, OpensslFree) != 1) abort();
  WrapAll();
  for (const link_map* loaded = _r_debug.r_map; loaded != nullptr; loaded = loaded->l_next)
    if (strstr(loaded->l_name, "libvakro_") != nullptr) PatchLibrary(*loaded);
  return true;
}();
}  // namespace

int Fault::operator()(const ImportCall& call) {
  if (fnmatch(name.c_str(), call.name.data(), FNM_EXTMATCH) != 0) return 0;
  calls++;
  if (calls != nth && !(andLater && calls > nth)) return 0;
  return EIO;
}

long LiveAllocations() { return g_live; }
std::vector<std::string> UnknownImports() { return g_unknown; }
