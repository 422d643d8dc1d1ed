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

#include <filesystem>
#include <fstream>
#include <set>

namespace {
struct Disk {
  struct File {
    std::string now, safe;  // as processes read it, and on the disk
    auto operator<=>(const File&) const = default;
  };
  using Names = std::map<std::string, size_t>;
  std::vector<File> files;  // by a number that stays whatever their names
  std::vector<Names> folders = {
      {}};  // the folder on the disk, and as it was after each later change
  auto operator<=>(const Disk&) const = default;

  explicit Disk(const Files& safe) {
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
      std::set<Files> cuts = {{}};
      for (const auto& [name, number] : names) {
        const auto& [now, safe] = files[number];
        std::set<std::string> pieces = {now, safe};
        if (now != safe)
          pieces.insert({"", now.substr(0, now.size() / 2), std::string(now.size(), 0)});
        std::set<Files> with;
        for (Files cut : cuts)
          for (const std::string& piece : pieces) {
            cut[name] = piece;
            with.insert(cut);
          }
        cuts.swap(with);
      }
      all.merge(cuts);
    }
    return all;
  }
};
}  // namespace

class PowerCutTest : public CallsTest {
 protected:
  using Outcomes = std::set<std::string>;
  class Watch;

  void Follow(const Disk& start, const Call& call, Device* device, Outcomes outcomes,
              const std::vector<Call>& nexts = {});

  size_t cuts_ = 0;
};

// The hook that watches the file calls of one operation. What a call has done is looked at when the
// next is made.
class PowerCutTest::Watch {
 public:
  Disk disk;
  std::set<Disk> moments;
  int locks = 0;  // taken and given back

  Watch(const PowerCutTest& test, const Disk& start) : disk(start), test_(test) {
    for (const auto& [name, number] : disk.folders.back()) Number(name, number);
  }

  // What is read and written belongs together under one lock of the folder; but the making of a
  // key, which may take minutes, leaves the folder to others.
  int operator()(const ImportCall& call) {
    const bool makesKey = call.name == "RSA_generate_key_ex" || call.name == "EC_KEY_generate_key";
    if (call.modifies || call.name == "fopen" || makesKey) {
      EXPECT_EQ(test_.IsFolderFree(), makesKey) << call.name;
    }
    if (call.name == "flock") locks++;
    if (call.onFiles) Step(call);
    return 0;
  }

  void Step(const ImportCall& next) {
    Look();
    if (synced_ == Inode("")) disk.folders = {disk.folders.back()};
    if (const auto file = opened_.find(synced_); file != opened_.end())
      disk.files[file->second.number].safe = disk.files[file->second.number].now;
    moments.insert(disk);
    struct stat status = {};
    synced_ = next.name.ends_with("sync") && fstat(next.fd, &status) == 0 ? status.st_ino : 0;
  }

 private:
  ino_t Inode(const std::string& name) const {
    struct stat status = {};
    return stat(test_.Path(name).c_str(), &status) == 0 ? status.st_ino : 0;
  }

  // The file's number: `next` for a new one, which stays open, so that its inode comes once.
  size_t Number(const std::string& name, size_t next) {
    const auto [at, isNew] = opened_.try_emplace(Inode(name), next, test_.Path(name));
    return at->second.number;
  }

  void Look() {
    Disk::Names names;
    for (const auto& [name, content] : test_.Get()) {
      names[name] = Number(name, disk.files.size());
      if (names[name] == disk.files.size()) disk.files.emplace_back();
      disk.files[names[name]].now = content;
    }
    if (names != disk.folders.back()) disk.folders.push_back(names);
  }

  struct Opened {
    size_t number;
    std::ifstream file;
    Opened(size_t n, const std::string& path) : number(n), file(path) {}
  };
  const PowerCutTest& test_;
  std::map<ino_t, Opened> opened_;
  ino_t synced_ = 0;  // by the last call
};

// Makes the call. A power cut at any step leaves one of `outcomes` or what the call leaves; once
// a change is reported, nothing but that. So it is when the process is killed at any step and
// one of `nexts` follows.
void PowerCutTest::Follow(const Disk& start, const Call& call, Device* device, Outcomes outcomes,
                          const std::vector<Call>& nexts) {
  SCOPED_TRACE(call.what);
  Put(start.AfterKill());
  Watch watch(*this, start);
  EXPECT_EQ(Run(call, device, std::ref(watch)), 1);
  watch.Step({.name = "end"});
  const std::string left = Found(Get());
  EXPECT_EQ(outcomes.insert(left).second, call.changes);
  std::set<Files> cuts;
  for (const Disk& moment : watch.moments) cuts.merge(moment.AfterPowerCut());
  cuts_ += cuts.size();
  for (const Files& files : cuts) EXPECT_TRUE(outcomes.contains(Found(files)));
  for (const Files& files : watch.disk.AfterPowerCut())
    EXPECT_TRUE(!call.changes || Found(files) == left) << "reported, then lost";
  EXPECT_TRUE(watch.moments.size() == 1 || watch.locks == 2);
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
    Follow(Disk(call.start), call, device.get(), {old}, nexts);
  }
  printf("%zu power cuts, %zu folders\n", cuts_, found_.size());
  EXPECT_GT(cuts_, 1000u);
}
