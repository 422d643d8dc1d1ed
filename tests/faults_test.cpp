// Every moment is a good moment to die, and every call may fail: for each call of the interface,
// and for each call that it makes of the libraries below, that one fails, or the process is killed
// there. The call then gives a documented failure and changes nothing, or it succeeds; nothing
// leaks, no lock is held, the next scan finds exactly the old or exactly the new device, and the
// call made again succeeds.
#include "tests/support/calls.h"

#include <fnmatch.h>
#include <signal.h>
#include <stdio_ext.h>

namespace {
bool Allocates(const ImportCall& call) { return call.name == "OPENSSL_malloc"; }
bool Imports(const ImportCall& call) { return !Allocates(call); }
bool OnFiles(const ImportCall& call) { return call.onFiles; }
bool Modifies(const ImportCall& call) { return call.modifies; }
bool Buffers(const ImportCall& call) {
  return call.name == "fwrite" || call.name == "fflush" || call.name == "fclose";
}
bool Opens(const ImportCall& call) {
  return call.onFiles && call.name.find("open") != std::string::npos;
}
bool Locks(const ImportCall& call) { return call.name.ends_with("_lock"); }
bool OpensDevice(const ImportCall& call) { return Opens(call) && call.path.ends_with("/dev"); }

constexpr int KILL = -1;  // in the place of an errno

// A way to strike a call below the module. Each is a test of its own, which strikes every call that
// `hits` says in turn: to add one, add a row.
struct Blow {
  const char* what;                      // the name of the test
  bool (*hits)(const ImportCall& call);  // which calls count
  int error;                             // errno of the call that is struck
  bool andLater = false;                 // and of all that come behind it
  bool half = false;  // half of a write goes out first, and all that lies in the buffer
  int step = 1;       // of the short tests: one call in so many is struck
};
const Blow BLOWS[] = {
    {.what = "AnyCall", .hits = Imports, .error = EIO, .step = 4},
    {.what = "AnyCallAndLater", .hits = Imports, .error = EIO, .andLater = true, .step = 4},
    {.what = "NoMemoryForOpenssl", .hits = Allocates, .error = ENOMEM, .step = 3},
    {.what = "NoMemoryForOpensslAndLater",
     .hits = Allocates,
     .error = ENOMEM,
     .andLater = true,
     .step = 4},
    {.what = "NoLock", .hits = Locks, .error = EIO, .andLater = true},
    {.what = "Killed", .hits = OnFiles, .error = KILL, .step = 8},
    {.what = "KilledWithBytesOut", .hits = Buffers, .error = KILL, .half = true, .step = 4},
    {.what = "ShortWrite", .hits = Buffers, .error = ENOSPC, .half = true},
    {.what = "DiskFull", .hits = Modifies, .error = ENOSPC, .andLater = true, .half = true},
    {.what = "NoDescriptor", .hits = Opens, .error = EMFILE},
    {.what = "NoDescriptorAndLater", .hits = Opens, .error = EMFILE, .andLater = true},
    {.what = "DeviceFileShut", .hits = OpensDevice, .error = EACCES, .andLater = true},
    {.what = "ReadOnly", .hits = Modifies, .error = EROFS, .andLater = true},
    {.what = "NoPermission", .hits = Modifies, .error = EACCES, .andLater = true},
};
bool OnFilesOnly(const Blow& blow) { return blow.hits != Imports && blow.hits != Allocates; }
void PrintTo(const Blow& blow, std::ostream* out) { *out << blow.what; }

// Behind these a call that changes the file may go on: what closes, locks, tidies up, shields or
// gives an owner, what reads a backup, and what reads keypairs only to compare them.
constexpr char DISPENSABLE[] =
    "@(fclose|fcntl|?(fd)open|remove|rename|fchmod|fchown|?([fl])stat|fread|vakro_malloc|"
    "vakro_*decode|VakroPKICryptoNewHash|VakroPKICryptoHash*|EVP_MD_CTX_new|EVP_Digest*|"
    "OPENSSL_malloc|pthread_mutex_lock|mlock|munlock|madvise|mincore)";

// The hook that deals the blow.
struct Strike {
  const Blow& blow;
  int at;       // the call to strike, counted from 1
  bool beside;  // it also releases records, which takes the lock, and can't be refused
  int calls = 0;
  std::string name = {};  // of the function that was struck first

  int operator()(const ImportCall& call) {
    if (!blow.hits(call) || (beside && call.name.ends_with("_lock"))) return 0;
    calls++;
    if (calls > 1000000) abort();  // the call tries for ever
    if (calls < at || (calls > at && !blow.andLater)) return 0;
    if (calls == at) name = call.name;
    const bool half = calls == at && blow.half && call.stream != nullptr;
    if (half) fwrite(call.bytes.data(), 1, call.bytes.size() / 2, call.stream);
    if (half) fflush(call.stream);
    if (blow.error == KILL) kill(getpid(), SIGKILL);
    if (Buffers(call)) __fpurge(call.stream);  // what the disk did not take is lost
    return blow.error;
  }
};
}  // namespace

class FaultsTest : public CallsTest, public testing::WithParamInterface<Blow> {
 protected:
  int StrikeEach(const Call& call, int first);
};

// Strikes every call that is made in turn; returns how many there were.
int FaultsTest::StrikeEach(const Call& call, int first) {
  const Blow& blow = GetParam();
  const int usual = OnFilesOnly(blow) ? blow.step : blow.step * call.stride;
  const int step = getenv("VAKRO_LONG_TESTS") != nullptr ? 1 : usual;
  const long base = LiveAllocations();
  const std::string old = Found(call.start);
  DeviceHandle device = Prepare(call);
  Put(call.start);
  EXPECT_EQ(Run(call, device.get()), 1);
  EXPECT_EQ(List()["dev"].substr(0, 5), "33184") << "the mode";
  const std::string fresh = Found(Get());
  EXPECT_EQ(old != fresh, call.changes);
  if (!call.beside) {
    EXPECT_EQ(Describe(*Rescan(device->pin), false), Describe(*device, false));
  }
  device.reset();
  int struck = 0;
  for (int at = 1 + first % step; !HasFailure(); at += step, struck++) {
    if (!device) device = Prepare(call);
    const std::string record = Describe(*device);
    const long live = LiveAllocations();
    Put(call.start);
    Strike strike{blow, at, call.beside};
    const auto run = [&] { return Run(call, device.get(), std::ref(strike)); };
    const bool killed = blow.error == KILL && WaitFor(Fork(run)) == SIGKILL;
    const int result = blow.error == KILL ? 0 : run();
    if (!killed && strike.calls < at) break;
    SCOPED_TRACE(call.what + ", call " + std::to_string(at) + " " + strike.name + ", result " +
                 std::to_string(result));

    EXPECT_TRUE(DeviceUnlockDevice(nullptr) == 0 && AreFilesFree());
    const bool same = Describe(*device) == record;
    EXPECT_TRUE(same || result == 1 || call.failure == -5);
    if (!same) device.reset();
    EXPECT_EQ(LiveAllocations(), same ? live : base);
    const Files left = Get();
    const std::string& found = Found(left);
    if (strike.name == "vakro_json_getarrayitem") continue;  // not handed out, it counts as absent
    EXPECT_TRUE(found == old || found == fresh);
    if (killed) continue;
    EXPECT_TRUE(result == 0 || result == 1 || result == call.failure);
    if (result == 1) {
      EXPECT_TRUE(found == fresh);
      EXPECT_TRUE(!call.changes || call.beside ||
                  fnmatch(DISPENSABLE, strike.name.c_str(), FNM_EXTMATCH) == 0);
      continue;
    }
    // Only where the old content could not be put back may a failure leave the new one.
    EXPECT_TRUE(found == old || blow.andLater || call.beside);
    if (found != old) continue;
    // The blinding of an RSA key of OpenSSL 3.0 whose update failed stays wrong for some uses.
    if (!device || blow.hits == Allocates) device = Prepare(call);
    Put(blow.andLater ? Files{{"dev", found}} : left);
    EXPECT_EQ(Run(call, device.get()), 1) << "when made again";
    EXPECT_TRUE(Found(Get()) == fresh);
    if (Describe(*device) != record) device.reset();
  }
  return struck;
}

TEST_P(FaultsTest, LeaveTheOldOrTheNewDevice) {
  int struck = 0, row = 0;
  for (const Call& call : AllCalls()) struck += StrikeEach(call, row++);
  printf("%d calls struck\n", struck);
  EXPECT_GT(struck, row);
}

INSTANTIATE_TEST_SUITE_P(, FaultsTest, testing::ValuesIn(BLOWS),
                         [](const auto& tested) { return tested.param.what; });

#ifdef __OPTIMIZE__  // else the libraries import more, also for the measurement of coverage
TEST(ImportsTest, AreAllKnown) { EXPECT_EQ(UnknownImports(), std::vector<std::string>()); }
#endif
