// Prompts, and the signals that may come meanwhile.
#include "tools/terminal.h"

#include "tools/files.h"
#include "tools/text.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <string.h>
#include <termios.h>
#include <unistd.h>
#include <algorithm>

static constexpr int CAUGHT[] = {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGTSTP, SIGALRM};

static volatile sig_atomic_t g_signal = 0;
static void NoteSignal(int number) { g_signal = number; }

namespace {
// While it lives the signals that would end or stop the process are noted instead, and come only
// inside ppoll with the mask of before.
struct SignalsNoted {
  sigset_t before = {};
  struct sigaction actions[std::size(CAUGHT)] = {};
  SignalsNoted() {
    g_signal = 0;
    sigset_t noted;
    sigemptyset(&noted);
    for (int number : CAUGHT) sigaddset(&noted, number);
    sigprocmask(SIG_BLOCK, &noted, &before);
    struct sigaction note = {};
    note.sa_handler = NoteSignal;
    for (size_t i = 0; i < std::size(CAUGHT); i++) {
      sigaction(CAUGHT[i], nullptr, &actions[i]);
      if (actions[i].sa_handler != SIG_IGN) sigaction(CAUGHT[i], &note, nullptr);
    }
  }
  SignalsNoted(const SignalsNoted&) = delete;
  SignalsNoted& operator=(const SignalsNoted&) = delete;
  ~SignalsNoted() {
    for (size_t i = 0; i < std::size(CAUGHT); i++) sigaction(CAUGHT[i], &actions[i], nullptr);
    sigprocmask(SIG_SETMASK, &before, nullptr);
  }
};
}  // namespace

namespace {
// No echo for a scope; what was typed ahead is dropped.
struct EchoOff {
  const int fd;
  termios before = {};
  explicit EchoOff(int terminal) : fd(terminal) {
    if (fd < 0 || tcgetattr(fd, &before) != 0) return;
    termios silent = before;
    silent.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    silent.c_lflag |= ECHONL | ICANON | ISIG;
    tcsetattr(fd, TCSAFLUSH, &silent);
  }
  EchoOff(const EchoOff&) = delete;
  EchoOff& operator=(const EchoOff&) = delete;
  ~EchoOff() {
    if (fd >= 0) tcsetattr(fd, TCSAFLUSH, &before);
  }
};
}  // namespace

bool HasTerminal() { return FileHandle(open("/dev/tty", O_RDWR | O_CLOEXEC | O_NOCTTY)).fd >= 0; }

namespace {
enum class Line { READ, ENDED, TOO_LONG, SIGNALLED };
}  // namespace

// ReadLine takes one line, which an ended input ends too.
static Line ReadLine(int fd, const sigset_t& mask, SecretText& text) {
  for (bool tooLong = false;;) {
    pollfd ready = {.fd = fd, .events = POLLIN, .revents = 0};
    if (ppoll(&ready, 1, nullptr, &mask) < 0 && errno != EINTR) return Line::ENDED;
    if (g_signal != 0) return Line::SIGNALLED;
    char c = 0;
    const ssize_t count = ready.revents == 0 ? -1 : read(fd, &c, 1);
    if (count < 0 && (ready.revents == 0 || errno == EINTR)) continue;
    if (count <= 0) return Line::ENDED;
    if (c == '\n') return tooLong ? Line::TOO_LONG : Line::READ;
    tooLong = tooLong || text.size() >= SECRET_MAX;
    if (!tooLong) text.push_back(c);
  }
}

// One prompt and its answer, with the terminal and the signals as they were when it returns.
static Line PromptOnce(int fd, const std::string& prompt, bool secret, SecretText& text) {
  const SignalsNoted signals;
  const EchoOff silence(secret ? fd : -1);
  if (write(fd, prompt.data(), prompt.size()) < 0) return Line::ENDED;
  return ReadLine(fd, signals.before, text);
}

SecretText Ask(const std::string& prompt, bool secret, const std::string& advice) {
  const FileHandle terminal(open("/dev/tty", O_RDWR | O_CLOEXEC | O_NOCTTY));
  if (terminal.fd < 0) throw Failure("There is no terminal to ask on.", advice);
  for (;;) {
    SecretText text;
    text.reserve(SECRET_MAX + 1);
    switch (PromptOnce(terminal.fd, Printable(prompt), secret, text)) {
      case Line::READ:
        text.push_back('\0');
        return text;
      case Line::TOO_LONG:
        throw Failure("More than " + std::to_string(SECRET_MAX) + " characters were typed.");
      case Line::SIGNALLED:
        OPENSSL_cleanse(text.data(), text.size());
        raise(g_signal);  // ends the process, or stops it: then the question comes anew
        continue;
      default:
        throw Failure("Nothing was read from the terminal.");
    }
  }
}

void RequireYes(bool yes, const std::string& what, const std::string& done) {
  if (yes) return;
  const SecretText answer =
      Ask(what + " Go on? Type yes: ", false, "--yes goes on without asking.");
  if (Lower(answer.data()) != "yes") throw Failure("Nothing was " + done + ".");
}
