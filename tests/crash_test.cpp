// Every moment is a good moment to die, and every file call may fail: for each operation that
// changes a device file or mends one, and for each of its file calls, the process is killed there
// or the call fails; the next scan finds exactly the old or exactly the new device.
#include "tests/support/writes.h"

#include <errno.h>
#include <signal.h>
#include <stdio_ext.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>
#include <string_view>

namespace {
bool Every(const FileCall&) { return true; }
bool Modifies(const FileCall& call) { return call.modifies; }
bool Buffers(const FileCall& call) {
  const std::string_view name = call.name;
  return name == "fwrite" || name == "fflush" || name == "fclose";
}
bool Opens(const FileCall& call) {
  return std::string_view(call.name).find("open") != std::string_view::npos;
}
bool OpensDevice(const FileCall& call) {
  return Opens(call) && std::string_view(call.path).ends_with("/dev");
}

struct Blow {
  const char* what;
  bool (*hits)(const FileCall& call);  // which calls count
  int error;                           // 0: the process is killed there
  bool andLater = false;
  bool half = false;  // half of a write goes out first, and all that lies in the buffer
};
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool SLOW_FORK = true;  // then skip the calls before which nothing has changed
#else
constexpr bool SLOW_FORK = false;
#endif
const Blow KILLS[] = {
    {"killed", SLOW_FORK ? Modifies : Every, 0},
    {"killed with bytes out", Buffers, 0, false, true},
};
const Blow FAULTS[] = {
    {"I/O error", Every, EIO},
    {"I/O error from then on", Every, EIO, true},
    {"disk full, short write", Buffers, ENOSPC, false, true},
    {"disk full from then on", Modifies, ENOSPC, true, true},
    {"no descriptor", Opens, EMFILE},
    {"no descriptor from then on", Opens, EMFILE, true},
    {"device file shut from then on", OpensDevice, EACCES, true},
    {"read-only from then on", Modifies, EROFS, true},
    {"no permission from then on", Modifies, EACCES, true},
};

// Of the struck process, for the parent to see.
struct Struck {
  int calls;
  int at;          // the call to strike
  char name[16];   // the function that was struck first
  const Blow* by;  // the same in both
};
Struck* g_struck;

int Strike(const FileCall& call) {
  const Blow& blow = *g_struck->by;
  if (!blow.hits(call)) return 0;
  g_struck->calls++;
  const bool first = g_struck->calls == g_struck->at;
  if (!first && !(blow.andLater && g_struck->calls > g_struck->at)) return 0;
  if (first) strncpy(g_struck->name, call.name, sizeof(g_struck->name) - 1);
  if (first && blow.half && call.bytes != nullptr)
    fwrite(call.bytes, 1, call.length / 2, call.stream);
  if (first && blow.half && call.stream != nullptr) fflush(call.stream);
  if (blow.error == 0) kill(getpid(), SIGKILL);
  if (Buffers(call)) __fpurge(call.stream);  // what the disk did not take is lost
  return blow.error;
}
}  // namespace

class CrashTest : public WritesTest {
 protected:
  static constexpr int KILLED = 100;

  void SetUp() override {
    WritesTest::SetUp();
    void* shared =
        mmap(nullptr, sizeof(Struck), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(shared, MAP_FAILED);
    g_struck = static_cast<Struck*>(shared);
  }
  void TearDown() override {
    munmap(g_struck, sizeof(Struck));
    WritesTest::TearDown();
  }

  // Runs the operation, in a child if it is to be killed; its result, or KILLED.
  static int RunStruck(const WriteOperation& operation, Device* device, const Blow& blow, int at) {
    *g_struck = {0, at, "", &blow};
    RestartRandomness();
    const pid_t child = blow.error == 0 ? fork() : 0;
    int status = 0;
    if (child == 0) {
      HookFiles(Strike);
      const int result = operation.run(device);
      HookFiles(nullptr);
      if (blow.error != 0) return result;
      _exit(result == 1 ? 10 : 11);  // sanitizers exit with 1
    }
    EXPECT_EQ(waitpid(child, &status, 0), child);
    if (WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) return KILLED;
    return WIFEXITED(status) && WEXITSTATUS(status) == 10 ? 1 : -status;
  }

  // Strikes every call of the operation in turn; returns how many there were.
  int StrikeEach(const WriteOperation& operation, const Blow& blow, const std::string& old,
                 const std::string& fresh) {
    DeviceHandle device = Prepare(operation);
    const bool pinChange = operation.pin != std::string(PIN);
    for (int at = 1;; at++) {
      const std::string record = Describe(*device);
      Put(operation.start);
      const int result = RunStruck(operation, device.get(), blow, at);
      if (g_struck->calls < at) return at - 1;
      SCOPED_TRACE(operation.what + ", " + blow.what + ", call " + std::to_string(at) + " " +
                   g_struck->name + ", result " + std::to_string(result));
      const std::string found = Scan();
      EXPECT_TRUE(found == old || found == fresh) << found;
      EXPECT_EQ(Scan(), found) << "in the second scan";
      EXPECT_TRUE(Opens(found, found == old ? PIN : operation.pin));
      if (blow.error == 0) {
        EXPECT_EQ(result, KILLED);
      } else {
        EXPECT_TRUE(result == 0 || result == 1);
        // Only where the old content could not be put back may a failure leave the new one.
        if (result == 1 || !blow.andLater) {
          EXPECT_EQ(found, result == 1 ? fresh : old);
        }
        const bool changed = Describe(*device) != record;
        EXPECT_TRUE(!changed || result == 1 || pinChange);
        if (changed) device = Prepare(operation);
      }
      if (HasFailure()) return at;
    }
  }

  template <size_t N>
  int StrikeAll(const Blow (&blows)[N]) {
    static const Blow none = {"not at all", Every, EIO};
    int points = 0;
    for (const WriteOperation& operation : WriteOperations()) {
      const std::string old = Scan(operation.start);
      EXPECT_EQ(RunStruck(operation, Prepare(operation).get(), none, 0), 1) << operation.what;
      const std::string fresh = Scan();
      EXPECT_EQ(old != fresh, operation.changes) << operation.what;
      for (const Blow& blow : blows) points += StrikeEach(operation, blow, old, fresh);
    }
    return points;
  }
};

TEST_F(CrashTest, Killed) {
  const int points = StrikeAll(KILLS);
  printf("%d kill points\n", points);
  EXPECT_GT(points, 500);
}

TEST_F(CrashTest, FileCallsFail) {
  const int points = StrikeAll(FAULTS);
  printf("%d fault points\n", points);
  EXPECT_GT(points, 5000);
}
