// Input files of the commands; "-" is standard input.
#ifndef VAKRO_TOOLS_FILES_H
#define VAKRO_TOOLS_FILES_H

#include "tools/secret.h"
#include "tools/tool.h"

#include <sys/stat.h>
#include <functional>
#include <span>

using ByteSpan = std::span<const unsigned char>;

// A file descriptor for a scope. Standard streams stay open.
struct FileHandle {
  int fd;
  explicit FileHandle(int descriptor) : fd(descriptor) {}
  FileHandle(const FileHandle&) = delete;
  FileHandle& operator=(const FileHandle&) = delete;
  ~FileHandle();
};

// OpenInput opens a file for reading, and fails in words. Standard input can be taken once: a
// second reader would find nothing, and sign that. Returns a descriptor of the caller's.
int OpenInput(const std::string& path);

// DescriptorNamed returns a duplicate of the descriptor that a name like /dev/fd/3 or /dev/stdout
// stands for; -1, errno 0, for any other name. By the name it can't be opened: /proc hides the
// descriptors of a process that can't be dumped.
int DescriptorNamed(const std::string& path);

// CheckInput fails, before any work and any PIN, when the file can't be read. An
// empty path is none.
void CheckInput(const std::string& path);

// EachBlock hands the whole content of the file to `take`, block by block.
void EachBlock(const std::string& path, const std::function<void(ByteSpan)>& take);

// These read a whole file of at most 2 GiB less 1 KiB, so that its length fits the module.
Bytes ReadInput(const std::string& path);
Secret ReadSecretInput(const std::string& path);

bool SameFile(const struct stat& a, const struct stat& b);

// RemarkReadable warns of a secret file that others can read.
void RemarkReadable(int fd, const std::string& path);

std::string SystemError();                              // errno in words
[[noreturn]] void FailToOpen(const std::string& path);  // by errno

#endif
