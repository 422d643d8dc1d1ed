// backup, restore: copies of a device to keep, outside the key folder.
#include "device/create.h"
#include "store/store.h"
#include "tools/change.h"
#include "tools/inspection.h"
#include "tools/options.h"
#include "tools/output.h"
#include "tools/rights.h"
#include "tools/session.h"

#include <errno.h>
#include <string.h>
#include <time.h>

namespace {
struct BackupOptions {
  std::string folder;
  std::string file;
};
}  // namespace

// --- backup --------------------------------------------------------------------------------------

// The device file's name and the time, so that copies of other days stand beside each other.
static std::string CopyName(Device* device) {
  const time_t now = time(nullptr);
  tm day = {};
  localtime_r(&now, &day);
  char text[32];
  strftime(text, sizeof text, ".%Y%m%d-%H%M%S", &day);
  return FileNameOf(device) + text;
}

static std::string In(const std::string& folder, const std::string& name) {
  return folder + (folder.ends_with('/') ? "" : "/") + name;
}

static void RefuseKeyFolder(const Target& target, const std::string& folder) {
  struct stat here = {};
  if (stat(folder.c_str(), &here) != 0) FailToOpen(folder);
  if (!S_ISDIR(here.st_mode)) throw Failure(folder + " is no folder.");
  for (const std::string& keys : KeyFolders(target)) {
    struct stat there = {};
    if (stat(keys.c_str(), &there) != 0 || !SameFile(here, there)) continue;
    throw Failure(folder + " is the key folder itself.",
                  "A copy there would be taken for a device; name another folder.");
  }
}

static void RequireCopied(int result, const std::string& from, const std::string& to) {
  switch (result) {
    case VAKRO_OK:
      return NoteChange("the copy " + to + " is made");
    case VAKRO_ALREADY_EXISTS:
      throw Failure(EXIT_EXISTS, to + " exists already; nothing was written.");
    case VAKRO_FAILED:
      throw Failure(from + " is missing or damaged; nothing was copied.");
    default:
      throw Failure("Can't copy " + from + " to " + to + ": " + WhyNotWritten(to) + ".");
  }
}

static void MakeBackup(const Target& target, const BackupOptions& options) {
  RefuseKeyFolder(target, options.folder);
  const Session session(target);
  Device* device = session.device.get();
  const std::string path = In(options.folder, CopyName(device));
  // In the midst of a rewrite the file looks damaged: the lock makes a writer wait. Who may not
  // write the file can't have it, and copies all the same.
  DeviceChange held;
  if (BeginChange(device->filePath, held) == VAKRO_OK) RequireSameDevice(device, held.device);
  errno = 0;
  RequireCopied(CopyDeviceFile(device->filePath, path.c_str()), device->filePath, path);
  Confirm("Copied device " + NameOf(device) + " to " + path + ". The PIN of today opens it.",
          Fields{{"serial", device->serialNumber}, {"label", device->label}, {"file", path}});
}

// --- restore -------------------------------------------------------------------------------------

static OwnedDevice DeviceIn(const std::string& path) {
  CheckInput(path);
  unsigned char* raw = nullptr;
  unsigned int size = 0;
  const bool good = VerifyDeviceFile(path.c_str(), &raw, &size) == 1;
  const UtilBytes image(good ? raw : nullptr);
  OwnedDevice device(good ? GetDeviceHandleFromData(raw, size) : nullptr);
  if (device) return device;
  const std::string reason = ReasonOf(Inspect(path));
  throw Failure(path + " is no good copy of a device" +
                (reason.empty() ? "." : ": " + reason + "."));
}

static void RefusePresent(const Target& target, const Device* copy) {
  if (access(FolderOf(target).c_str(), F_OK) != 0) return RefuseMovable(FolderOf(target), false);
  const Folder folder(target);
  const DeviceSet* set = folder.devices.get();
  for (int i = 0; i < set->count; i++) {
    Device* device = set->devices[i];
    if (strcmp(device->serialNumber, copy->serialNumber) != 0) continue;
    throw Failure(EXIT_EXISTS, "Device " + NameOf(device) + " is there: " + device->filePath + ".",
                  "To go back to the copy, take that file out of the folder first.");
  }
  if (set->count == MAX_DEVICES) throw Failure("The folder holds 64 devices already.");
}

// A file in the way is never replaced, not even a damaged one: it may hold what the copy has not.
static void Restore(const Target& target, const BackupOptions& options) {
  const OwnedDevice copy = DeviceIn(options.file);
  RefusePresent(target, copy.get());
  const Module module(target);
  const OwnedDevice place(NewDeviceRecord(copy->serialNumber, copy->label));
  if (!place) throw std::bad_alloc();
  const std::string path = place->filePath;
  if (access(place->backupPath, F_OK) == 0) {
    throw Failure(EXIT_EXISTS, std::string(place->backupPath) + " is in the way.",
                  "It may hold the device: 'softdevice list' brings it back.");
  }
  if (access(path.c_str(), F_OK) == 0) {
    throw Failure(EXIT_EXISTS, path + " is in the way: " + ReasonOf(Inspect(path)) + ".",
                  "Take that file out of the folder first, and keep it until all is well.");
  }
  const std::string folder = FolderOf(target);
  if (mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST) {
    throw Failure("Can't make the folder " + folder + ": " + SystemError() + ".");
  }
  errno = 0;
  RequireCopied(CopyDeviceFile(options.file.c_str(), path.c_str()), options.file, path);
  Confirm("Restored device " + NameOf(copy.get()) + " to " + path +
              ". The PIN of the day of the copy opens it.",
          Fields{{"serial", copy->serialNumber}, {"label", copy->label}, {"file", path}});
}

void AddBackupCommands(CLI::App& app, Target& target) {
  const auto options = std::make_shared<BackupOptions>();
  CLI::App& backup = AddCommand(app, "backup", "Copy a device to a folder; needs no PIN",
                                [&target, options] { MakeBackup(target, *options); });
  AddArgument(backup, "destination", &options->folder, "Folder for the copy, not a key folder");
  AddDeviceOptions(backup, target);
  NoteJson(backup, "{serial, label, file}");

  CLI::App& restore =
      AddCommand(app, "restore", "Put a copy of a device back; replaces nothing; needs no PIN",
                 [&target, options] { Restore(target, *options); });
  AddArgument(restore, "file", &options->file, "The copy");
  NoteJson(restore, "{serial, label, file}");
}
