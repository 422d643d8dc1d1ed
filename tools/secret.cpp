// PINs and passphrases from a file, a descriptor, the environment or the terminal.
#include "tools/secret.h"

#include "tools/output.h"
#include "tools/pin_strength.h"
#include "tools/report.h"
#include "tools/terminal.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>
#include <algorithm>

static constexpr char BYTE_ORDER_MARK[] = "\xef\xbb\xbf";  // some editors put it before the text

// CheckLine makes a secret of one line, without what ends it.
static SecretText CheckLine(SecretText line, const std::string& what) {
  if (!line.empty() && line.back() == '\r') line.pop_back();
  const std::string_view text(line.data(), line.size());
  if (text.starts_with(BYTE_ORDER_MARK)) line.erase(line.begin(), line.begin() + 3);
  if (text.starts_with("\xff\xfe") || text.starts_with("\xfe\xff")) {
    throw Failure("The " + what + " stands in UTF-16.", "Save the file as UTF-8 or plain ASCII.");
  }
  if (line.size() > SECRET_MAX || std::find(line.begin(), line.end(), '\0') != line.end()) {
    throw Failure("The " + what + " is too long or holds a NUL.",
                  "At most " + std::to_string(SECRET_MAX) + " characters are taken.");
  }
  line.push_back('\0');
  return line;
}

// Byte by byte: nothing behind the line is taken, and nothing but the line is waited for.
static SecretText FirstLine(int fd, const std::string& path, const std::string& what) {
  SecretText line;
  line.reserve(SECRET_MAX + sizeof BYTE_ORDER_MARK + 2);
  char c = 0;
  while (line.size() < line.capacity()) {
    const ssize_t count = read(fd, &c, 1);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) throw Failure("Can't read " + path + ": " + SystemError() + ".");
    if (count == 0 || c == '\n') break;
    line.push_back(c);
  }
  OPENSSL_cleanse(&c, sizeof c);
  return CheckLine(std::move(line), what);
}

static SecretText FromFile(const std::string& path, const std::string& what) {
  const FileHandle file(OpenInput(path));
  RemarkReadable(file.fd, path);
  return FirstLine(file.fd, path, what);
}

static SecretText FromDescriptor(int fd, const std::string& what) {
  if (fcntl(fd, F_GETFD) < 0) {
    throw Failure("Descriptor " + std::to_string(fd) + ", for the " + what + ", is not open.");
  }
  return FirstLine(fd, "descriptor " + std::to_string(fd), what);
}

static SecretText FromEnvironment(const std::string& name, const std::string& what) {
  char* value = getenv(name.c_str());
  if (value == nullptr) {
    throw Failure("The environment variable " + name + ", for the " + what + ", is not set.",
                  "Is it exported?");
  }
  SecretText text(value, value + strlen(value));
  OPENSSL_cleanse(value, strlen(value));  // /proc shows the environment to who may look
  setenv(name.c_str(), "", 1);
  return CheckLine(std::move(text), what);
}

static SecretText AskSecret(const std::string& prompt) {
  return Ask(prompt + ": ", true,
             "--help names the options that take it from a file or the environment.");
}

static SecretText FromElsewhere(const SecretSource& source, const std::string& what) {
  if (!source.file.empty()) return FromFile(source.file, what);
  if (!source.env.empty()) return FromEnvironment(source.env, what);
  return FromDescriptor(source.fd, what);
}

SecretText ReadSecret(const SecretSource& source, const std::string& what) {
  if (source.isTerminal()) return AskSecret(what);
  SecretText secret = FromElsewhere(source, what);
  if (secret.size() == 1) Remark("The " + what + " that was given is empty.");
  return secret;
}

SecretText ReadNewPin(const SecretSource& source, const std::string& what) {
  SecretText pin = ReadSecret(source, what);
  if (pin.size() == 1) throw Failure("An empty PIN would protect nothing.", "Choose another.");
  if (source.isTerminal() && AskSecret("Once more, to be sure") != pin) {
    throw Failure("The two entries differ; nothing was changed.", "Please try again.");
  }
  const std::string weakness = PinWeakness(pin);
  if (!weakness.empty()) Remark(weakness);
  return pin;
}
