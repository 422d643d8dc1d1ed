// A folder of the test's own, in memory where there is such a place, and children of the process.
#ifndef VAKRO_TESTS_FOLDER_H
#define VAKRO_TESTS_FOLDER_H

#include <gtest/gtest.h>
#include <unistd.h>

#include <functional>
#include <map>
#include <string>

std::string ReadText(const std::string& path);  // "" when there is none

class FolderTest : public testing::Test {
 protected:
  using Folder = std::map<std::string, std::string>;  // name -> mode and content

  FolderTest();
  ~FolderTest() override;

  std::string Path(const std::string& name) const { return folder_ + name; }
  void Write(const std::string& name, const std::string& content, unsigned int mode = 0600) const;
  std::string Read(const std::string& name) const { return ReadText(Path(name)); }
  bool Exists(const std::string& name) const { return access(Path(name).c_str(), F_OK) == 0; }
  Folder List() const;

  // A child of the process that ends after `body`, and with its parent.
  static pid_t Fork(const std::function<void()>& body);
  static int WaitFor(pid_t child);  // its signal; 0 for one that has ended without failures

  std::string folder_;  // with a trailing slash
};

#endif
