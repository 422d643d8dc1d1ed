// What can be put right without guessing. The digest is the judge.
#include "tools/repair.h"

#include "store/inspect.h"
#include "store/lock.h"
#include "store/store.h"
#include "tools/change.h"
#include "tools/files.h"
#include "tools/inspection.h"
#include "tools/report.h"

#include <errno.h>
#include <time.h>
#include <unistd.h>

static std::string FolderPart(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == path.npos ? "." : path.substr(0, slash);
}

std::string KeepCopy(const std::string& path) {
  std::string folder = FolderPart(path);
  while (folder.size() > 1 && folder.ends_with('/')) folder.pop_back();
  const std::string keep = (folder == "." ? "./device" : folder) + ".kept";
  if (mkdir(keep.c_str(), 0700) != 0 && errno != EEXIST) {
    throw Failure("Can't make the folder " + keep + " for a copy: " + SystemError() + ".");
  }
  const time_t now = time(nullptr);
  tm day = {};
  localtime_r(&now, &day);
  char text[32];
  strftime(text, sizeof text, ".%Y%m%d-%H%M%S", &day);
  const std::string base = keep + path.substr(path.rfind('/')) + text;
  std::string copy = base;
  for (int i = 2; access(copy.c_str(), F_OK) == 0; i++) copy = base + "-" + std::to_string(i);
  if (CopyFileData(path.c_str(), copy.c_str()) != 1) {
    throw Failure("Can't copy " + path + " to " + copy + ": " + SystemError() + ".");
  }
  return copy;
}

static void RepairContainer(const std::string& path) {
  const Bytes image = ReadInput(path);
  const auto size = static_cast<unsigned int>(image.size());
  unsigned int length = 0;
  const int found = FindText(image.data(), size, &length);
  if (found < 0) throw std::bad_alloc();
  if (found == 0) return;
  const std::string copy = KeepCopy(path);
  if (!SetTextLength(path.c_str(), length)) {
    throw Failure("Can't write " + path + ": " + SystemError() + ".");
  }
  Warn(path +
       (length == size - HEADER_SIZE - DIGEST_SIZE ? ": the length word is put right"
                                                   : ": what stood behind the end is cut off") +
       "; the file as it was is kept as " + copy + ".");
}

static void RepairFromBackup(const std::string& path) {
  const std::string backup = path + BACKUP_SUFFIX;
  if (IsDeviceFile(path) || !IsDeviceFile(backup)) return;
  const std::string copy = KeepCopy(path);
  KeepCopy(backup);
  if (CopyFileData(backup.c_str(), path.c_str()) != 1) {
    throw Failure("Can't write " + path + ": " + SystemError() + ".",
                  "The file and its backup are kept beside " + copy + ".");
  }
  Warn(path + ": restored from its backup; the file as it was, and the backup, are kept as " +
       copy + ".");
}

static void CloseToOthers(const std::string& path) {
  struct stat status = {};
  if (lstat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) return;
  if ((status.st_mode & (S_IRWXG | S_IRWXO)) == 0) return;
  if (chmod(path.c_str(), 0600) != 0) {
    throw Failure("Can't close " + path + " to others: " + SystemError() + ".");
  }
  Warn(path + ": closed to others.");
}

void Repair(const std::string& path) {
  struct stat status = {};
  if (lstat(path.c_str(), &status) != 0) FailToOpen(path);
  if (!S_ISREG(status.st_mode)) return;
  CloseToOthers(path);
  if (IsDeviceFile(path)) return;
  // What looks damaged may be a file that another program is writing.
  FileLock lock;
  if (lock.Take(path.c_str(), (path + BACKUP_SUFFIX).c_str()) != LockResult::HELD) {
    throw Failure("Can't repair " + path + ": " + WhyNotWritten(path) + ".");
  }
  RepairContainer(path);
  RepairFromBackup(path);
}
