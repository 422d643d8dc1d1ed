// Power cuts: closing a file does not put it on the disk. A model of the disk follows the file
// calls of an operation: a file's bytes are safe once fdatasync or fsync of it has returned, the
// folder's names once fsync of it has. At every step the power goes: what is safe stays; of the
// rest any piece may be there or not, names in the order of their changes. Whatever that leaves,
// the next scan finds exactly the old or exactly the new device; and the new one alone once the
// operation has reported it.
//
// A process may also be killed at any step, its files still only in memory, another one scan or
// write the folder, and the power go then.
#include "tests/support/calls.h"

#include <sys/stat.h>
#include <fstream>
#include <set>

namespace {
struct Disk {
  struct File {
    std::string now, safe;  // as processes read it, and on the disk
    auto operator<=>(const File&) const = default;
  };
  std::vector<File> files;  // by a number that stays whatever their names
  // From names to numbers: the folder on the disk, and as it was after each later change.
  std::vector<std::map<std::string, size_t>> folders;
  auto operator<=>(const Disk&) const = default;

  Files AfterKill() const {
    Files left;
    for (const auto& [name, number] : folders.back()) left[name] = files[number].now;
    return left;
  }

  std::set<Files> AfterPowerCut() const {
    std::set<Files> all;
    for (const auto& names : folders) {
      std::set<Files> cuts = {{}};
      for (const auto& [name, number] : names) {
        const auto& [now, safe] = files[number];
        std::set<std::string> pieces = {now, safe};
        if (now != safe)
          pieces.insert({"", now.substr(0, now.size() / 2), std::string(now.size(), '\0')});
        std::set<Files> longer;
        for (Files cut : cuts)
          for (const std::string& piece : pieces) {
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
              const std::vector<Call>& nexts = {});

  size_t cuts_ = 0;
};

// The hook that follows the file calls of one operation. What a call has done is looked at when the
// next is made.
struct PowerCutTest::Watch {
  const PowerCutTest& test;
  Disk disk;
  std::set<Disk> moments = {};
  // The numbers of the files by their inodes; a file is kept open, so that its inode comes once.
  std::map<ino_t, std::pair<size_t, std::ifstream>> numbers = {};

  // Who writes holds the file's lock; but the making of a key, which may take minutes, leaves the
  // file to others.
  int operator()(const ImportCall& call) {
    const bool makesKey = call.name == "RSA_generate_key_ex" || call.name == "EC_KEY_generate_key";
    const bool writes = call.modifies && !call.name.starts_with("open");
    if (writes || makesKey) {
      EXPECT_EQ(test.AreFilesFree(), makesKey) << call.name;
    }
    if (!call.onFiles) return 0;
    Look();
    moments.insert(disk);
    if (!call.name.ends_with("sync")) return 0;
    const ino_t synced = Inode("/proc/self/fd/" + std::to_string(call.fd));
    if (synced == Inode(test.folder_)) disk.folders = {disk.folders.back()};
    for (const auto& [name, number] : disk.folders.back())
      if (Inode(test.Path(name)) == synced) disk.files[number].safe = disk.files[number].now;
    return 0;
  }

  void Look() {
    std::map<std::string, size_t> names;
    for (const auto& [name, content] : test.Get()) {
      names[name] = Number(name, disk.files.size());
      if (names[name] == disk.files.size()) disk.files.emplace_back();
      disk.files[names[name]].now = content;
    }
    if (names != disk.folders.back()) disk.folders.push_back(names);
  }

  size_t Number(const std::string& name, size_t next) {
    const std::string path = test.Path(name);
    return numbers.try_emplace(Inode(path), next, std::ifstream(path)).first->second.first;
  }
};

// Makes the call. A power cut at any step leaves one of `outcomes` or what the call leaves; once
// a change is reported, nothing but that. So it is also when the process is killed at any step and
// one of `nexts` follows.
void PowerCutTest::Follow(const Disk& start, const Call& call, Device* device,
                          std::set<std::string> outcomes, const std::vector<Call>& nexts) {
  SCOPED_TRACE(call.what);
  Put(start.AfterKill());
  Watch watch{*this, start};
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
      if (!HasFailure()) Follow(moment, next, device, outcomes);
}

TEST_F(PowerCutTest, LeavesTheOldOrTheNewDevice) {
  const std::vector<Call> nexts = {
      {"scan", [](Device*) { return SetHandle(DeviceGetAllDevices()) ? 1 : 0; }},
      {"create", [](Device* d) { return DeviceCreateData(d, 9, 0, 3); }, true},
  };
  for (const Call& call : AllCalls()) {
    const std::string old = Found(call.start);
    const DeviceHandle device = Prepare(call);
    Disk start = {{}, {{}}};
    for (const auto& [name, content] : call.start) {
      start.folders[0][name] = start.files.size();
      start.files.push_back({content, content});
    }
    Follow(start, call, device.get(), {old}, nexts);
  }
  printf("%zu power cuts, %zu folders\n", cuts_, found_.size());
  EXPECT_GT(cuts_, 1000u);
}
