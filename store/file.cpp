// Whole files: reading, copying, and writing to stable storage without ever opening the content to
// more people than before. What the bytes mean is container.cpp's.
#include "store/inside.h"

#include <errno.h>
#include <fcntl.h>

static constexpr mode_t OWNER_ONLY = S_IRUSR | S_IWUSR;
static constexpr mode_t PERMISSIONS = S_IRWXU | S_IRWXG | S_IRWXO;

// What the failure to look at or open a file says of it.
static ReadResult WhyNoFile() {
  const bool missing = errno == ENOENT || errno == ENOTDIR || errno == ELOOP;
  return missing ? ReadResult::BAD : ReadResult::UNKNOWN;
}

ReadResult OpenRegularFile(const char* path, File* file, struct stat* status) {
  if (path == nullptr) return ReadResult::BAD;
  // Look before opening: that alone can do something to what is not a file.
  if (stat(path, status) != 0) return WhyNoFile();
  if (!S_ISREG(status->st_mode)) return ReadResult::BAD;
  // Without O_NONBLOCK a pipe that has taken the file's place since would be waited for.
  const int fd = open(path, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
  if (fd < 0) return WhyNoFile();
  file->reset(fdopen(fd, "rb"));
  if (!*file) close(fd);
  if (!*file || fstat(fd, status) != 0) return ReadResult::UNKNOWN;
  if (!S_ISREG(status->st_mode)) return ReadResult::BAD;
  return ReadResult::GOOD;
}

ReadResult ReadBytes(const File& file, void* bytes, size_t length) {
  if (fread(bytes, 1, length, file.get()) == length) return ReadResult::GOOD;
  // Somebody who rewrites the file has emptied it since its size was taken.
  return feof(file.get()) != 0 ? ReadResult::BAD : ReadResult::UNKNOWN;
}

ReadResult ReadFile(const char* path, FileImage* image) {
  File file;
  const ReadResult opened = OpenRegularFile(path, &file, &image->status);
  if (opened != ReadResult::GOOD) return opened;
  const off_t size = image->status.st_size;
  if (size == 0 || size > off_t{MAX_FILE_SIZE}) return ReadResult::BAD;
  image->size = static_cast<unsigned int>(size);
  image->bytes.reset(static_cast<unsigned char*>(vakro_malloc(image->size, "json", __LINE__)));
  if (!image->bytes) return ReadResult::UNKNOWN;
  return ReadBytes(file, image->bytes.get(), image->size);
}

int ReadWholeFile(const char* path, unsigned char** data, unsigned int* length) {
  FileImage image;
  if (ReadFile(path, &image) != ReadResult::GOOD) return 0;
  *data = image.bytes.release();
  *length = image.size;
  return 1;
}

bool TakeOwnerAndMode(int fd, const struct stat& like) {
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

// OpenTarget opens a regular file for writing, of the final owner and mode before it is emptied.
// Without `like` a file that exists keeps its own.
static File OpenTarget(const char* path, int flags, const struct stat* like) {
  if (path == nullptr) return nullptr;
  const int fd =
      open(path, O_WRONLY | O_CREAT | O_NONBLOCK | O_NOCTTY | O_CLOEXEC | flags, OWNER_ONLY);
  if (fd < 0) return nullptr;
  File file(fdopen(fd, "wb"));
  if (!file) close(fd);
  struct stat status;
  if (!file || fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) return nullptr;
  if (like != nullptr && !TakeOwnerAndMode(fd, *like)) return nullptr;
  if (status.st_size != 0 && ftruncate(fd, 0) != 0) return nullptr;
  return file;
}

File OpenEmptied(const char* path, const struct stat* like) { return OpenTarget(path, 0, like); }

// Nothing that has the name is written to, be it a link to another file or a file with other names.
File OpenFresh(const char* path, const struct stat* like) {
  struct stat status;
  if (path == nullptr) return nullptr;
  if (lstat(path, &status) == 0 && (S_ISDIR(status.st_mode) || remove(path) != 0)) return nullptr;
  return OpenTarget(path, O_EXCL, like);
}

bool WriteBytes(const File& file, const void* bytes, size_t length) {
  return fwrite(bytes, 1, length, file.get()) == length;
}

// Sync waits until what the descriptor stands for is on stable storage. Where the file system has
// no way to sync it nothing more can be done.
template <class Call>
static bool Sync(Call call, int fd) {
  int result = 0;
  do result = call(fd);
  while (result != 0 && errno == EINTR);
  return result == 0 || errno == EINVAL || errno == EOPNOTSUPP || errno == ENOSYS;
}

bool FlushToStorage(const File& file) {
  return fflush(file.get()) == 0 && Sync(fdatasync, fileno(file.get()));
}

bool WriteOut(const File& file, const unsigned char* data, unsigned int length) {
  return file && WriteBytes(file, data, length) && FlushToStorage(file);
}

static bool FolderOf(const char* path, char (&folder)[PATH_MAX]) {
  const char* slash = path != nullptr ? strrchr(path, '/') : nullptr;
  const size_t length = slash != nullptr ? static_cast<size_t>(slash - path) + 1 : 0;
  if (length >= sizeof(folder)) {
    errno = ENAMETOOLONG;
    return false;
  }
  memcpy(folder, length > 0 ? path : ".", length > 0 ? length : 1);  // "/" itself stays
  folder[length > 0 ? length : 1] = '\0';
  return true;
}

int OpenFolderOf(const char* path) {
  char folder[PATH_MAX];
  return FolderOf(path, folder) ? open(folder, O_RDONLY | O_DIRECTORY | O_CLOEXEC) : -1;
}

// Of what this process has not just written, a read-only file system need not be told.
static bool SyncAll(int fd) { return Sync(fsync, fd) || errno == EROFS; }

bool SyncFolder(const char* path) {
  const Descriptor folder(OpenFolderOf(path));
  return folder.fd < 0 ? errno == EACCES : SyncAll(folder.fd);
}

bool SyncFile(const char* path) {
  const Descriptor file(open(path, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  return file.fd >= 0 && SyncAll(file.fd) && SyncFolder(path);
}

// What linking a nameless file can't do here is tried in the plain way. EACCES is the answer of
// /proc to a process that lets no other look into it.
static bool NeedsPlainWay(int cause) {
  return cause == EACCES || cause == EOPNOTSUPP || cause == EISDIR || cause == ENOENT ||
         cause == EPERM || cause == EINVAL || cause == ENOSYS;
}

// WriteNameless gives the file its name when it is complete. 0 when it must be tried in the plain
// way: the file system, or a /proc that is missing or shut, does not allow it.
static int WriteNameless(const char* path, const FileImage& image) {
  char folder[PATH_MAX];
  if (!FolderOf(path, folder)) return -1;
  const int fd = open(folder, O_TMPFILE | O_WRONLY | O_CLOEXEC, OWNER_ONLY);
  if (fd < 0) return NeedsPlainWay(errno) ? 0 : -1;
  const File file(fdopen(fd, "wb"));
  if (!file) close(fd);
  if (!WriteOut(file, image.bytes.get(), image.size)) return -1;
  char link[40];
  snprintf(link, sizeof(link), "/proc/self/fd/%d", fd);
  if (linkat(AT_FDCWD, link, AT_FDCWD, path, AT_SYMLINK_FOLLOW) == 0) return 1;
  if (errno == EEXIST) return VAKRO_ALREADY_EXISTS;
  return NeedsPlainWay(errno) ? 0 : -1;
}

static int RemoveAfterFailure(const char* path) {
  const int why = errno;
  remove(path);
  errno = why;
  return -1;
}

static int WriteNamed(const char* path, const FileImage& image) {
  const int fd = open(path, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, OWNER_ONLY);
  if (fd < 0) return errno == EEXIST ? VAKRO_ALREADY_EXISTS : -1;
  const File file(fdopen(fd, "wb"));
  if (!file) close(fd);
  return WriteOut(file, image.bytes.get(), image.size) ? 1 : RemoveAfterFailure(path);
}

int WriteNewFile(const char* path, const FileImage& image) {
  int written = WriteNameless(path, image);
  if (written == 0) written = WriteNamed(path, image);
  return written != 1 || SyncFolder(path) ? written : RemoveAfterFailure(path);
}

int CopyFileData(const char* source, const char* destination) {
  FileImage image;
  if (ReadFile(source, &image) != ReadResult::GOOD) return 0;
  const File file = OpenEmptied(destination, &image.status);
  if (!WriteOut(file, image.bytes.get(), image.size)) return 0;
  return SyncFolder(destination) ? 1 : 0;
}
