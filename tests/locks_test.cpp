// Hostile and unlucky neighbours: a lock for reading stops nobody; who stops while he holds the
// lock costs a bounded time; and nothing that stands in the folder hangs, costs much, or is written
// to.
#include "store/lock.h"
#include "tests/support/calls.h"

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>

class LocksTest : public CallsTest {
 protected:
  LocksTest() { g_lockPatience = 0; }
  ~LocksTest() override { g_lockPatience = patience_; }

  // A child that has stopped itself, in `body` or behind it.
  pid_t Stopped(const std::function<void()>& body) {
    return AwaitStop(Fork([&] {
      body();
      raise(SIGSTOP);
    }));
  }
  static pid_t AwaitStop(pid_t child) {
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, WUNTRACED), child);
    EXPECT_TRUE(WIFSTOPPED(status));
    return child;
  }
  void End(pid_t child) {
    kill(child, SIGKILL);
    EXPECT_EQ(WaitFor(child), SIGKILL);
  }
  int Create(int id) { return DeviceCreateData(device_.get(), id, 0, 3); }
  int ReadSize(int id) { return DeviceReadDataEx(device_.get(), id, 0, nullptr, 0, nullptr); }

  const int patience_ = g_lockPatience;
  const DeviceHandle device_ = Load();
};

// Who may read the file can lock it for reading; that keeps no writer away from it, and none from
// keeping the others away. What is left of the second way is no device, and nobody stumbles on it.
TEST_F(LocksTest, WhoMayOnlyReadTheFileStopsNobody) {
  const int file = open(device_->filePath, O_RDONLY);
  struct flock lock = {};
  lock.l_type = F_RDLCK;
  ASSERT_EQ(fcntl(file, F_OFD_SETLK, &lock), 0);
  const Folder before = List();
  EXPECT_EQ(Create(1), 1);
  EXPECT_EQ(List().size(), before.size());

  FileLock second;
  const pid_t holder = Stopped([&] {
    EXPECT_EQ(second.Try(device_->filePath), LockResult::HELD);
    struct stat info = {};
    EXPECT_EQ(stat(Path("dev.lock").c_str(), &info), 0);
    EXPECT_EQ(info.st_mode, S_IFREG | 0200u);
  });
  EXPECT_EQ(Create(2), 0);
  close(file);
  EXPECT_EQ(Create(2), 0) << "the reader is gone, the holder is not";
  End(holder);
  EXPECT_TRUE(Exists("dev.lock"));
  EXPECT_EQ(Create(2), 1);
  EXPECT_EQ(DeviceGetDeviceCount(SetHandle(DeviceGetAllDevices()).get()), 1);

  const int reader = open(device_->filePath, O_RDONLY);
  ASSERT_EQ(fcntl(reader, F_OFD_SETLK, &lock), 0);
  EXPECT_EQ(Create(3), 1);
  EXPECT_FALSE(Exists("dev.lock"));
  Write("dev.lock", "precious");
  EXPECT_EQ(Create(4), 0);
  EXPECT_EQ(Read("dev.lock"), "precious");
  Write("dev.lock", "");
  if (chown(Path("dev.lock").c_str(), 65534, 65534) == 0) {
    EXPECT_EQ(Create(4), 0) << "a stranger's";
  }
  close(reader);
}

// It has emptied the file: until it is dead, its backup is read and left alone. Nobody waits for it
// who reads, or writes another file.
TEST_F(LocksTest, AHolderThatStopsInTheMiddleOfAWrite) {
  EXPECT_EQ(Create(1), 1);
  const std::string old = Read("dev");
  const pid_t writer = Stopped([&] {
    const Hook hook{[](const ImportCall& call) {
      if (call.name == "fwrite" && call.bytes.size() == 4) raise(SIGSTOP);
      return 0;
    }};
    Create(2);
  });
  EXPECT_EQ(Read("dev"), "");
  Refuses(0, device_.get(), [&] { return Create(3); });
  Refuses(0, device_.get(), [&] { return DeviceChangePwd(device_.get(), 1, PIN, "new", nullptr); });
  EXPECT_EQ(ReadSize(1), 1);
  Write("other", StoredDevice{.label = "other"}.File());
  const SetHandle set(DeviceGetAllDevices());
  EXPECT_EQ(DeviceGetDeviceCount(set.get()), 2);
  for (int i = 0; i < set->count; i++) {
    const bool isOther = Path("other") == set->devices[i]->filePath;
    EXPECT_EQ(DeviceCreateData(set->devices[i], 2, 0, 3), isOther ? 1 : 0);
  }
  End(writer);
  EXPECT_EQ(ReadSize(1), 1);
  EXPECT_TRUE(Read("dev") == old && !Exists("dev.bak"));
}

// Patience begins anew when the holder gets on. It is used up in pauses, which nobody sleeps here.
TEST_F(LocksTest, AHolderThatGetsOnIsWaitedFor) {
  g_lockPatience = 1000;
  FileLock lock;
  const pid_t holder = Stopped([&] { EXPECT_EQ(lock.Try(device_->filePath), LockResult::HELD); });
  int pauses = 0;
  const Hook hook{[&](const ImportCall& call) {
    if (call.name != "nanosleep") return 0;
    pauses++;
    if (pauses < 100 && pauses % 15 == 0)
      Write("dev.bak", std::string(static_cast<size_t>(pauses), 'x'));
    if (pauses == 100) End(holder);
    return ENOSYS;
  }};
  EXPECT_EQ(Create(1), 1);
  EXPECT_EQ(pauses, 100);
  FileLock other;
  EXPECT_EQ(other.Try(device_->filePath), LockResult::HELD);
  EXPECT_EQ(Create(2), 0);
  EXPECT_LT(pauses, 100 + 30) << "less than a second and a half";
}

TEST_F(LocksTest, AParentThatIsKilledLeavesNoLockWithItsChild) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  const pid_t parent = Stopped([&] {
    FileLock lock;
    EXPECT_EQ(lock.Try(device_->filePath), LockResult::HELD);
    if (fork() > 0) raise(SIGSTOP);  // with the lock, until it is killed
    const pid_t child = getpid();    // it tells, so that it has begun before its parent ends
    EXPECT_EQ(write(ends[1], &child, sizeof(child)), ssize_t{sizeof(child)});
    pause();
  });
  pid_t child = 0;
  EXPECT_EQ(read(ends[0], &child, sizeof(child)), ssize_t{sizeof(child)});
  End(parent);
  EXPECT_EQ(Create(1), 1);
  kill(child, SIGKILL);
  for (const int end : ends) close(end);
}

// It uses what it inherits, and neither takes a lock away nor believes that it holds it.
TEST_F(LocksTest, AForkedChildWaitsForALockOfItsParent) {
  FileLock lock;
  EXPECT_EQ(lock.Try(device_->filePath), LockResult::HELD);
  const pid_t other = Fork([&] { lock.GiveBack(); });  // a scope ends that was open at the fork
  EXPECT_EQ(WaitFor(other), 0);
  EXPECT_FALSE(AreFilesFree());
  const pid_t user = AwaitStop(Fork([&] {
    const Hook hook{[](const ImportCall& call) {
      if (call.name == "nanosleep") raise(SIGSTOP);
      return 0;
    }};
    EXPECT_EQ(Create(1), 1);
    EXPECT_EQ(DeviceEnd(), 1);
  }));
  lock.GiveBack();
  kill(user, SIGCONT);
  EXPECT_EQ(WaitFor(user), 0);
  EXPECT_EQ(ReadSize(1), 1);
  EXPECT_TRUE(AreFilesFree());
}

// A file system that can't lock or sync does what it can; a lock that can't be had and a disk that
// fails make the call fail, be it the file's bytes that were not kept or its name.
TEST_F(LocksTest, WhatTheFileSystemCannotDoIsWorkedWithoutAndWhatFailsFailsTheCall) {
  const std::tuple<const char*, int, int> rows[] = {
      {"fcntl", ENOLCK, 0},     {"fcntl", ENOMEM, 0},         {"open", EMFILE, 0},
      {"open", ENOMEM, 0},      {"fcntl", EOPNOTSUPP, 1},     {"fcntl", EINVAL, 1},
      {"fcntl", EINTR, 1},      {"fdatasync", EIO, 0},        {"fdatasync", EINVAL, 1},
      {"fdatasync", ENOSYS, 1}, {"fdatasync", EOPNOTSUPP, 1}, {"fdatasync", EINTR, 1},
      {"fsync", EIO, 0},        {"fsync", EINVAL, 1},         {"fsync", ENOSYS, 1},
      {"fsync", EOPNOTSUPP, 1}, {"fsync", EINTR, 1},
  };
  int id = 1;
  for (const auto& [name, error, want] : rows) {
    SCOPED_TRACE(std::string(name) + " " + strerror(error));
    bool isStruck = false;
    const std::string before = Read("dev");
    const Hook hook{[&, name = name, error = error](const ImportCall& call) {
      if (call.name != name || (call.name == "open" && !call.modifies)) return 0;
      return std::exchange(isStruck, true) ? 0 : error;
    }};
    EXPECT_EQ(Create(id++), want);
    EXPECT_EQ(Read("dev") != before, want == 1);
    EXPECT_TRUE(isStruck);
  }
}

// The file's lock comes after the module's: a call that can't have that leaves the file alone.
TEST_F(LocksTest, NoFileIsLockedWithoutTheModuleLock) {
  for (const Call& call : AllCalls()) {
    if (!call.changes) continue;
    SCOPED_TRACE(call.what);
    const DeviceHandle device = Prepare(call);
    const Fault unlocked{.name = "vakro_lock_lock", .andLater = true};
    int locks = 0;
    const Hook counter{
        [&](const ImportCall& made) { return made.name == "fcntl" ? ++locks, 0 : 0; }};
    const Hook hook{unlocked};
    EXPECT_EQ(call.run(device.get()), 0);
    EXPECT_EQ(locks, 0);
  }
}

TEST_F(LocksTest, APipeThatTakesTheFilesPlaceHangsNobody) {
  const std::function<int()> uses[] = {[&] { return Create(1); }, [&] { return ReadSize(1); }};
  for (const auto& use : uses) {
    bool isPipe = false;
    const Hook hook{[&](const ImportCall& call) {
      if (isPipe || call.name != "open" || !call.path.ends_with("/dev")) return 0;
      isPipe = remove(Path("dev").c_str()) == 0 && mkfifo(Path("dev").c_str(), 0600) == 0;
      return 0;
    }};
    EXPECT_EQ(use(), 0);
    EXPECT_TRUE(isPipe);
    remove(Path("dev").c_str());
    Write("dev", StoredDevice().File());
  }
}

TEST_F(LocksTest, TheBackupIsNeverWrittenThroughALink) {
  Write("victim", "precious");
  const std::string victim = Path("victim");
  const std::function<int()> links[] = {
      [&] { return symlink(victim.c_str(), Path("dev.bak").c_str()); },
      [&] { return link(victim.c_str(), Path("dev.bak").c_str()); },
      [&] { return symlink(Path("nowhere").c_str(), Path("dev.bak").c_str()); },
      [&] { return mkfifo(Path("dev.bak").c_str(), 0600); },
  };
  int id = 1;
  for (const auto& make : links) {
    EXPECT_EQ(make(), 0);
    EXPECT_EQ(Create(id++), 1);
    EXPECT_EQ(ReadText(victim), "precious");
    EXPECT_TRUE(!Exists("nowhere") && List().size() == 2);
  }
}

TEST_F(LocksTest, AThreadThatIsCancelledFinishesItsCall) {
  int result = -1;
  std::thread thread([&] {
    const Hook hook{[](const ImportCall& call) {
      if (call.name == "fwrite") pthread_cancel(pthread_self());
      return 0;
    }};
    result = Create(1);
  });
  thread.join();
  EXPECT_EQ(result, 1);
  EXPECT_EQ(ReadSize(1), 1);
}

// --- What costs little ---------------------------------------------------------------------------

TEST_F(LocksTest, WhatIsNoContainerIsHardlyRead) {
  Write("sparse", "");
  ASSERT_EQ(truncate(Path("sparse").c_str(), 0x7fffffff), 0);
  for (int i = 0; i < 1000; i++) Write("foreign" + std::to_string(i), std::string(5000, 'x'));
  size_t bytes = 0, calls = 0;
  const Hook hook{[&](const ImportCall& call) {
    if (call.name == "fread") bytes += call.bytes.size();
    calls += call.onFiles ? 1 : 0;
    return 0;
  }};
  EXPECT_NE(Rescan(), nullptr);
  EXPECT_LT(bytes, 1001 * 8 + Read("dev").size() + 1);
  EXPECT_LT(calls, 10 * 1001u);
}

TEST_F(LocksTest, AnObjectThatCannotFitIsRefusedByItsLength) {
  const Folder before = List();
  for (const int length : {0x7fffffff, 0x40000000, 0x3fffffff}) {
    const Hook hook{[&](const ImportCall& call) {
      EXPECT_TRUE(call.name != "VakroPKICryptoHexEncode" && call.name != "fwrite") << length;
      return 0;
    }};
    EXPECT_EQ(DeviceCreateData(device_.get(), 1, 0, length), 0);
  }
  EXPECT_TRUE(List() == before);
}

// --- Backups of backups ------------------------------------------------------------------------

TEST_F(LocksTest, ABackupOfABackupIsRestoredWhereNothingIsLost) {
  const std::string a = StoredDevice{.label = "a"}.File(), b = StoredDevice{.label = "b"}.File();
  const std::tuple<const char*, Files, Files> rows[] = {
      {"alone", {{"x.bak.bak", a}}, {{"x.bak", a}}},
      {"beside x", {{"x", b}, {"x.bak.bak", a}}, {{"x", b}, {"x.bak.bak", a}}},
      {"beside x.bak", {{"x.bak", b}, {"x.bak.bak", a}}, {{"x", b}, {"x.bak.bak", a}}},
  };
  for (const auto& [what, start, left] : rows) {
    SCOPED_TRACE(what);
    Put(start);
    EXPECT_NE(Rescan(), nullptr);
    EXPECT_TRUE(Get() == left);
  }
}
