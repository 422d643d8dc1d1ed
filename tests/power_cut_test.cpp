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

#include <fcntl.h>
#include <filesystem>
#include <list>

namespace {
struct Disk {
  struct File {
    std::string now, safe;  // as processes read it, and on the disk
    auto operator<=>(const File&) const = default;
  };
  using Names = std::map<std::string, int>;
  std::map<int, File> files;   // by a number that stays whatever their names
  std::vector<Names> folders;  // the folder on the disk, and as it was after each later change
  auto operator<=>(const Disk&) const = default;

  std::set<Files> AfterPowerCut() const {
    std::set<Files> all;
    for (const Names& names : folders) AddCuts(names, names.begin(), {}, all);
    return all;
  }

  // Adds what `left` becomes with each piece of each further name.
  void AddCuts(const Names& names, Names::const_iterator next, Files left,
               std::set<Files>& all) const {
    if (next == names.end()) {
      all.insert(left);
      return;
    }
    const auto& [now, safe] = files.at(next->second);
    std::set<std::string> pieces = {now, safe};
    if (now != safe) pieces.insert({"", now.substr(0, now.size() / 2), std::string(now.size(), 0)});
    for (const std::string& piece : pieces) {
      left[next->first] = piece;
      AddCuts(names, std::next(next), left, all);
    }
  }

  Files AfterKill() const {
    Files left;
    for (const auto& [name, number] : folders.back()) left[name] = files.at(number).now;
    return left;
  }
};

// Watches the file calls of one operation. What a call has done is looked at when the next is made.
class Watch {
 public:
  Disk disk;
  std::set<Disk> moments;
  std::set<Files> cuts;  // what a power cut may leave
  int locks = 0;         // taken and given back

  // From a folder that is safe on the disk, or as a process has left it that was killed.
  explicit Watch(const std::string& folder) : folder_(folder) {
    disk.folders = {{}};
    Look();
    for (auto& [number, file] : disk.files) file.safe = file.now;
    disk.folders = {disk.folders.back()};
    s_watch = this;
  }
  Watch(const std::string& folder, const Disk& killed) : disk(killed), folder_(folder) {
    for (const auto& [name, number] : disk.folders.back()) numbers_[Inode(name)] = number;
    s_watch = this;
  }

  // What is read and written belongs together under one lock of the folder; but the making of a
  // key, which may take minutes, leaves the folder to others.
  static int OnCall(const ImportCall& call) {
    const std::string_view name = call.name;
    const bool makesKey = name == "RSA_generate_key_ex" || name == "EC_KEY_generate_key";
    if (call.modifies || name == "fopen" || makesKey) {
      EXPECT_EQ(IsFolderFree(s_watch->folder_), makesKey) << name;
    }
    if (name == "flock") s_watch->locks++;
    if (call.onFiles) s_watch->Step(call);
    return 0;
  }

  void Step(const ImportCall& next) {
    Look();
    if (synced_ == Inode("")) disk.folders = {disk.folders.back()};
    if (const auto file = numbers_.find(synced_); file != numbers_.end())
      disk.files[file->second].safe = disk.files[file->second].now;
    moments.insert(disk);
    cuts.merge(disk.AfterPowerCut());
    struct stat status = {};
    const bool syncs = std::string(next.name).ends_with("sync");
    synced_ = syncs && fstat(next.fd, &status) == 0 ? status.st_ino : 0;
  }

 private:
  ino_t Inode(const std::string& name) const {
    struct stat status = {};
    return stat((folder_ + name).c_str(), &status) == 0 ? status.st_ino : 0;
  }

  void Look() {
    Disk::Names names;
    for (const auto& entry : std::filesystem::directory_iterator(folder_)) {
      const std::string name = entry.path().filename();
      const auto next = static_cast<int>(disk.files.size());
      const auto [file, fresh] = numbers_.try_emplace(Inode(name), next);
      if (fresh) kept_.emplace_back(open(entry.path().c_str(), O_RDONLY));  // no inode comes again
      names[name] = file->second;
      disk.files[file->second].now = ReadText(entry.path());
    }
    if (names != disk.folders.back()) disk.folders.push_back(names);
  }

  static inline Watch* s_watch;
  const std::string folder_;
  std::map<ino_t, int> numbers_;
  std::list<Descriptor> kept_;
  ino_t synced_ = 0;  // by the last call
};
}  // namespace

class PowerCutTest : public CallsTest {
 protected:
  using Outcomes = std::set<std::string>;

  // Makes the call. A power cut at any step leaves one of `outcomes` or what the call leaves; once
  // a change is reported, nothing but that. Returns the outcomes and what the call left.
  Outcomes Follow(Watch& watch, const Call& call, Device* device, Outcomes outcomes) {
    EXPECT_EQ(Run(call, device, Watch::OnCall), 1);
    watch.Step({.name = "end"});
    cuts_ += watch.cuts.size();
    const std::string left = Found(Get());
    outcomes.insert(left);
    for (const Files& files : watch.cuts) EXPECT_TRUE(outcomes.contains(Found(files)));
    if (!call.changes) return outcomes;
    for (const Files& files : watch.disk.AfterPowerCut())
      EXPECT_TRUE(Found(files) == left) << "reported, then lost";
    return outcomes;
  }

  const std::string& Found(const Files& files) {
    const auto [found, fresh] = found_.try_emplace(files);
    if (fresh) found->second = Scan(files);
    return found->second;
  }

  std::map<Files, std::string> found_;
  size_t cuts_ = 0;
};

TEST_F(PowerCutTest, LeavesTheOldOrTheNewDevice) {
  const Call nexts[] = {
      {"scan", [](Device*) { return SetHandle(DeviceGetAllDevices()) ? 1 : 0; }},
      {"create", [](Device* d) { return DeviceCreateData(d, 9, 0, 3); }, true},
  };
  for (const Call& call : AllCalls()) {
    SCOPED_TRACE(call.what);
    const std::string old = Scan(call.start);
    DeviceHandle device = Prepare(call);
    Watch watch(folder_);
    const Outcomes outcomes = Follow(watch, call, device.get(), {old});
    EXPECT_EQ(outcomes.size(), call.changes ? 2u : 1u);
    if (watch.moments.size() == 1) continue;  // it made no file calls
    EXPECT_EQ(watch.locks, 2);

    device = Rescan();
    for (const Disk& moment : watch.moments) {
      for (const Call& next : nexts) {
        SCOPED_TRACE("killed, then " + next.what);
        Put(moment.AfterKill());
        Watch second(folder_, moment);
        const Outcomes either = Follow(second, next, device.get(), outcomes);
        EXPECT_EQ(either.size() > outcomes.size(), next.changes);
        if (HasFailure()) return;
      }
    }
  }
  printf("%zu power cuts, %zu folders\n", cuts_, found_.size());
  EXPECT_GT(cuts_, 1000u);
}
