// Reading of the files that a command is given.
#include "tools/files.h"

#include "tools/report.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>
#include <utility>

static constexpr size_t BLOCK_SIZE = 65536;
static constexpr size_t INPUT_MAX = INT_MAX - 1024;

FileHandle::~FileHandle() {
  if (fd > STDERR_FILENO) close(fd);
}

std::string SystemError() { return strerror(errno); }

void FailToOpen(const std::string& path) {
  throw Failure(errno == ENOENT || errno == ENOTDIR ? EXIT_NOT_FOUND : EXIT_FAILED,
                "Can't open " + path + ": " + SystemError() + ".");
}

int DescriptorNamed(const std::string& path) {
  int number = -1;
  for (const std::string folder : {"/dev/fd/", "/proc/self/fd/"}) {
    const std::string rest = path.starts_with(folder) ? path.substr(folder.size()) : "";
    if (rest.empty() || rest.size() > 6 || rest.find_first_not_of("0123456789") != rest.npos) {
      continue;
    }
    number = static_cast<int>(strtol(rest.c_str(), nullptr, 10));
  }
  if (path == "/dev/stdin") number = STDIN_FILENO;
  if (path == "/dev/stdout") number = STDOUT_FILENO;
  if (path == "/dev/stderr") number = STDERR_FILENO;
  errno = 0;
  return number < 0 ? -1 : fcntl(number, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
}

int OpenInput(const std::string& path) {
  static bool isInputTaken = false;
  if (path == "-") {
    if (std::exchange(isInputTaken, true)) {
      throw Failure("Standard input has been read already.",
                    "Only one of the files can be -, a PIN file included.");
    }
    return STDIN_FILENO;
  }
  int fd = DescriptorNamed(path);
  if (fd < 0 && errno == 0) fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY);
  if (fd < 0) FailToOpen(path);
  struct stat status = {};
  if (fstat(fd, &status) == 0 && S_ISDIR(status.st_mode)) {
    close(fd);
    throw Failure(path + " is a folder, not a file.");
  }
  return fd;
}

void CheckInput(const std::string& path) {
  if (path.empty() || path == "-" || path.starts_with("/dev/fd/") ||
      path.starts_with("/proc/self/fd/"))
    return;
  struct stat status = {};
  if (stat(path.c_str(), &status) != 0 || access(path.c_str(), R_OK) != 0) FailToOpen(path);
  if (S_ISDIR(status.st_mode)) throw Failure(path + " is a folder, not a file.");
}

void EachBlock(const std::string& path, const std::function<void(ByteSpan)>& take) {
  const FileHandle file(OpenInput(path));
  Secret block(BLOCK_SIZE);
  for (;;) {
    const ssize_t count = read(file.fd, block.data(), block.size());
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) throw Failure("Can't read " + path + ": " + SystemError() + ".");
    if (count == 0) return;
    take({block.data(), static_cast<size_t>(count)});
  }
}

template <class Container>
static Container ReadAll(const std::string& path) {
  const Failure tooLarge(path + " is larger than 2 GiB.");
  struct stat status = {};  // of a pipe the size shows when it has been read
  if (stat(path.c_str(), &status) == 0 && status.st_size > off_t{INPUT_MAX}) throw tooLarge;
  Container all;
  EachBlock(path, [&](ByteSpan block) {
    if (block.size() > INPUT_MAX - all.size()) throw tooLarge;
    all.insert(all.end(), block.begin(), block.end());
  });
  return all;
}

Bytes ReadInput(const std::string& path) { return ReadAll<Bytes>(path); }
Secret ReadSecretInput(const std::string& path) { return ReadAll<Secret>(path); }

bool SameFile(const struct stat& a, const struct stat& b) {
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

void RemarkReadable(int fd, const std::string& path) {
  struct stat status = {};
  if (fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) return;
  if ((status.st_mode & (S_IRWXG | S_IRWXO)) == 0) return;
  Remark(path + " can be read by others (chmod 600 " + path + ").");
}
