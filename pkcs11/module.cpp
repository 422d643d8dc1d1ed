// Start, end, and the lists of functions.
//
// Calls and C_Finalize meet at a gate: a call counts itself in, and C_Finalize shuts the gate and
// waits until all are out. A child process finds the gate shut, whatever state its parent's threads
// have left behind, and makes another with C_Initialize; what the parent had is left alone.
#include "pkcs11/module.h"

#include "pkcs11/call.h"
#include "pkcs11/slot.h"

#include <openssl/crypto.h>
#include <openssl/err.h>

#include <errno.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

static std::atomic<pid_t> g_process{0};   // for which the library is initialised; 0: for none
static std::atomic<int> g_calls{0};       // inside the gate
static std::atomic<pid_t> g_starting{0};  // the process that is in C_Initialize or C_Finalize
static pthread_mutex_t g_restMutex = PTHREAD_MUTEX_INITIALIZER;
static pthread_cond_t g_restEnds = PTHREAD_COND_INITIALIZER;  // the gate has been shut

static void Pause() {
  const timespec moment = {0, 200000};
  nanosleep(&moment, nullptr);
}

// Once OpenSSL has cleaned up after a program's end nothing of it may be touched.
static bool IsOpensslAlive() { return OPENSSL_init_crypto(0, nullptr) == 1; }

static bool Enter() {
  const pid_t process = g_process.load(std::memory_order_acquire);
  if (process == 0 || process != getpid()) return false;
  g_calls.fetch_add(1, std::memory_order_acq_rel);
  if (g_process.load(std::memory_order_acquire) == process && IsOpensslAlive()) return true;
  g_calls.fetch_sub(1, std::memory_order_acq_rel);
  return false;
}

Call::Call(const char* function) : name(function), entered(Enter()) {
  if (entered) ERR_set_mark();
}

Call::~Call() {
  if (!entered) return;
  ERR_pop_to_mark();  // the program's own errors stay what they were
  g_calls.fetch_sub(1, std::memory_order_release);
}

bool RestInCall() {
  timespec until = {};
  clock_gettime(CLOCK_MONOTONIC, &until);
  until.tv_nsec += 200000000;
  until.tv_sec += until.tv_nsec / 1000000000;
  until.tv_nsec %= 1000000000;
  const MutexLock lock(g_restMutex);
  int rested = 0;
  while (rested == 0 && g_process.load() != 0)
    rested = pthread_cond_clockwait(&g_restEnds, &g_restMutex, CLOCK_MONOTONIC, &until);
  return g_process.load() != 0 && IsOpensslAlive();
}

static void EndRests() {
  const MutexLock lock(g_restMutex);
  pthread_cond_broadcast(&g_restEnds);
}

// --- Configuration -------------------------------------------------------------------------------

namespace {
struct Configuration {
  Buffer folder;  // with a NUL; empty: the module's own
};
}  // namespace

static bool IsBlank(char c) { return c == ' ' || c == '\t' || c == '\n' || c == ';'; }

// Takes one `name=value` off the text; the value may stand in quotes. False when there is none.
static bool TakeSetting(std::string_view& text, std::string_view& name, std::string_view& value) {
  const size_t equals = text.find('=');
  if (equals == std::string_view::npos) return false;
  name = text.substr(0, equals);
  text.remove_prefix(equals + 1);
  const char quote = text.empty() ? '\0' : text[0];
  if (quote == '"' || quote == '\'') {
    const size_t end = text.find(quote, 1);
    if (end == std::string_view::npos) return false;
    value = text.substr(1, end - 1);
    text.remove_prefix(end + 1);
    return true;
  }
  size_t end = 0;
  while (end < text.size() && !IsBlank(text[end])) end++;
  value = text.substr(0, end);
  text.remove_prefix(end);
  return true;
}

static bool SetNumber(std::string_view name, std::string_view value) {
  char digits[24] = {};
  if (value.empty() || value.size() >= sizeof digits) return false;
  memcpy(digits, value.data(), value.size());
  char* end = nullptr;
  const unsigned long number = strtoul(digits, &end, 0);
  return *end == '\0' && SetVendorNumber(name, number);
}

static CK_RV SetFolder(Buffer& folder, std::string_view path) {
  const Span bytes(reinterpret_cast<const unsigned char*>(path.data()), path.size());
  static constexpr unsigned char NUL[1] = {};
  return folder.Assign(bytes) && folder.Append(NUL) ? CKR_OK : CKR_HOST_MEMORY;
}

// The string that some programs pass in the reserved field: settings, with blanks between them.
static CK_RV ReadSettings(const char* string, Configuration& configuration) {
  std::string_view text(string), name, value;
  for (;;) {
    while (!text.empty() && IsBlank(text[0])) text.remove_prefix(1);
    if (text.empty()) return CKR_OK;
    if (!TakeSetting(text, name, value)) return CKR_ARGUMENTS_BAD;
    if (name == "folder" && !value.empty()) {
      const CK_RV set = SetFolder(configuration.folder, value);
      if (set != CKR_OK) return set;
    } else if (!SetNumber(name, value)) {
      return CKR_ARGUMENTS_BAD;
    }
  }
}

static CK_RV Configure(const CK_C_INITIALIZE_ARGS* arguments, Configuration& configuration) {
  ResetVendorNumbers();
  const char* const variable = secure_getenv("VAKRO_FOLDER");
  if (variable != nullptr && *variable != '\0') {
    const CK_RV set = SetFolder(configuration.folder, variable);
    if (set != CKR_OK) return set;
  }
  if (arguments == nullptr) return CKR_OK;
  const int callbacks = (arguments->CreateMutex != nullptr) + (arguments->DestroyMutex != nullptr) +
                        (arguments->LockMutex != nullptr) + (arguments->UnlockMutex != nullptr);
  // All or none. They are not called: locks of the operating system do for any thread.
  if (callbacks != 0 && callbacks != 4) return CKR_ARGUMENTS_BAD;
  // The reserved field has another name in NSS's declaration.
  const auto* const string = reinterpret_cast<const char*>(arguments->LibraryParameters);
  if (string == nullptr) return CKR_OK;
  // Programs have passed other things than a string there. The system can tell what can't be read.
  if (access(string, F_OK) != 0 && errno == EFAULT) return CKR_ARGUMENTS_BAD;
  return ReadSettings(string, configuration);
}

// --- Start and end -------------------------------------------------------------------------------

static CK_RV Start(const CK_C_INITIALIZE_ARGS* arguments) {
  Configuration configuration;
  const CK_RV configured = Configure(arguments, configuration);
  if (configured != CKR_OK) return configured;
  if (DeviceInit() != VAKRO_OK) return CKR_HOST_MEMORY;
  const auto* const folder = reinterpret_cast<const char*>(configuration.folder.items);
  const bool isSet = folder == nullptr || DeviceSetKeyFolder(folder) == VAKRO_OK;
  const CK_RV opened = isSet ? OpenSlots() : CKR_HOST_MEMORY;
  if (opened != CKR_OK) {
    CloseSlots();
    DeviceEnd();
  }
  return opened;
}

// Those who start or end the library at once take turns; in a child nobody is ahead.
namespace {
struct Turn {
  const pid_t self = getpid();
  Turn() {
    for (;;) {
      pid_t other = g_starting.load();
      if (other == self) {
        Pause();
      } else if (g_starting.compare_exchange_weak(other, self)) {
        return;
      }
    }
  }
  Turn(const Turn&) = delete;
  Turn& operator=(const Turn&) = delete;
  ~Turn() { g_starting.store(0); }
};
}  // namespace

CK_RV C_Initialize(CK_VOID_PTR pInitArgs) {
  const Turn turn;
  OpenLog();
  if (!IsOpensslAlive()) return LogResult("C_Initialize", CKR_GENERAL_ERROR);
  if (g_process.load() == turn.self)
    return LogResult("C_Initialize", CKR_CRYPTOKI_ALREADY_INITIALIZED);
  // In a child: the parent's calls will not come out here, and its state is not ours to free.
  if (g_process.load() != 0) {
    ForgetSlots();
    ForgetSessions();
    DeviceEnd();
  }
  g_process.store(0);
  g_calls.store(0);
  g_restMutex = PTHREAD_MUTEX_INITIALIZER;  // a fork may have left it held
  g_restEnds = PTHREAD_COND_INITIALIZER;
  const CK_RV started = Start(static_cast<const CK_C_INITIALIZE_ARGS*>(pInitArgs));
  if (started == CKR_OK) g_process.store(turn.self, std::memory_order_release);
  LogResult("C_Initialize", started);
  if (started != CKR_OK) CloseLog();
  return started;
}

CK_RV C_Finalize(CK_VOID_PTR pReserved) {
  if (pReserved != nullptr) return LogResult("C_Finalize", CKR_ARGUMENTS_BAD);
  const Turn turn;
  if (g_process.load() != turn.self) return LogResult("C_Finalize", CKR_CRYPTOKI_NOT_INITIALIZED);
  g_process.store(0);
  EndRests();
  while (g_calls.load(std::memory_order_acquire) != 0) Pause();
  // In an exit handler, after OpenSSL's: what is OpenSSL's is gone, and so will be the rest.
  if (IsOpensslAlive()) {
    CloseSessions();
    CloseSlots();
    DeviceEnd();
  } else {
    ForgetSessions();
    ForgetSlots();
  }
  LogResult("C_Finalize", CKR_OK);
  CloseLog();
  return CKR_OK;
}

void PadText(const char* text, CK_UTF8CHAR* field, size_t size) {
  size_t length = strlen(text);
  if (length > size) {
    length = size;
    while (length > 0 && (static_cast<unsigned char>(text[length]) & 0xC0) == 0x80) length--;
  }
  memset(field, ' ', size);
  memcpy(field, text, length);
}

CK_RV C_GetInfo(CK_INFO_PTR pInfo) {
  return InCall("C_GetInfo", [&]() -> CK_RV {
    if (pInfo == nullptr) return CKR_ARGUMENTS_BAD;
    *pInfo = {};
    pInfo->cryptokiVersion = {2, 40};
    pInfo->libraryVersion = {0, 2};
    PadText(LIBRARY_NAME, pInfo->manufacturerID, sizeof pInfo->manufacturerID);
    PadText("Soft crypto devices", pInfo->libraryDescription, sizeof pInfo->libraryDescription);
    return CKR_OK;
  });
}

// --- The lists of functions ----------------------------------------------------------------------

#define CK_PKCS11_FUNCTION_INFO(name) name,
static CK_FUNCTION_LIST g_functions = {
    {2, 40},
#include <pkcs11f.h>
};
#define CK_PKCS11_3_0 1
static CK_FUNCTION_LIST_3_0 g_functions30 = {
    {3, 0},
#include <pkcs11f.h>
};
#undef CK_PKCS11_FUNCTION_INFO

static CK_UTF8CHAR g_standard[] = "PKCS 11";
static CK_INTERFACE g_interfaces[] = {
    {g_standard, &g_functions30, CKF_INTERFACE_FORK_SAFE},
    {g_standard, &g_functions, CKF_INTERFACE_FORK_SAFE},
};
static constexpr CK_ULONG INTERFACES = 2;

CK_RV C_GetFunctionList(CK_FUNCTION_LIST_PTR_PTR ppFunctionList) {
  if (ppFunctionList == nullptr) return CKR_ARGUMENTS_BAD;
  *ppFunctionList = &g_functions;
  return CKR_OK;
}

CK_RV C_GetInterfaceList(CK_INTERFACE_PTR interfaces, CK_ULONG_PTR pulCount) {
  if (pulCount == nullptr) return CKR_ARGUMENTS_BAD;
  const CK_ULONG room = *pulCount;
  *pulCount = INTERFACES;
  if (interfaces == nullptr) return CKR_OK;
  if (room < INTERFACES) return CKR_BUFFER_TOO_SMALL;
  memcpy(interfaces, g_interfaces, sizeof g_interfaces);
  return CKR_OK;
}

CK_RV C_GetInterface(CK_UTF8CHAR_PTR pInterfaceName, CK_VERSION_PTR pVersion,
                     CK_INTERFACE_PTR_PTR ppInterface, CK_FLAGS flags) {
  if (ppInterface == nullptr) return CKR_ARGUMENTS_BAD;
  const auto* const name = reinterpret_cast<const char*>(pInterfaceName);
  for (CK_INTERFACE& interface : g_interfaces) {
    const auto* const version = static_cast<const CK_VERSION*>(interface.pFunctionList);
    if (name != nullptr && strcmp(name, "PKCS 11") != 0) continue;
    if (pVersion != nullptr &&
        (pVersion->major != version->major || pVersion->minor != version->minor))
      continue;
    if ((flags & ~interface.flags) != 0) continue;
    *ppInterface = &interface;
    return CKR_OK;
  }
  return CKR_FUNCTION_FAILED;
}
