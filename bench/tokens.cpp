// PKCS #11 libraries side by side: signatures, search, opening and generation on tokens with 64
// keypairs, each beside the bare primitive. Prints a table for docs/performance.md.
//
//   token_bench [--quick] LIBRARY [SOFTHSM2-LIBRARY]
//
// Contenders take turns in short slices, so that noise hits all alike; a figure is the median.
#include "core/openssl_owners.h"

#include <dlfcn.h>
#include <openssl/obj_mac.h>
#include <pkcs11.h>
#include <time.h>

#include <algorithm>
#include <barrier>
#include <filesystem>
#include <fstream>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

static constexpr CK_MECHANISM_TYPE GENERATE_SM2 = CKM_VENDOR_DEFINED | 0x534D20;
static constexpr CK_MECHANISM_TYPE SIGN_SM2 = CKM_VENDOR_DEFINED | 0x534D21;
static constexpr CK_BYTE KEYPAIRS = 63;  // and the PIN anchor of ours: a device holds 64

static bool g_quick = false;
static std::string g_scratch;

static void Require(CK_RV result, const char* what) {
  if (result != CKR_OK) throw std::runtime_error(std::string(what) + ": " + std::to_string(result));
}

static double Now(clockid_t clock) {
  timespec time = {};
  clock_gettime(clock, &time);
  return static_cast<double>(time.tv_sec) + 1e-9 * static_cast<double>(time.tv_nsec);
}

// --- A token -------------------------------------------------------------------------------------

static CK_BYTE g_pin[] = "12345678";
static constexpr CK_ULONG PIN_LEN = sizeof(g_pin) - 1;

namespace {
struct Library {
  std::string name;
  std::string path;
  CK_FUNCTION_LIST* p11 = nullptr;
  bool hasSm2 = false;

  void Load();
  // Starts the library over the tokens of a folder, which is made if need be.
  void Start(const std::string& folder) const;
  CK_SLOT_ID Slot(bool initialized) const;
  CK_SESSION_HANDLE Open() const;
  void MakeToken() const;
};
}  // namespace

void Library::Load() {
  void* const handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  const auto list =
      handle == nullptr
          ? nullptr
          : reinterpret_cast<CK_C_GetFunctionList>(dlsym(handle, "C_GetFunctionList"));
  if (list == nullptr) throw std::runtime_error(dlerror());
  Require(list(&p11), "C_GetFunctionList");
}

void Library::Start(const std::string& folder) const {
  const std::string tokens = g_scratch + name + "-" + folder;
  std::filesystem::create_directories(tokens);
  std::ofstream(tokens + ".conf") << "directories.tokendir = " << tokens << "\n";
  setenv("SOFTHSM2_CONF", (tokens + ".conf").c_str(), 1);
  setenv("VAKRO_FOLDER", tokens.c_str(), 1);
  CK_C_INITIALIZE_ARGS args = {};
  args.flags = CKF_OS_LOCKING_OK;
  Require(p11->C_Initialize(&args), "C_Initialize");
}

CK_SLOT_ID Library::Slot(bool initialized) const {
  CK_SLOT_ID slots[80];
  CK_ULONG count = 80;
  Require(p11->C_GetSlotList(CK_TRUE, slots, &count), "C_GetSlotList");
  for (CK_ULONG i = 0; i < count; i++) {
    CK_TOKEN_INFO info;
    if (p11->C_GetTokenInfo(slots[i], &info) == CKR_OK &&
        ((info.flags & CKF_TOKEN_INITIALIZED) != 0) == initialized)
      return slots[i];
  }
  throw std::runtime_error("no such slot");
}

CK_SESSION_HANDLE Library::Open() const {
  CK_SESSION_HANDLE session = 0;
  Require(p11->C_OpenSession(Slot(true), CKF_SERIAL_SESSION | CKF_RW_SESSION, nullptr, nullptr,
                             &session),
          "C_OpenSession");
  const CK_RV result = p11->C_Login(session, CKU_USER, g_pin, PIN_LEN);
  if (result != CKR_USER_ALREADY_LOGGED_IN) Require(result, "C_Login");
  return session;
}

void Library::MakeToken() const {
  CK_UTF8CHAR label[32];
  std::fill_n(label, sizeof(label), ' ');
  Require(p11->C_InitToken(Slot(false), g_pin, PIN_LEN, label), "C_InitToken");
  CK_SESSION_HANDLE session = 0;
  Require(p11->C_OpenSession(Slot(true), CKF_SERIAL_SESSION | CKF_RW_SESSION, nullptr, nullptr,
                             &session),
          "C_OpenSession");
  Require(p11->C_Login(session, CKU_SO, g_pin, PIN_LEN), "C_Login");
  Require(p11->C_InitPIN(session, g_pin, PIN_LEN), "C_InitPIN");
  Require(p11->C_CloseSession(session), "C_CloseSession");
}

// --- Keys ----------------------------------------------------------------------------------------

static CK_OBJECT_HANDLE Generate(const Library& library, CK_SESSION_HANDLE session,
                                 CK_MECHANISM_TYPE type, CK_BYTE id) {
  CK_BBOOL yes = CK_TRUE;
  CK_ULONG bits = 2048;
  CK_BYTE exponent[] = {1, 0, 1};
  CK_BYTE curve[] = {0x06, 0x08, 0x2a, 0x86, 0x48, 0xce, 0x3d, 0x03, 0x01, 0x07};  // P-256
  CK_ATTRIBUTE open[] = {{CKA_TOKEN, &yes, 1},
                         {CKA_VERIFY, &yes, 1},
                         {CKA_ID, &id, 1},
                         {CKA_MODULUS_BITS, &bits, sizeof(bits)},
                         {CKA_PUBLIC_EXPONENT, exponent, sizeof(exponent)}};
  if (type == CKM_EC_KEY_PAIR_GEN) open[3] = {CKA_EC_PARAMS, curve, sizeof(curve)};
  const CK_ULONG openCount = type == CKM_RSA_PKCS_KEY_PAIR_GEN ? 5
                             : type == CKM_EC_KEY_PAIR_GEN     ? 4
                                                               : 3;
  CK_ATTRIBUTE secret[] = {
      {CKA_TOKEN, &yes, 1}, {CKA_PRIVATE, &yes, 1}, {CKA_SIGN, &yes, 1}, {CKA_ID, &id, 1}};
  CK_MECHANISM mechanism = {type, nullptr, 0};
  CK_OBJECT_HANDLE publicKey = 0, privateKey = 0;
  Require(library.p11->C_GenerateKeyPair(session, &mechanism, open, openCount, secret, 4,
                                         &publicKey, &privateKey),
          "C_GenerateKeyPair");
  return privateKey;
}

static CK_OBJECT_HANDLE FindKey(const Library& library, CK_SESSION_HANDLE session, CK_BYTE id) {
  CK_OBJECT_CLASS cls = CKO_PRIVATE_KEY;
  CK_ATTRIBUTE wanted[] = {{CKA_CLASS, &cls, sizeof(cls)}, {CKA_ID, &id, 1}};
  CK_OBJECT_HANDLE key = 0;
  CK_ULONG count = 0;
  Require(library.p11->C_FindObjectsInit(session, wanted, 2), "C_FindObjectsInit");
  Require(library.p11->C_FindObjects(session, &key, 1, &count), "C_FindObjects");
  Require(library.p11->C_FindObjectsFinal(session), "C_FindObjectsFinal");
  if (count != 1) throw std::runtime_error("no such key");
  return key;
}

static constexpr CK_BYTE ID_RSA = 1, ID_P256 = 2, ID_SM2 = 3;

static void FillTokens(Library& library) {
  library.Start("one");
  CK_MECHANISM_INFO info;
  library.hasSm2 = library.p11->C_GetMechanismInfo(library.Slot(false), SIGN_SM2, &info) == CKR_OK;
  library.MakeToken();
  Generate(library, library.Open(), CKM_EC_KEY_PAIR_GEN, ID_P256);
  Require(library.p11->C_Finalize(nullptr), "C_Finalize");
  library.Start("full");
  library.MakeToken();
  const CK_SESSION_HANDLE session = library.Open();
  Generate(library, session, CKM_RSA_PKCS_KEY_PAIR_GEN, ID_RSA);
  Generate(library, session, CKM_EC_KEY_PAIR_GEN, ID_P256);
  if (library.hasSm2) Generate(library, session, GENERATE_SM2, ID_SM2);
  for (CK_BYTE id = 4; id <= (g_quick ? 6 : KEYPAIRS); id++)
    Generate(library, session, CKM_EC_KEY_PAIR_GEN, id);
  Require(library.p11->C_Finalize(nullptr), "C_Finalize");
}

// --- Measuring -----------------------------------------------------------------------------------

namespace {
// Makes `calls` calls and returns the seconds of one.
using Run = std::function<double(long calls)>;

// Makes the call of one thread: a session and a key of its own.
using Call = std::function<void()>;
using MakeCall = std::function<Call()>;

struct Row {
  const char* name;
  const char* primitive;  // NULL: there is none
  Run bare, ours, other;  // `other` may be missing
};
}  // namespace

static Run OnOneThread(const MakeCall& make) {
  return [call = make()](long calls) {
    const double start = Now(CLOCK_THREAD_CPUTIME_ID);
    for (long i = 0; i < calls; i++) call();
    return (Now(CLOCK_THREAD_CPUTIME_ID) - start) / static_cast<double>(calls);
  };
}

// The threads take the time themselves: who waits for them gets a processor only when one is done.
static Run OnTwoThreads(const MakeCall& make) {
  return [both = std::vector{make(), make()}](long calls) {
    std::barrier line(2);
    double starts[2], ends[2];
    std::vector<std::thread> threads;
    for (size_t i = 0; i < 2; i++) {
      threads.emplace_back([&, i] {
        line.arrive_and_wait();
        starts[i] = Now(CLOCK_MONOTONIC);
        for (long call = 0; call < calls; call++) both[i]();
        ends[i] = Now(CLOCK_MONOTONIC);
      });
    }
    for (std::thread& thread : threads) thread.join();
    const double seconds = std::max(ends[0], ends[1]) - std::min(starts[0], starts[1]);
    return seconds / static_cast<double>(2 * calls);
  };
}

// One call, which measures itself.
static Run Once(const std::function<double()>& call) {
  return [call](long) { return call(); };
}

static std::string Duration(double seconds) {
  char text[32];
  const double scaled = seconds < 1e-3 ? seconds * 1e6 : seconds * 1e3;
  snprintf(text, sizeof(text), "%.3g %s", scaled, seconds < 1e-3 ? "µs" : "ms");
  return text;
}

static std::string Share(double part, double whole) {
  char text[32];
  snprintf(text, sizeof(text), "%.2f", part / whole);
  return text;
}

static double Median(std::vector<double>& samples) {
  std::sort(samples.begin(), samples.end());
  return samples[samples.size() / 2];
}

static void Print(const Row& row, const double (&seconds)[3]) {
  const auto& [bare, ours, other] = seconds;
  printf("| %s | %s | %s | %s | %s | %s | %s |\n", row.name, Duration(ours).c_str(),
         row.bare ? row.primitive : "", row.bare ? Duration(bare).c_str() : "",
         row.bare ? Share(bare, ours).c_str() : "", row.other ? Duration(other).c_str() : "",
         row.other && row.bare ? Share(bare, other).c_str() : "");
  fflush(stdout);
}

static void Measure(const Row& row, int rounds) {
  const Run* const runs[] = {&row.bare, &row.ours, &row.other};
  std::vector<double> samples[3];
  long calls[3] = {};
  for (int round = 0; round < (g_quick ? 1 : rounds); round++) {
    for (int i = 0; i < 3; i++) {
      if (!*runs[i]) continue;
      if (calls[i] == 0) calls[i] = std::max(1L, static_cast<long>(0.01 / (*runs[i])(1)));
      samples[i].push_back((*runs[i])(calls[i]));
    }
  }
  double medians[3] = {};
  for (int i = 0; i < 3; i++)
    if (*runs[i]) medians[i] = Median(samples[i]);
  Print(row, medians);
}

// --- The rows ------------------------------------------------------------------------------------

static std::vector<CK_BYTE> g_block(51, 'd');  // as long as a DigestInfo with SHA-256

static MakeCall Signing(const Library& library, CK_BYTE id, CK_MECHANISM_TYPE type, size_t length) {
  return [&library, id, type, length]() -> Call {
    const CK_SESSION_HANDLE session = library.Open();
    const CK_OBJECT_HANDLE key = FindKey(library, session, id);
    return [p11 = library.p11, session, key, type, length] {
      CK_MECHANISM mechanism = {type, nullptr, 0};
      CK_BYTE signature[256];
      CK_ULONG signatureLen = sizeof(signature);
      Require(p11->C_SignInit(session, &mechanism, key), "C_SignInit");
      Require(p11->C_Sign(session, g_block.data(), length, signature, &signatureLen), "C_Sign");
    };
  };
}

static MakeCall BareRsa() {
  return [] {
    const std::shared_ptr<RSA> rsa(RSA_new(), RSA_free);
    const BigNum e(BN_new());
    BN_set_word(e.get(), RSA_F4);
    RSA_generate_key_ex(rsa.get(), 2048, e.get(), nullptr);
    return [rsa] {
      CK_BYTE signature[256];
      if (RSA_private_encrypt(51, g_block.data(), signature, rsa.get(), RSA_PKCS1_PADDING) != 256)
        throw std::runtime_error("RSA_private_encrypt");
    };
  };
}

static MakeCall BareEcdsa() {
  return [] {
    const std::shared_ptr<EC_KEY> key(EC_KEY_new_by_curve_name(NID_X9_62_prime256v1), EC_KEY_free);
    EC_KEY_generate_key(key.get());
    return [key] {
      CK_BYTE signature[80];
      unsigned int length = sizeof(signature);
      if (ECDSA_sign(0, g_block.data(), 32, signature, &length, key.get()) != 1)
        throw std::runtime_error("ECDSA_sign");
    };
  };
}

static MakeCall Finding(const Library& library) {
  return [&library]() -> Call {
    const CK_SESSION_HANDLE session = library.Open();
    return [&library, session] { FindKey(library, session, ID_P256); };
  };
}

// From C_Initialize to the first signature, in processor time. Leaves the library stopped.
static std::function<double()> Opening(const Library& library, const char* folder) {
  return [&library, folder] {
    const double start = Now(CLOCK_PROCESS_CPUTIME_ID);
    library.Start(folder);
    Signing(library, ID_P256, CKM_ECDSA, 32)()();
    const double seconds = Now(CLOCK_PROCESS_CPUTIME_ID) - start;
    Require(library.p11->C_Finalize(nullptr), "C_Finalize");
    return seconds;
  };
}

static std::function<double()> Generating(const Library& library) {
  return [&library, session = library.Open()] {
    const double start = Now(CLOCK_MONOTONIC);
    const CK_OBJECT_HANDLE key = Generate(library, session, CKM_EC_KEY_PAIR_GEN, 99);
    const double seconds = Now(CLOCK_MONOTONIC) - start;
    Require(library.p11->C_DestroyObject(session, key), "C_DestroyObject");
    CK_OBJECT_CLASS cls = CKO_PUBLIC_KEY;
    CK_BYTE id = 99;
    CK_ATTRIBUTE wanted[] = {{CKA_CLASS, &cls, sizeof(cls)}, {CKA_ID, &id, 1}};
    CK_OBJECT_HANDLE left = 0;
    CK_ULONG count = 0;
    library.p11->C_FindObjectsInit(session, wanted, 2);
    library.p11->C_FindObjects(session, &left, 1, &count);
    library.p11->C_FindObjectsFinal(session);
    if (count == 1) Require(library.p11->C_DestroyObject(session, left), "C_DestroyObject");
    return seconds;
  };
}

// Resident memory in KB.
static long Resident() {
  long pages = 0, resident = 0;
  std::ifstream("/proc/self/statm") >> pages >> resident;
  return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

// What loading a library, opening the full token and signing once adds to a process, in KB.
static long GrownBy(Library& library) {
  const long before = Resident();
  library.Load();
  library.Start("full");
  Signing(library, ID_P256, CKM_ECDSA, 32)()();
  return Resident() - before;
}

// Told by a process of its own, in which nothing else has happened.
static std::string MemoryOf(const Library& library) {
  const std::string command = "/proc/" + std::to_string(getpid()) + "/exe --memory " + g_scratch +
                              " " + library.name + " " + library.path;
  FILE* const process = popen(command.c_str(), "r");
  char told[64] = "";
  if (process == nullptr || fgets(told, sizeof(told), process) == nullptr) told[0] = 0;
  if (process != nullptr) pclose(process);
  return told;
}

static void MeasureAll(const Library& ours, const Library* other) {
  const auto beside = [&](auto make) { return other == nullptr ? Run() : make(*other); };
  const auto signing = [](CK_BYTE id, CK_MECHANISM_TYPE type, CK_ULONG length, auto threads) {
    return [=](const Library& library) { return threads(Signing(library, id, type, length)); };
  };
  for (const char* folder : {"one", "full"}) {
    Measure({folder == std::string("one") ? "open to first signature, 1 keypair"
                                          : "open to first signature, 64 keypairs",
             nullptr,
             {},
             Once(Opening(ours, folder)),
             beside([&](const Library& library) { return Once(Opening(library, folder)); })},
            15);
  }
  ours.Start("full");
  if (other != nullptr) other->Start("full");
  const auto measure = [&](const char* name, const char* primitive, const MakeCall& bare,
                           CK_BYTE id, CK_MECHANISM_TYPE type, CK_ULONG length, auto threads) {
    const auto run = signing(id, type, length, threads);
    Measure({name, primitive, threads(bare), run(ours), id == ID_SM2 ? Run() : beside(run)}, 60);
  };
  const char* const rsa = "RSA_private_encrypt";
  const char* const ecdsa = "ECDSA_sign P-256";
  measure("sign: RSA-2048", rsa, BareRsa(), ID_RSA, CKM_RSA_PKCS, 51, OnOneThread);
  measure("sign: P-256", ecdsa, BareEcdsa(), ID_P256, CKM_ECDSA, 32, OnOneThread);
  if (ours.hasSm2) measure("sign: SM2", ecdsa, BareEcdsa(), ID_SM2, SIGN_SM2, 32, OnOneThread);
  measure("sign on 2 threads: RSA-2048", rsa, BareRsa(), ID_RSA, CKM_RSA_PKCS, 51, OnTwoThreads);
  measure("sign on 2 threads: P-256", ecdsa, BareEcdsa(), ID_P256, CKM_ECDSA, 32, OnTwoThreads);
  if (ours.hasSm2)
    measure("sign on 2 threads: SM2", ecdsa, BareEcdsa(), ID_SM2, SIGN_SM2, 32, OnTwoThreads);
  const auto finding = [](const Library& library) { return OnOneThread(Finding(library)); };
  Measure({"find a key by its id", nullptr, {}, finding(ours), beside(finding)}, 60);

  // The full token has no room for more.
  for (const Library* library : {&ours, other}) {
    if (library == nullptr) continue;
    Require(library->p11->C_Finalize(nullptr), "C_Finalize");
    library->Start("one");
  }
  const auto generating = [](const Library& library) { return Once(Generating(library)); };
  Measure({"generate P-256, stored", nullptr, {}, generating(ours), beside(generating)}, 15);
}

int main(int argc, char** argv) {
  std::vector<std::string> arguments(argv + 1, argv + argc);
  if (arguments.size() == 4 && arguments[0] == "--memory") {
    g_scratch = arguments[1];
    Library library = {arguments[2], arguments[3]};
    printf("%ld KB", GrownBy(library));
    return 0;
  }
  g_quick = !arguments.empty() && arguments[0] == "--quick";
  if (g_quick) arguments.erase(arguments.begin());
  if (arguments.empty() || arguments.size() > 2) {
    fprintf(stderr, "usage: token_bench [--quick] LIBRARY [SOFTHSM2-LIBRARY]\n");
    return 2;
  }
  std::string scratch = "/tmp/token-bench-XXXXXX";
  if (mkdtemp(scratch.data()) == nullptr) return 1;
  g_scratch = scratch + "/";
  int result = 0;
  try {
    std::vector<Library> libraries = {{"ours", arguments[0]}};
    if (arguments.size() == 2) libraries.push_back({"SoftHSM2", arguments[1]});
    for (Library& library : libraries) {
      library.Load();
      FillTokens(library);
    }
    printf(
        "| Operation | Here | Beside | its time | its rate, kept | SoftHSM 2 | its rate, kept |\n"
        "| --- | --- | --- | --- | --- | --- | --- |\n");
    MeasureAll(libraries[0], libraries.size() > 1 ? &libraries[1] : nullptr);
    printf("\nMemory that loading, opening 64 keypairs and signing adds to a process:");
    for (const Library& library : libraries)
      printf(" %s %s", library.name.c_str(), MemoryOf(library).c_str());
    printf("\n");
  } catch (const std::exception& failure) {
    fprintf(stderr, "token_bench: %s\n", failure.what());
    result = 1;
  }
  std::filesystem::remove_all(scratch);
  return result;
}
