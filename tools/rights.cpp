// Modes and owners of files, and of the folders above them.
#include "tools/rights.h"

#include "tools/report.h"
#include "tools/tool.h"

#include <grp.h>
#include <pwd.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>
#include <filesystem>

static bool IsForeign(const struct stat& status) {
  return status.st_uid != geteuid() && status.st_uid != 0;
}

Exposure WhoMayWrite(const std::string& path) {
  struct stat status = {};
  if (stat(path.c_str(), &status) != 0) return {};
  if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
    return {path + " can be written by others: they may swap keys and certificates",
            "chmod go-w " + path};
  }
  if (!IsForeign(status)) return {};
  return {path + " belongs to another user, who may swap keys and certificates", ""};
}

Exposure WhoMayRead(const std::string& path) {
  struct stat status = {};
  if (stat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) return {};
  if ((status.st_mode & (S_IRGRP | S_IROTH)) == 0) return {};
  return {path + " can be read by others, who may try PINs on a copy", "chmod 600 " + path};
}

// --- The folders above ---------------------------------------------------------------------------

// Many systems give each user a group of the same name, and let it write what the user makes.
static bool IsOwnGroup(gid_t number) {
  const passwd* user = getpwuid(geteuid());
  const group* own = getgrgid(number);
  return user != nullptr && own != nullptr && user->pw_gid == number && own->gr_mem[0] == nullptr &&
         strcmp(user->pw_name, own->gr_name) == 0;
}

// With an ACL the group's part of the mode speaks for others, too.
static bool HasAcl(const std::string& path) {
  return getxattr(path.c_str(), "system.posix_acl_access", nullptr, 0) > 0;
}

static Exposure WhoMayRenameIn(const std::string& folder) {
  struct stat status = {};
  if (stat(folder.c_str(), &status) != 0) return {};
  if (IsForeign(status)) {
    return {folder +
                " belongs to another user, who may put another folder in the place of the "
                "one below it",
            ""};
  }
  const bool isWritable =
      (status.st_mode & S_IWOTH) != 0 ||
      ((status.st_mode & S_IWGRP) != 0 && (!IsOwnGroup(status.st_gid) || HasAcl(folder)));
  if (!isWritable || (status.st_mode & S_ISVTX) != 0) return {};
  return {folder +
              " can be written by others: they may put another folder in the place of the "
              "one below it",
          "chmod go-w " + folder};
}

Exposure WhoMayMove(const std::string& path) {
  namespace fs = std::filesystem;
  std::error_code error;
  fs::path at = fs::absolute(path, error);
  if (!at.has_filename()) at = at.parent_path();  // it ended in a slash
  for (; at.has_relative_path(); at = at.parent_path()) {
    if (fs::is_symlink(at, error)) {
      const fs::path target = fs::canonical(at, error);
      Exposure found = target.empty() ? Exposure() : WhoMayMove(target);
      if (!found.what.empty()) return found;
    }
    Exposure found = WhoMayRenameIn(at.parent_path());
    if (!found.what.empty()) return found;
  }
  return {};
}

// --- What is made of it --------------------------------------------------------------------------

static void Refuse(const Exposure& exposure, bool looking) {
  if (exposure.what.empty()) return;
  if (looking || g_manner.unsafe) return Warn(exposure.what + ".");
  throw Failure(exposure.what + ".",
                (exposure.remedy.empty() ? "Go" : exposure.remedy + ", or go") +
                    " on all the same with --unsafe.");
}

void RefuseOpen(const std::string& path, bool looking) {
  Refuse(WhoMayWrite(path), looking);
  const Exposure read = WhoMayRead(path);
  if (!read.what.empty()) Remark(read.what + " (" + read.remedy + ").");
}

void RefuseMovable(const std::string& path, bool looking) { Refuse(WhoMayMove(path), looking); }
