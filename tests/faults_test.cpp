// Every moment is a good moment to die, and every call may fail: for each call of the interface,
// and for each call that it makes of the libraries below, that one fails, or the process is killed
// there. The call then gives a documented failure and changes nothing, or it succeeds; nothing
// leaks, no lock is held, the next scan finds exactly the old or exactly the new device, and the
// call made again succeeds.
#include "tests/support/calls.h"

#include <signal.h>
#include <stdio_ext.h>
#include <sys/wait.h>
#include <unistd.h>
#include <string_view>

namespace {
bool Allocates(const ImportCall& call) { return call.name == std::string_view("OPENSSL_malloc"); }
bool Imports(const ImportCall& call) { return !Allocates(call); }
bool OnFiles(const ImportCall& call) { return call.onFiles; }
bool Modifies(const ImportCall& call) { return call.modifies; }
bool Buffers(const ImportCall& call) {
  const std::string_view name = call.name;
  return name == "fwrite" || name == "fflush" || name == "fclose";
}
bool Opens(const ImportCall& call) { return call.onFiles && strstr(call.name, "open") != nullptr; }
bool OpensDevice(const ImportCall& call) {
  return Opens(call) && std::string_view(call.path).ends_with("/dev");
}

constexpr int KILL = -1;  // in the place of an errno
struct Blow {
  const char* what;
  bool (*hits)(const ImportCall& call);  // which calls count
  int error;
  bool andLater;
  bool half = false;  // half of a write goes out first, and all that lies in the buffer
  int step = 1;       // of the short tests: one call in so many is struck
};
const Blow BLOWS[] = {
    {"AnyCall", Imports, EIO, false, false, 4},
    {"AnyCallAndLater", Imports, EIO, true, false, 4},
    {"NoMemoryForOpenssl", Allocates, ENOMEM, false, false, 4},
    {"NoMemoryForOpensslAndLater", Allocates, ENOMEM, true, false, 4},
    {"Killed", OnFiles, KILL, false, false, 8},
    {"KilledWithBytesOut", Buffers, KILL, false, true, 4},
    {"ShortWrite", Buffers, ENOSPC, false, true},
    {"DiskFull", Modifies, ENOSPC, true, true},
    {"NoDescriptor", Opens, EMFILE, false},
    {"NoDescriptorAndLater", Opens, EMFILE, true},
    {"DeviceFileShut", OpensDevice, EACCES, true},
    {"ReadOnly", Modifies, EROFS, true},
    {"NoPermission", Modifies, EACCES, true},
};

// Behind these a call that changes the file may go on: what closes, locks, tidies up or gives an
// owner, what reads a backup, and what reads keypairs only to compare them.
const std::string DISPENSABLE =
    " fclose flock open remove fchmod fchown stat fopen fread fseek ftell fstat vakro_malloc "
    "vakro_hexdecode vakro_base64decode vakro_json_decode VakroPKICryptoNewHash "
    "VakroPKICryptoHashUpdate VakroPKICryptoHashFinal EVP_MD_CTX_new EVP_DigestInit_ex "
    "EVP_DigestUpdate EVP_DigestFinal_ex OPENSSL_malloc ";

// Of the struck process, for the parent to see.
struct Struck {
  const Blow* by;  // the same in both
  int calls;
  int at;         // the call to strike
  char name[40];  // the function that was struck first
};
Struck* const g_struck = Shared<Struck>();

int Strike(const ImportCall& call) {
  const Blow& blow = *g_struck->by;
  if (!blow.hits(call)) return 0;
  g_struck->calls++;
  const bool first = g_struck->calls == g_struck->at;
  if (!first && !(blow.andLater && g_struck->calls > g_struck->at)) return 0;
  if (first) strncpy(g_struck->name, call.name, sizeof(g_struck->name) - 1);
  if (first && blow.half && call.bytes != nullptr)
    fwrite(call.bytes, 1, call.length / 2, call.stream);
  if (first && blow.half && call.stream != nullptr) fflush(call.stream);
  if (blow.error == KILL) kill(getpid(), SIGKILL);
  if (Buffers(call)) __fpurge(call.stream);  // what the disk did not take is lost
  return blow.error;
}
}  // namespace

class FaultsTest : public CallsTest, public testing::WithParamInterface<Blow> {
 protected:
  static constexpr int KILLED = 100;

  // Makes the call, in a child if it is to be killed; its result, or KILLED.
  static int RunStruck(const Call& call, Device* device, int at) {
    *g_struck = {&GetParam(), 0, at, ""};
    if (GetParam().error != KILL) return Run(call, device, Strike);
    const pid_t child = fork();
    if (child == 0) _exit(Run(call, device, Strike));
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    return WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL ? KILLED : WEXITSTATUS(status);
  }

  int StrikeEach(const Call& call, int first);
};

// Strikes every call that is made in turn; returns how many there were.
int FaultsTest::StrikeEach(const Call& call, int first) {
  const Blow& blow = GetParam();
  const long base = LiveAllocations();
  DeviceHandle device;
  const auto reload = [&] {
    device.reset();
    EXPECT_EQ(LiveAllocations(), base);
    device = Prepare(call);
  };
  const std::string old = Scan(call.start);
  reload();
  EXPECT_EQ(Run(call, device.get()), 1);
  EXPECT_EQ(List()["dev"].substr(0, 5), "33184") << "the mode";
  const std::string fresh = Scan();
  EXPECT_EQ(old != fresh, call.changes);
  reload();
  const int step = getenv("VAKRO_LONG_TESTS") != nullptr ? 1 : blow.step;
  int struck = 0;
  for (int at = 1 + first % step; !HasFailure(); at += step, struck++) {
    const std::string record = Describe(*device);
    const long live = LiveAllocations();
    Put(call.start);
    const int result = RunStruck(call, device.get(), at);
    if (g_struck->calls < at) break;
    const std::string name = g_struck->name;
    SCOPED_TRACE(call.what + ", call " + std::to_string(at) + " " + name + ", result " +
                 std::to_string(result));
    EXPECT_TRUE(DeviceUnlockDevice(nullptr) == 0 && IsFolderFree(folder_));
    const Files left = Get();
    const std::string found = Scan();
    EXPECT_TRUE(Opens(found, found == old ? PIN : call.pin));
    const bool changed = Describe(*device) != record;
    EXPECT_TRUE(changed || LiveAllocations() == live);
    EXPECT_TRUE(!changed || result == 1 || call.failure == -5);
    if (changed) reload();
    if (name == "vakro_json_getarrayitem") continue;  // what is not handed out counts as absent
    EXPECT_TRUE(found == old || found == fresh);
    if (blow.error == KILL) {
      EXPECT_EQ(result, KILLED);
      continue;
    }
    EXPECT_TRUE(result == 0 || result == 1 || result == call.failure);
    EXPECT_TRUE(result != 1 || !call.changes ||
                DISPENSABLE.find(" " + name + " ") != std::string::npos);
    EXPECT_TRUE(result != 1 || found == fresh);
    // Only where the old content could not be put back may a failure leave the new one.
    EXPECT_TRUE(result == 1 || found == old || blow.andLater);
    if (result == 1 || found != old) continue;
    if (!blow.andLater) Put(left);
    // The blinding of an RSA key of OpenSSL 3.0 whose update failed stays wrong for some uses.
    if (blow.hits == Allocates) reload();
    EXPECT_EQ(Run(call, device.get()), 1) << "when made again";
    EXPECT_EQ(Scan(), fresh);
    if (Describe(*device) != record) reload();
  }
  return struck;
}

TEST_P(FaultsTest, LeaveTheOldOrTheNewDevice) {
  int struck = 0, row = 0;
  for (const Call& call : AllCalls()) struck += StrikeEach(call, row++);
  printf("%d calls struck\n", struck);
  EXPECT_GT(struck, 50);
}

INSTANTIATE_TEST_SUITE_P(, FaultsTest, testing::ValuesIn(BLOWS),
                         [](const auto& tested) { return tested.param.what; });

#ifdef __OPTIMIZE__  // else the libraries import more, also for the measurement of coverage
TEST(ImportsTest, AreAllKnown) { EXPECT_EQ(UnknownImports(), std::vector<std::string>()); }
#endif
