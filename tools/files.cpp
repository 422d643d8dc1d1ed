// Reading and writing of the files that a command is given.
#include "tools/files.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>
#include <filesystem>
#include <utility>

static constexpr size_t BLOCK_SIZE = 65536;
static constexpr size_t INPUT_MAX = INT_MAX - 1024;

struct Descriptor {
  int fd;
  explicit Descriptor(int opened) : fd(opened) {}
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  ~Descriptor() {
    if (fd > STDERR_FILENO) close(fd);
  }
};

std::string SystemError() { return strerror(errno); }

void EachBlock(const std::string& path, const std::function<void(ByteSpan)>& take) {
  static bool isInputTaken = false;
  if (path == "-" && std::exchange(isInputTaken, true)) {
    throw Failure("Standard input has been read already.",
                  "Only one of the files can be -, a PIN file included.");
  }
  const Descriptor file(path == "-" ? STDIN_FILENO : open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (file.fd < 0) throw Failure("Can't open " + path + ": " + SystemError() + ".");
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

static bool WriteAll(int fd, ByteSpan bytes) {
  while (!bytes.empty()) {
    const ssize_t count = write(fd, bytes.data(), bytes.size());
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return false;
    bytes = bytes.subspan(static_cast<size_t>(count));
  }
  return true;
}

static void RefuseTerminal(Output kind) {
  if (kind != Output::BINARY || !isatty(STDOUT_FILENO)) return;
  throw Failure("The result is binary and standard output is a terminal.",
                "Give a file with --output FILE.");
}

static void WriteStandardOutput(ByteSpan bytes, Output kind) {
  RefuseTerminal(kind);
  if (WriteAll(STDOUT_FILENO, bytes)) return;
  throw Failure("Can't write to standard output: " + SystemError() + ".");
}

void WriteOutput(const std::string& path, ByteSpan bytes, Output kind) {
  if (path == "-") return WriteStandardOutput(bytes, kind);
  const mode_t mode = kind == Output::SECRET ? 0600 : 0666;
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
  if (fd < 0) throw Failure("Can't write " + path + ": " + SystemError() + ".");
  const bool written = WriteAll(fd, bytes);
  if (close(fd) == 0 && written) return;
  const std::string cause = SystemError();
  struct stat status = {};
  if (stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode)) unlink(path.c_str());
  throw Failure("Can't write " + path + ": " + cause + ".");
}

void WriteText(const std::string& path, const std::string& text) {
  WriteOutput(path, {reinterpret_cast<const unsigned char*>(text.data()), text.size()},
              Output::TEXT);
}

void CheckFiles(const std::string& input, const std::string& output, Output kind) {
  if (input != "-" && access(input.c_str(), R_OK) != 0) {
    throw Failure("Can't open " + input + ": " + SystemError() + ".");
  }
  if (output == "-") return RefuseTerminal(kind);
  std::error_code none;
  if (input == "-" || !std::filesystem::equivalent(input, output, none)) return;
  throw Failure("The output " + output + " would replace the input.", "Choose another --output.");
}

bool HasTerminal() { return Descriptor(open("/dev/tty", O_RDWR | O_CLOEXEC | O_NOCTTY)).fd >= 0; }

std::string Printable(std::string text) {
  for (char& c : text) {
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) c = '?';
  }
  return text;
}
