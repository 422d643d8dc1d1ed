// Power cuts. Closing a file does not put it on the disk: its bytes are safe once fdatasync or
// fsync of it has returned, a folder's names once fsync of the folder has. When the power goes,
// what is safe stays; of the rest any piece may be there or not, names in the order of their
// changes.
//
// How it is played: a hook looks at the folder before each file call of an operation, and notes
// what is there and how much of it is safe: a Disk. From each of these moments follow all folders
// that a power cut may leave. The next scan of each must find exactly the old or exactly the new
// device, and the new one alone once the operation has reported it.
//
// A process may also be killed at any moment, its files still only in memory, another one scan or
// write the folder, and the power go then.
#include "tests/support/calls.h"

#include <sys/stat.h>
#include <fstream>
#include <set>

namespace {
struct File {
  std::string now, safe;  // as processes read it, and on the disk
  auto operator<=>(const File&) const = default;

  // What a power cut may leave of it.
  std::set<std::string> Pieces() const {
    if (now == safe) return {now};
    return {now, safe, "", now.substr(0, now.size() / 2), std::string(now.size(), '\0')};
  }
};

struct Disk {
  using Names = std::map<std::string, size_t>;  // name -> number of the file

  std::vector<File> files;     // by a number that stays whatever their names
  std::vector<Names> folders;  // on the disk, and after each change that is not safe yet
  auto operator<=>(const Disk&) const = default;

  explicit Disk(const Files& safe) : folders(1) {
    for (const auto& [name, content] : safe) {
      folders[0][name] = files.size();
      files.push_back({content, content});
    }
  }

  Files AfterKill() const {
    Files left;
    for (const auto& [name, number] : folders.back()) left[name] = files[number].now;
    return left;
  }

  std::set<Files> AfterPowerCut() const {
    std::set<Files> all;
    for (const Names& names : folders) {
      std::set<Files> cuts = {{}};  // every choice of pieces of the files so far
      for (const auto& [name, number] : names) {
        std::set<Files> longer;
        for (Files cut : cuts)
          for (const std::string& piece : files[number].Pieces()) {
            cut[name] = piece;
            longer.insert(cut);
          }
        cuts.swap(longer);
      }
      all.merge(cuts);
    }
    return all;
  }
};

ino_t Inode(const std::string& path) {
  struct stat status = {};
  return stat(path.c_str(), &status) == 0 ? status.st_ino : 0;
}
}  // namespace

class PowerCutTest : public CallsTest {
 protected:
  struct Watch;
  void Follow(const Disk& start, const Call& call, Device* device, std::set<std::string> outcomes,
              const std::vector<Call>& nexts);

  size_t cuts_ = 0;
};

// The hook that follows one operation. What a file call has done is seen before the next one.
struct PowerCutTest::Watch {
  const PowerCutTest& test;
  const Call& made;
  Disk disk;
  std::set<Disk> moments = {};
  // The files' numbers by their inodes; each is kept open, so that its inode does not come again.
  std::map<ino_t, std::pair<size_t, std::ifstream>> numbers = {};

  int operator()(const ImportCall& call) {
    // Who writes holds the file's lock; but the making of a key, which may take minutes, leaves the
    // file to others. An anchor is made at once.
    const bool makesKey = call.name == "RSA_generate_key_ex" || call.name == "EC_KEY_generate_key";
    const bool writes = call.modifies && !call.name.starts_with("open");
    if (writes || (makesKey && !made.beside)) {
      EXPECT_EQ(test.AreFilesFree(), makesKey) << call.name;
    }
    if (!call.onFiles) return 0;
    Look();
    moments.insert(disk);
    if (call.name.ends_with("sync")) NoteSafe(Inode("/proc/self/fd/" + std::to_string(call.fd)));
    return 0;
  }

  void Look() {
    Disk::Names names;
    for (const auto& [name, content] : test.Get()) {
      const size_t number = names[name] = Number(name, disk.files.size());
      if (number == disk.files.size()) disk.files.emplace_back();
      disk.files[number].now = content;
    }
    if (names != disk.folders.back()) disk.folders.push_back(names);
  }

  size_t Number(const std::string& name, size_t ifNew) {
    const std::string path = test.Path(name);
    return numbers.try_emplace(Inode(path), ifNew, std::ifstream(path)).first->second.first;
  }

  void NoteSafe(ino_t synced) {
    if (synced == Inode(test.folder_)) disk.folders = {disk.folders.back()};
    for (const auto& [name, number] : disk.folders.back())
      if (Inode(test.Path(name)) == synced) disk.files[number].safe = disk.files[number].now;
  }
};

// Makes the call. A power cut at any moment leaves one of `outcomes` or what the call leaves; once
// a change is reported, nothing but that. So it is also when the process is killed at any moment
// and one of `nexts` follows.
void PowerCutTest::Follow(const Disk& start, const Call& call, Device* device,
                          std::set<std::string> outcomes, const std::vector<Call>& nexts) {
  SCOPED_TRACE(call.what);
  Put(start.AfterKill());
  Watch watch{*this, call, start};
  for (const auto& [name, number] : start.folders.back()) watch.Number(name, number);
  EXPECT_EQ(Run(call, device, std::ref(watch)), 1);
  watch({.name = "end", .onFiles = true});
  const std::string left = Found(Get());
  EXPECT_EQ(outcomes.insert(left).second, call.changes);
  std::set<Files> cuts;
  for (const Disk& moment : watch.moments) cuts.merge(moment.AfterPowerCut());
  for (const Files& files : cuts) EXPECT_TRUE(outcomes.contains(Found(files)));
  for (const Files& files : watch.disk.AfterPowerCut())
    EXPECT_TRUE(!call.changes || Found(files) == left) << "reported, then lost";
  cuts_ += cuts.size();
  for (const Disk& moment : watch.moments)
    for (const Call& next : nexts)
      if (!HasFailure()) Follow(moment, next, device, outcomes, {});
}

TEST_F(PowerCutTest, LeavesTheOldOrTheNewDevice) {
  const std::vector<Call> nexts = {
      {"scan", [](Device*) { return SetHandle(DeviceGetAllDevices()) ? 1 : 0; }},
      {"create", [](Device* d) { return DeviceCreateData(d, 9, 0, 3); }, true},
  };
  for (const Call& call : AllCalls()) {
    const std::string old = Found(call.start);
    const DeviceHandle device = Prepare(call);
    Follow(Disk(call.start), call, device.get(), {old}, nexts);
  }
  printf("%zu power cuts, %zu folders\n", cuts_, found_.size());
  EXPECT_GT(cuts_, 1000u);
}
