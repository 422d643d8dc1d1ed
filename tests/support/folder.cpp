#include "tests/support/folder.h"

#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <filesystem>
#include <fstream>
#include <sstream>

FolderTest::FolderTest() {
  // In memory where there is such a folder: every write of a device waits for stable storage.
  const char* const wish = getenv("TMPDIR");
  const char* const usual = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/var/tmp";
  folder_ = std::string(wish != nullptr ? wish : usual) + "/tests.XXXXXX";
  EXPECT_NE(mkdtemp(folder_.data()), nullptr);
  folder_ += '/';
}

FolderTest::~FolderTest() { std::filesystem::remove_all(folder_); }

void FolderTest::Write(const std::string& name, const std::string& content,
                       unsigned int mode) const {
  std::ofstream(Path(name), std::ios::binary) << content;
  ASSERT_EQ(chmod(Path(name).c_str(), mode), 0);
}

std::string ReadText(const std::string& path) {
  std::ostringstream content;
  content << std::ifstream(path, std::ios::binary).rdbuf();
  return content.str();
}

FolderTest::Folder FolderTest::List() const {
  Folder list;
  for (const auto& entry : std::filesystem::directory_iterator(folder_)) {
    struct stat status = {};
    EXPECT_EQ(lstat(entry.path().c_str(), &status), 0);
    const std::string name = entry.path().filename();
    list[name] = std::to_string(status.st_mode) + (S_ISREG(status.st_mode) ? Read(name) : "");
  }
  return list;
}

pid_t FolderTest::Fork(const std::function<void()>& body) {
  const pid_t child = fork();
  if (child != 0) return child;
  prctl(PR_SET_PDEATHSIG, SIGKILL);  // a hang is for ctest to end, however long that takes
  body();
  _exit(HasFailure() ? 1 : 0);
}

int FolderTest::WaitFor(pid_t child) {
  int status = 0;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(WEXITSTATUS(status), 0);
  return WTERMSIG(status);
}
