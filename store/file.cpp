// Whole files: reading, copying, and writing to stable storage without ever opening the content to
// more people than before. What the bytes mean is container.cpp's.
#include "store/store.h"

#include <errno.h>
#include <fcntl.h>

static constexpr mode_t OWNER_ONLY = S_IRUSR | S_IWUSR;
static constexpr mode_t PERMISSIONS = S_IRWXU | S_IRWXG | S_IRWXO;

Found ReadFile(const char* path, UtilBytes* data, unsigned int* length, struct stat* status) {
  if (path == nullptr) return Found::MISSING_OR_DAMAGED;
  // Look before opening: opening a pipe would wait for a writer.
  if (stat(path, status) != 0) {
    const bool missing = errno == ENOENT || errno == ENOTDIR || errno == ELOOP;
    return missing ? Found::MISSING_OR_DAMAGED : Found::UNKNOWN;
  }
  if (!S_ISREG(status->st_mode)) return Found::MISSING_OR_DAMAGED;

  const File file(fopen(path, "rbe"));
  if (!file || fstat(fileno(file.get()), status) != 0) return Found::UNKNOWN;
  if (fseek(file.get(), 0, SEEK_END) != 0) return Found::UNKNOWN;
  const long size = ftell(file.get());
  if (size < 0 || fseek(file.get(), 0, SEEK_SET) != 0) return Found::UNKNOWN;
  if (size == 0 || size > static_cast<long>(MAX_FILE_SIZE)) return Found::MISSING_OR_DAMAGED;

  const auto wanted = static_cast<size_t>(size);
  UtilBytes bytes(static_cast<unsigned char*>(vakro_malloc(wanted, "json", __LINE__)));
  if (!bytes || fread(bytes.get(), 1, wanted, file.get()) != wanted) return Found::UNKNOWN;
  *data = std::move(bytes);
  *length = static_cast<unsigned int>(wanted);
  return Found::GOOD;
}

int ReadWholeFile(const char* path, unsigned char** data, unsigned int* length) {
  UtilBytes bytes;
  unsigned int size = 0;
  struct stat status;
  if (ReadFile(path, &bytes, &size, &status) != Found::GOOD) return 0;
  *data = bytes.release();
  *length = size;
  return 1;
}

// TakeOwnerAndMode gives an open file owner, group and permissions of `like`. A group that could
// not be given gets what both the group and everybody else had.
static bool TakeOwnerAndMode(int fd, const struct stat& like) {
  constexpr auto SAME_OWNER = static_cast<uid_t>(-1);
  if (fchown(fd, like.st_uid, like.st_gid) != 0)
    static_cast<void>(fchown(fd, SAME_OWNER, like.st_gid) == 0);
  struct stat now;
  if (fstat(fd, &now) != 0) return false;
  mode_t mode = like.st_mode & PERMISSIONS;
  if (now.st_gid != like.st_gid) {
    const mode_t shared = (mode >> 3) & mode & S_IRWXO;
    mode = (mode & S_IRWXU) | shared << 3 | shared;
  }
  return fchmod(fd, mode) == 0 || (now.st_mode & PERMISSIONS & ~mode) == 0;
}

File OpenEmptied(const char* path, const struct stat* like) {
  if (path == nullptr) return nullptr;
  const Descriptor target(
      open(path, O_WRONLY | O_CREAT | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, OWNER_ONLY));
  struct stat status;
  if (target.fd < 0 || fstat(target.fd, &status) != 0 || !S_ISREG(status.st_mode)) return nullptr;
  // Closed to others before it is opened by name, and of the final mode before the first byte.
  if (like != nullptr && (status.st_mode & PERMISSIONS & ~OWNER_ONLY) != 0)
    static_cast<void>(fchmod(target.fd, OWNER_ONLY));  // TakeOwnerAndMode decides
  File file(fopen(path, "wbe"));
  if (!file) return nullptr;
  if (like != nullptr && !TakeOwnerAndMode(fileno(file.get()), *like)) return nullptr;
  return file;
}

bool WriteBytes(const File& file, const void* bytes, size_t length) {
  return fwrite(bytes, 1, length, file.get()) == length;
}

// Sync waits until the descriptor's data is on stable storage.
template <class Call>
static bool Sync(Call call, int fd) {
  int result = 0;
  do result = call(fd);
  while (result != 0 && errno == EINTR);
  return result == 0;
}

bool FlushToStorage(const File& file) {
  return fflush(file.get()) == 0 && Sync(fdatasync, fileno(file.get()));
}

bool WriteWholeFile(const char* path, const unsigned char* data, unsigned int length,
                    const struct stat* like) {
  const File file = OpenEmptied(path, like);
  return file && WriteBytes(file, data, length) && FlushToStorage(file);
}

int OpenFolderOf(const char* path) {
  const char* slash = path != nullptr ? strrchr(path, '/') : nullptr;
  char folder[PATH_MAX] = ".";
  if (slash != nullptr) {
    const auto length = static_cast<size_t>(slash - path) + 1;  // "/" itself stays
    if (length >= sizeof(folder)) {
      errno = ENAMETOOLONG;
      return -1;
    }
    memcpy(folder, path, length);
    folder[length] = '\0';
  }
  return open(folder, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
}

// SyncAll syncs a descriptor; a file system that does not sync such files is as good as it gets.
static bool SyncAll(int fd) {
  return Sync(fsync, fd) || errno == EINVAL || errno == EOPNOTSUPP || errno == ENOSYS ||
         errno == EROFS;
}

bool SyncFolder(const char* path) {
  const Descriptor folder(OpenFolderOf(path));
  return folder.fd < 0 ? errno == EACCES : SyncAll(folder.fd);
}

bool SyncFile(const char* path) {
  const Descriptor file(open(path, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  return file.fd >= 0 && SyncAll(file.fd) && SyncFolder(path);
}

int CopyFileData(const char* source, const char* destination) {
  UtilBytes data;
  unsigned int length = 0;
  struct stat status;
  if (ReadFile(source, &data, &length, &status) != Found::GOOD) return 0;
  if (!WriteWholeFile(destination, data.get(), length, &status)) return 0;
  return SyncFolder(destination) ? 1 : 0;
}
