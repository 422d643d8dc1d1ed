// Writing of results: beside the final name, then renamed.
#include "tools/output.h"

#include "store/change.h"
#include "tools/inspection.h"
#include "tools/report.h"
#include "tools/session.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

using FileText = std::unique_ptr<char, Release<[](void* p) { free(p); }>>;

static std::string FolderPart(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == path.npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
}

static std::string NamePart(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == path.npos ? path : path.substr(slash + 1);
}

// --- What may be written -------------------------------------------------------------------------

static void RefuseTerminal(Output kind) {
  if (kind != Output::BINARY || !isatty(STDOUT_FILENO)) return;
  throw Failure("The result is binary and standard output is a terminal.",
                "Give a file with --output FILE.");
}

// WithoutLinks follows the links of a path whose last part need not exist.
static std::string WithoutLinks(const std::string& path) {
  const FileText whole(realpath(path.c_str(), nullptr));
  if (whole) return whole.get();
  struct stat status = {};
  if (lstat(path.c_str(), &status) == 0) {
    throw Failure("Can't write " + path + ": it is a link that leads nowhere.");
  }
  const FileText folder(realpath(FolderPart(path).c_str(), nullptr));
  if (!folder) {
    throw Failure(EXIT_NOT_FOUND, "Can't write " + path + ": " + SystemError() + ".",
                  "The folder is not made for you.");
  }
  const std::string name = NamePart(path);
  if (name.empty()) throw Failure("Can't write " + path + ": it is no name of a file.");
  return std::string(folder.get()) + "/" + name;
}

static Failure InKeyFolder(const std::string& path, const std::string& folder) {
  return Failure("The output " + path + " would lie in the key folder " + folder + ".",
                 "Every file there is taken for a device; choose another folder.");
}

static void RefuseKeyFolder(const std::string& path, const std::string& place,
                            const Target& target) {
  struct stat parent = {};
  if (stat(FolderPart(place).c_str(), &parent) != 0) return;
  for (const std::string& folder : KeyFolders(target)) {
    struct stat keys = {};
    if (stat(folder.c_str(), &keys) != 0 || !SameFile(parent, keys)) continue;
    throw InKeyFolder(path, folder);
  }
}

static Failure OverInput(const std::string& path, const std::string& input) {
  return Failure(
      "The output " + path + " would replace the file " + input + " that this command reads.",
      "Choose another --output.");
}

static void RefuseInputs(const std::string& path, const struct stat& there,
                         const std::vector<std::string>& inputs) {
  for (const std::string& input : inputs) {
    struct stat status = {};
    if (input.empty() || stat(input.c_str(), &status) != 0 || !SameFile(status, there)) continue;
    if (!S_ISREG(status.st_mode)) continue;
    throw OverInput(path, input);
  }
}

// A pipe or terminal that a stranger has put there would get the secret.
static void RefuseStranger(const std::string& path, const struct stat& status, Output kind) {
  if (S_ISBLK(status.st_mode)) throw Failure("Can't write " + path + ": it is a disk.");
  if (S_ISDIR(status.st_mode)) throw Failure("Can't write " + path + ": it is a folder.");
  const bool ours = status.st_uid == geteuid() || status.st_uid == 0;
  if (kind == Output::SECRET && !ours) {
    throw Failure("Can't write " + path + ": it belongs to another user.");
  }
}

static std::vector<std::string>& ProtectedInputs() {
  static std::vector<std::string> paths;
  return paths;
}

void ProtectInput(const std::string& path) {
  if (!path.empty() && path != "-") ProtectedInputs().push_back(path);
}

OutputFile::OutputFile(const OutputOptions& options, Output what, const Target& target,
                       const std::vector<std::string>& inputs)
    : path(options.path), kind(what), force(options.force) {
  for (const std::string& input : inputs) {
    CheckInput(input);
    ProtectInput(input);
  }
  if (isStandard()) {
    RefuseTerminal(kind);
    return;
  }
  const FileHandle named(DescriptorNamed(path));
  if (named.fd >= 0) return;
  place = WithoutLinks(path);
  RefuseKeyFolder(path, place, target);
  struct stat there = {};
  if (stat(place.c_str(), &there) != 0) {
    if (access(FolderPart(place).c_str(), W_OK) != 0) {
      throw Failure("Can't write " + path + ": " + SystemError() + ".");
    }
    return;
  }
  RefuseInputs(path, there, ProtectedInputs());
  if (!S_ISREG(there.st_mode)) {
    RefuseStranger(path, there, kind);
    return;
  }
  if (IsDeviceFile(place)) {
    throw Failure("The output " + path + " is a device file; it would be lost.",
                  "Choose another --output.");
  }
  if (!force) {
    throw Failure(EXIT_EXISTS, path + " exists already.", "--force replaces it.");
  }
  if (access(FolderPart(place).c_str(), W_OK) != 0) {
    throw Failure("Can't write " + path + ": its folder can't be written: " + SystemError() + ".");
  }
}

// --- Writing -------------------------------------------------------------------------------------

static bool WriteAll(int fd, ByteSpan bytes) {
  while (!bytes.empty()) {
    const ssize_t count = write(fd, bytes.data(), bytes.size());
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return false;
    bytes = bytes.subspan(static_cast<size_t>(count));
  }
  return true;
}

static void WriteStandardOutput(ByteSpan bytes, Output kind) {
  RefuseTerminal(kind);
  const std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  if (isatty(STDOUT_FILENO) != 0 && !IsPrintableText(text)) {
    throw Failure("The result is no text and standard output is a terminal.",
                  "Give a file with --output FILE.");
  }
  if (fflush(stdout) == 0 && WriteAll(STDOUT_FILENO, bytes)) return;
  throw Failure("Can't write to standard output: " + SystemError() + ".");
}

namespace {
// Signals wait while a scope lasts, so that no half-written file is left beside the output.
struct SignalsHeld {
  sigset_t before = {};
  SignalsHeld() {
    sigset_t held;
    sigemptyset(&held);
    for (int number : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGTSTP}) sigaddset(&held, number);
    sigprocmask(SIG_BLOCK, &held, &before);
  }
  SignalsHeld(const SignalsHeld&) = delete;
  SignalsHeld& operator=(const SignalsHeld&) = delete;
  ~SignalsHeld() { sigprocmask(SIG_SETMASK, &before, nullptr); }
};
}  // namespace

// The name without a file behind it is taken in one step, so that no file that appears meanwhile
// is lost; a file system without that step gets a second name first.
static bool PutInPlace(const std::string& from, const std::string& to, bool replace) {
  if (replace) return rename(from.c_str(), to.c_str()) == 0;
  if (renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) return true;
  if (errno != EINVAL && errno != ENOSYS) return false;
  if (link(from.c_str(), to.c_str()) != 0) return false;
  unlink(from.c_str());
  return true;
}

// The file's own rights stay when it is replaced, but for a secret, which is the owner's alone.
static mode_t ModeFor(const OutputFile& output) {
  struct stat there = {};
  if (output.kind == Output::SECRET) return 0600;
  if (stat(output.place.c_str(), &there) == 0) return there.st_mode & 0777;
  const mode_t mask = umask(0);
  umask(mask);
  return 0666 & ~mask;
}

static void WriteBeside(const OutputFile& output, ByteSpan bytes) {
  const SignalsHeld held;
  std::string beside = FolderPart(output.place) + "/.softdevice-XXXXXX";
  const FileHandle file(mkostemp(beside.data(), O_CLOEXEC));
  if (file.fd < 0) throw Failure("Can't write " + output.path + ": " + SystemError() + ".");
  if (WriteAll(file.fd, bytes) && fchmod(file.fd, ModeFor(output)) == 0 && fsync(file.fd) == 0 &&
      PutInPlace(beside, output.place, output.force)) {
    SyncFolder(output.place.c_str());
    return;
  }
  const int cause = errno;
  unlink(beside.c_str());
  errno = cause;
  if (cause == EEXIST) {
    throw Failure(EXIT_EXISTS, output.path + " has appeared meanwhile.", "--force replaces it.");
  }
  throw Failure("Can't write " + output.path + ": " + SystemError() + ".");
}

static void WriteStraight(const OutputFile& output, ByteSpan bytes) {
  int fd = DescriptorNamed(output.path);
  if (fd < 0) fd = open(output.place.c_str(), O_WRONLY | O_CLOEXEC | O_NOCTTY);
  const FileHandle file(fd);
  struct stat status = {};
  if (fd < 0 || fstat(fd, &status) != 0 || !WriteAll(fd, bytes)) {
    throw Failure("Can't write " + output.path + ": " + SystemError() + ".");
  }
}

void OutputFile::Write(ByteSpan bytes) const {
  if (isStandard()) return WriteStandardOutput(bytes, kind);
  struct stat there = {};
  const bool special =
      place.empty() || (stat(place.c_str(), &there) == 0 && !S_ISREG(there.st_mode));
  if (special) {
    if (!place.empty()) RefuseStranger(path, there, kind);
    return WriteStraight(*this, bytes);
  }
  WriteBeside(*this, bytes);
}

void OutputFile::Write(const std::string& text) const {
  Write({reinterpret_cast<const unsigned char*>(text.data()), text.size()});
}
