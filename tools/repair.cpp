// What can be put right without guessing. The digest is the judge.
#include "tools/repair.h"

#include "store/store.h"
#include "tools/files.h"
#include "tools/inspection.h"
#include "tools/report.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
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

static bool IsProven(const unsigned char* image, size_t textSize) {
  unsigned char* raw = nullptr;
  unsigned int length = 0;
  const unsigned char* text = image + HEADER_SIZE;
  if (CalculateHash(FILE_HASH_ID, text, static_cast<unsigned int>(textSize), &raw, &length) != 1) {
    throw std::bad_alloc();
  }
  const LibBytes digest(raw);
  return length == DIGEST_SIZE && memcmp(raw, text + textSize, DIGEST_SIZE) == 0;
}

// Change writes the length word and cuts the file; both are what they were where they were right.
static void Change(const std::string& path, unsigned int textSize) {
  const FileHandle file(open(path.c_str(), O_WRONLY | O_CLOEXEC | O_NOFOLLOW));
  unsigned char word[4];
  int2be(textSize, word);
  if (file.fd < 0 || pwrite(file.fd, word, sizeof word, LENGTH_OFFSET) != sizeof word ||
      ftruncate(file.fd, off_t{HEADER_SIZE} + textSize + DIGEST_SIZE) != 0 || fsync(file.fd) != 0) {
    throw Failure("Can't write " + path + ": " + SystemError() + ".");
  }
}

static void RepairContainer(const std::string& path) {
  const Bytes image = ReadInput(path);
  constexpr size_t LEAST = HEADER_SIZE + DIGEST_SIZE;
  if (image.size() < LEAST || IsDeviceFile(path)) return;
  const size_t bySize = image.size() - LEAST;
  const size_t byWord = be2int(image.data() + LENGTH_OFFSET);
  const bool wordIsWrong = IsProven(image.data(), bySize);
  const bool endIsWrong = !wordIsWrong && byWord < bySize && IsProven(image.data(), byWord);
  if (!wordIsWrong && !endIsWrong) return;
  const std::string copy = KeepCopy(path);
  Change(path, static_cast<unsigned int>(wordIsWrong ? bySize : byWord));
  Warn(path +
       (wordIsWrong ? ": the length word is put right"
                    : ": what stood behind the end is cut "
                      "off") +
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
  RepairContainer(path);
  RepairFromBackup(path);
}
