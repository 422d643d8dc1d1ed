// Drives the built softdevice program as a user does: the sessions of data/softdevice.txt.
#include <gtest/gtest.h>

#include <poll.h>
#include <pty.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace fs = std::filesystem;

namespace {

struct Step {
  std::string line;
  int status = 0;
  std::vector<std::string> says = {};     // parts of the output
  std::vector<std::string> answers = {};  // typed on the terminal; with a '+', under echo
};

struct Session {
  std::string title, item;
  std::vector<Step> steps;
  friend void PrintTo(const Session& s, std::ostream* out) { *out << s.title << ' ' << s.item; }
};

// A session for each item of its heading.
std::vector<Session> ReadSessions() {
  std::ifstream file(TEST_DATA_DIR "/softdevice.txt");
  if (!file) abort();
  std::vector<Session> all;
  size_t first = 0;  // of the heading
  for (std::string line; std::getline(file, line);) {
    const std::string rest = line.substr(std::min<size_t>(line.find(' '), line.size() - 1) + 1);
    if (line.starts_with("== ")) {
      first = all.size();
      const std::string title = rest.substr(0, rest.find(':'));
      std::string items = rest.substr(std::min(title.size() + 1, rest.size()));
      for (size_t bar = 0; bar != std::string::npos; items.erase(0, bar + 1)) {
        bar = items.find('|');
        all.push_back({title, items.substr(0, bar), {}});
      }
    }
    for (size_t i = first; i < all.size(); i++) {
      std::vector<Step>& steps = all[i].steps;
      if (line.starts_with("$ ")) steps.push_back({rest});
      if (line.starts_with("? ")) steps.back().status = std::stoi(rest);
      if (line.starts_with("  ")) steps.back().says.push_back(line.substr(2));
      if (line.starts_with("< ")) steps.back().answers.push_back(rest);
      if (line.starts_with("<+ ")) steps.back().answers.push_back('+' + rest);
    }
  }
  return all;
}

}  // namespace

// Takes a step in a shell on a terminal of its own and gives each answer when the program has
// turned the echo off, or has left it on where the answer needs that.
static void Take(const Step& step) {
  SCOPED_TRACE(step.line);
  int terminal = -1;
  const pid_t child = forkpty(&terminal, nullptr, nullptr, nullptr);
  if (child == 0) {
    execl("/bin/sh", "sh", "-c", step.line.c_str(), nullptr);
    _exit(127);
  }
  std::string said;
  auto next = step.answers.begin();
  bool asked = false;  // a prompt has come since the last answer
  for (;;) {
    pollfd ready = {terminal, POLLIN, 0};
    if (poll(&ready, 1, 20) > 0) {
      char bytes[256];
      const ssize_t count = read(terminal, bytes, sizeof bytes);
      if (count <= 0) break;  // the program has ended
      said.append(bytes, static_cast<size_t>(count));
      asked = said.ends_with(": ");
    }
    termios mode = {};
    if (!asked || next == step.answers.end() || tcgetattr(terminal, &mode) != 0) continue;
    const bool echo = next->starts_with('+');
    if (((mode.c_lflag & ECHO) != 0) != echo) continue;
    const std::string text = next->substr(echo ? 1 : 0) + "\n";
    EXPECT_EQ(write(terminal, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    asked = false;
    ++next;
  }
  int status = 0;
  waitpid(child, &status, 0);
  close(terminal);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == step.status) << status << '\n' << said;
  EXPECT_TRUE(next == step.answers.end()) << said;
  for (const std::string& text : step.says)
    EXPECT_NE(said.find(text), std::string::npos) << text << " is not in\n" << said;
  for (const std::string& secret : step.answers)
    EXPECT_TRUE(secret[0] == '+' || said.find(secret) == std::string::npos) << said;
}

class Softdevice : public testing::TestWithParam<Session> {};

TEST_P(Softdevice, Session) {
  std::string scratch = (fs::temp_directory_path() / "softdevice.XXXXXX").string();
  ASSERT_NE(mkdtemp(scratch.data()), nullptr);
  const fs::path before = fs::current_path();
  fs::current_path(scratch);
  std::ofstream("pin") << "right pin\n";
  std::ofstream("wrong") << "wrong pin\n";
  std::ofstream("pass") << "open sesame\n";
  std::ofstream("msg") << "the message\n";
  setenv("PATH", (std::string(SOFTDEVICE_DIR) + ":" + getenv("PATH")).c_str(), 1);
  setenv("IT", GetParam().item.c_str(), 1);
  setenv("DEV", "--folder keys", 1);
  setenv("KEY", "--folder keys --pin-file pin", 1);
  setenv("ID", "-pkeyopt distid:1234567812345678", 1);
  Take({"softdevice create $DEV --label Demo --serial 0001"});
  for (const Step& step : GetParam().steps) Take(step);
  fs::current_path(before);
  fs::remove_all(scratch);
}

INSTANTIATE_TEST_SUITE_P(, Softdevice, testing::ValuesIn(ReadSessions()), [](const auto& tested) {
  std::string name = tested.param.title + tested.param.item;
  for (char& c : name) c = isalnum(static_cast<unsigned char>(c)) ? c : '_';
  return name;
});
