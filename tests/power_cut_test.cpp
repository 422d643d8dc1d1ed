// Power cuts: closing a file does not put it on the disk. A model of the disk follows the file
// calls of an operation: a file's bytes are safe once fdatasync or fsync of it has returned, the
// folder's names once fsync of it has. At every step the power goes: what is safe stays; of the
// rest any piece may be there or not, names in the order of their changes. Whatever that leaves,
// the next scan finds exactly the old or exactly the new device; and the new one alone once the
// operation has reported it.
//
// A process may also be killed at any step, its files still only in memory, another one scan, read
// or write the folder, and the power go then.
#include "tests/support/calls.h"

#include <fcntl.h>
#include <filesystem>
#include <list>

namespace {
// Files have numbers, which stay whatever their names.
struct Disk {
  using Names = std::map<std::string, int>;
  std::vector<std::string> content, safe;  // by number: as processes read it, and on the disk
  std::vector<Names> folders;  // the folder on the disk, and as it was after each later change
  auto operator<=>(const Disk&) const = default;

  std::set<std::string> AfterPowerCut(int number) const {
    const auto at = static_cast<size_t>(number);
    const std::string& bytes = content[at];
    if (bytes == safe[at]) return {bytes};
    return {safe[at], "", bytes.substr(0, bytes.size() / 2), std::string(bytes.size(), 0), bytes};
  }

  std::set<Files> AfterPowerCut() const {
    std::set<Files> all;
    for (const Names& names : folders) {
      std::set<Files> left = {{}};
      for (const auto& [name, number] : names) {
        std::set<Files> more;
        for (Files files : left) {
          for (const std::string& bytes : AfterPowerCut(number)) {
            files[name] = bytes;
            more.insert(files);
          }
        }
        left = more;
      }
      all.merge(left);
    }
    return all;
  }

  Files AfterKill() const {
    Files files;
    for (const auto& [name, number] : folders.back())
      files[name] = content[static_cast<size_t>(number)];
    return files;
  }
};

// Watches the file calls of one operation. What a call has done is looked at when the next is made.
class Watch {
 public:
  Disk disk;
  std::set<Disk> moments;
  std::map<Files, std::string> cuts;  // what a power cut may leave, and before which call

  // From a folder that is safe on the disk, or as a process has left it that was killed.
  explicit Watch(const std::string& folder) : folder_(folder) {
    disk.folders = {{}};
    Look();
    disk.safe = disk.content;
    disk.folders = {disk.folders.back()};
  }
  Watch(const std::string& folder, const Disk& killed) : disk(killed), folder_(folder) {
    for (const auto& [name, number] : disk.folders.back()) numbers_[Inode(name)] = number;
  }

  template <class Run>
  int Follow(Run run) {
    s_following = this;
    HookCalls([](const ImportCall& call) {
      if (call.onFiles) s_following->Step(call);
      return 0;
    });
    const int result = run();
    HookCalls(nullptr);
    Step({.name = "end"});
    return result;
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
      const auto next = static_cast<int>(disk.content.size());
      const auto [file, fresh] = numbers_.try_emplace(Inode(name), next);
      if (fresh) {
        disk.content.emplace_back();
        disk.safe.emplace_back();
        kept_.emplace_back(open(entry.path().c_str(), O_RDONLY));  // its inode is not used again
      }
      names[name] = file->second;
      disk.content[static_cast<size_t>(file->second)] = ReadText(entry.path());
    }
    if (names != disk.folders.back()) disk.folders.push_back(names);
  }

  void Step(const ImportCall& next) {
    Look();
    if (synced_ == Inode("")) disk.folders = {disk.folders.back()};
    if (const auto file = numbers_.find(synced_); file != numbers_.end()) {
      const auto at = static_cast<size_t>(file->second);
      disk.safe[at] = disk.content[at];
    }
    moments.insert(disk);
    for (const Files& files : disk.AfterPowerCut()) cuts.try_emplace(files, next.name);
    const bool syncs = std::string(next.name).ends_with("sync");
    struct stat status = {};
    synced_ = syncs && fstat(next.fd, &status) == 0 ? status.st_ino : 0;
  }

  static inline Watch* s_following;
  const std::string folder_;
  std::map<ino_t, int> numbers_;
  std::list<Descriptor> kept_;
  ino_t synced_ = 0;  // by the last call
};

int CreateNine(Device* device) { return DeviceCreateData(device, 9, 0, 3); }
}  // namespace

class PowerCutTest : public CallsTest {
 protected:
  using Outcomes = std::set<std::string>;

  // A power cut at any step leaves one of `outcomes`; after success, if it is reported, of `safe`.
  void Expect(const Watch& watch, const Outcomes& outcomes, const Outcomes& safe) {
    for (const auto& [files, call] : watch.cuts) {
      cuts_++;
      EXPECT_TRUE(outcomes.contains(Found(files))) << "power cut before " << call << Shape(files);
    }
    for (const Files& files : watch.disk.AfterPowerCut())
      EXPECT_TRUE(safe.contains(Found(files))) << "reported, then lost" << Shape(files);
  }

  const std::string& Found(const Files& files) {
    const auto [found, fresh] = found_.try_emplace(files);
    if (fresh) found->second = Scan(files);
    return found->second;
  }

  static std::string Shape(const Files& files) {
    std::string shape;
    for (const auto& [name, bytes] : files)
      shape += "; " + name + " of " + std::to_string(bytes.size()) + " bytes";
    return shape;
  }

  std::string WithNine(const Files& files) {
    Scan(files);
    EXPECT_EQ(CreateNine(Rescan().get()), 1);
    return Scan();
  }

  std::map<Files, std::string> found_;
  int cuts_ = 0;
};

TEST_F(PowerCutTest, LeavesTheOldOrTheNewDevice) {
  struct Next {
    const char* what;
    int (*run)(Device*);
    bool changes;
  };
  static const Next nexts[] = {
      {"scan", [](Device*) { return SetHandle(DeviceGetAllDevices()) ? 1 : 0; }, false},
      {"read", [](Device* d) { return DeviceReadDataEx(d, 1, 0, nullptr, 0, nullptr); }, false},
      {"create", CreateNine, true},
  };
  int killed = 0;
  for (const Call& operation : AllCalls()) {
    SCOPED_TRACE(operation.what);
    const std::string old = Found(operation.start);
    const DeviceHandle device = Prepare(operation);
    Watch watch(folder_);
    EXPECT_EQ(watch.Follow([&] { return Run(operation, device.get()); }), 1);
    GiveBack();
    const Files after = Get();
    const std::string fresh = Found(after);
    Expect(watch, {old, fresh}, {fresh});
    const Outcomes either = {old, fresh};
    const Outcomes nine = {WithNine(operation.start), WithNine(after)};
    Outcomes any = either;
    any.insert(nine.begin(), nine.end());

    const DeviceHandle other = Rescan();
    for (const Disk& moment : watch.moments) {
      for (const Next& next : nexts) {
        SCOPED_TRACE(std::string("killed, then ") + next.what + Shape(moment.AfterKill()));
        killed++;
        Put(moment.AfterKill());
        Watch second(folder_, moment);
        const int result = second.Follow([&] { return next.run(other.get()); });
        const bool changed = next.changes && result == 1;
        Expect(second, next.changes ? any : either, changed ? nine : next.changes ? any : either);
        if (HasFailure()) return;
      }
    }
  }
  printf("%d times killed, %d power cuts, %zu folders\n", killed, cuts_, found_.size());
  EXPECT_GT(cuts_, 1000);
}
