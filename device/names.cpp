// The names in the key folder, and paths made of them.
#include "core/owners.h"
#include "device/device.h"

#include <dirent.h>
#include <errno.h>
#include <string.h>

static constexpr unsigned int LIST_STEP = 1024;  // more than the longest name and its NUL

using Folder = std::unique_ptr<DIR, Release<closedir>>;

char* GetFilePath(const char* folder, const char* name) {
  std::string_view above(folder);
  if (above.ends_with('/')) above.remove_suffix(1);
  return Join("device", {above, "/", name}).release();
}

int string_endwiths(const char* text, const char* suffix) {
  if (text == nullptr || suffix == nullptr) return 0;
  const size_t textLen = strlen(text);
  const size_t suffixLen = strlen(suffix);
  if (textLen < suffixLen) return 0;
  return memcmp(text + (textLen - suffixLen), suffix, suffixLen) == 0 ? 1 : 0;
}

int addFileName2List(char** list, unsigned int* used, unsigned int* capacity, const char* name) {
  const size_t need = strlen(name) + 1;
  if (need > LIST_STEP) return 0;
  if (need > *capacity - *used) {
    char* larger = Allocate<char>(*capacity + LIST_STEP, "device");
    if (larger == nullptr) return 0;
    memcpy(larger, *list, *used);
    vakro_free(*list);
    *list = larger;
    *capacity += LIST_STEP;
  }
  memcpy(*list + *used, name, need);
  *used += static_cast<unsigned int>(need);
  return 1;
}

namespace {
// One packed list while it grows.
struct NameList {
  char* names = Allocate<char>(LIST_STEP, "device");
  unsigned int used = 0;
  unsigned int capacity = LIST_STEP;
  NameList() = default;
  NameList(const NameList&) = delete;
  NameList& operator=(const NameList&) = delete;
  ~NameList() { FreeIfSet<vakro_free>(names); }
  bool Add(const char* name) { return addFileName2List(&names, &used, &capacity, name) == 1; }
  void HandOut(char** list, unsigned int* length) {
    *list = names;
    *length = used;
    names = nullptr;
  }
};
}  // namespace

int GetAllCertificateKeyFileName(const char* folder, char** files, unsigned int* filesLen,
                                 char** backups, unsigned int* backupsLen) {
  const Folder dir(opendir(folder));
  if (!dir) return 0;
  NameList fileList;
  NameList backupList;
  if (fileList.names == nullptr || backupList.names == nullptr) return 0;
  errno = 0;  // the end of the folder leaves it, a failed read does not
  while (const dirent* entry = readdir(dir.get())) {
    const char* name = entry->d_name;
    if (entry->d_type == DT_DIR || strcmp(name, ".") == 0 || strcmp(name, "..") == 0) continue;
    NameList& list = string_endwiths(name, BACKUP_SUFFIX) ? backupList : fileList;
    if (!list.Add(name)) return 0;
    errno = 0;
  }
  if (errno != 0) return 0;
  fileList.HandOut(files, filesLen);
  backupList.HandOut(backups, backupsLen);
  return 1;
}
