// Drives the built softdevice program as a user does: the sessions of data/softdevice.txt.
#include <gtest/gtest.h>

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
struct Answer {
  std::string text;
  bool echo;
};

struct Step {
  std::string line;
  int status = 0;
  std::vector<std::string> says = {};  // parts of the output
  std::vector<Answer> answers = {};    // typed on the terminal
};

struct Session {
  std::string title;
  std::vector<std::string> items = {};
  std::vector<Step> steps = {};
  friend void PrintTo(const Session& s, std::ostream* out) { *out << s.title; }
};

std::vector<Session> ReadSessions() {
  std::ifstream file(TEST_DATA_DIR "/softdevice.txt");
  if (!file) abort();
  std::vector<Session> all;
  for (std::string mark, text; file >> mark && std::getline(file >> std::ws, text);) {
    if (mark == "==") all.push_back({text});
    if (mark == "*") all.back().items.push_back(text);
    if (mark == "$") all.back().steps.push_back({text});
    if (mark == "?") all.back().steps.back().status = std::stoi(text);
    if (mark == ">") all.back().steps.back().says.push_back(text);
    if (mark[0] == '<') all.back().steps.back().answers.push_back({text, mark == "<+"});
  }
  return all;
}

const std::vector<Session> SESSIONS = ReadSessions();

// Waits until the program that asks has turned the echo off, or left it on: the prompt comes first.
bool AwaitEcho(int terminal, bool on) {
  termios mode = {};
  for (int tries = 0; tries < 10000; tries++, usleep(1000))
    if (tcgetattr(terminal, &mode) == 0 && ((mode.c_lflag & ECHO) != 0) == on) return true;
  return false;
}

// Takes a step in a shell on a terminal of its own.
void Take(const Step& step) {
  SCOPED_TRACE(step.line);
  int terminal = -1;
  const pid_t child = forkpty(&terminal, nullptr, nullptr, nullptr);
  if (child == 0) {
    execl("/bin/sh", "sh", "-c", step.line.c_str(), nullptr);
    _exit(127);
  }
  std::string said;
  auto next = step.answers.begin();
  char bytes[256];
  for (ssize_t count = 0; (count = read(terminal, bytes, sizeof bytes)) > 0;) {
    said.append(bytes, static_cast<size_t>(count));
    if (!said.ends_with(": ") || next == step.answers.end()) continue;
    EXPECT_TRUE(AwaitEcho(terminal, next->echo)) << said;
    EXPECT_GT(dprintf(terminal, "%s\n", next->text.c_str()), 0);
    ++next;
  }
  int status = 0;
  waitpid(child, &status, 0);
  close(terminal);
  EXPECT_EQ(status, W_EXITCODE(step.status, 0)) << said;
  EXPECT_TRUE(next == step.answers.end()) << said;
  for (const std::string& text : step.says)
    EXPECT_NE(said.find(text), std::string::npos) << text << " is not in\n" << said;
  for (const auto& [secret, echo] : step.answers)
    EXPECT_TRUE(echo || said.find(secret) == std::string::npos) << said;
}

void Play(const std::vector<Step>& steps, const std::string& item) {
  SCOPED_TRACE(item);
  std::string scratch = fs::temp_directory_path() / "softdevice.XXXXXX";
  ASSERT_NE(mkdtemp(scratch.data()), nullptr);
  const fs::path before = fs::current_path();
  fs::current_path(scratch);
  setenv("PATH", (std::string(SOFTDEVICE_DIR) + ":" + getenv("PATH")).c_str(), 1);
  setenv("IT", item.c_str(), 1);
  setenv("DEV", "--folder keys", 1);
  setenv("KEY", "--folder keys --pin-file pin", 1);
  setenv("ID", "-pkeyopt distid:1234567812345678", 1);
  for (const Step& step : SESSIONS[0].steps) Take(step);
  for (const Step& step : steps) Take(step);
  fs::current_path(before);
  fs::remove_all(scratch);
}
}  // namespace

class Softdevice : public testing::TestWithParam<Session> {};

TEST_P(Softdevice, Session) {
  const auto& [title, items, steps] = GetParam();
  if (items.empty()) Play(steps, "");
  for (const std::string& item : items) Play(steps, item);
}

INSTANTIATE_TEST_SUITE_P(, Softdevice, testing::ValuesIn(SESSIONS.begin() + 1, SESSIONS.end()),
                         [](const auto& tested) {
                           std::string name = tested.param.title;
                           for (char& c : name)
                             c = isalnum(static_cast<unsigned char>(c)) ? c : '_';
                           return name;
                         });
