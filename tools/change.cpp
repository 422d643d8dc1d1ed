// One rewrite for all that a command changes.
#include "tools/change.h"

#include "core/owners.h"
#include "tools/files.h"

#include <errno.h>
#include <sys/statvfs.h>
#include <unistd.h>

// Others may have changed the PIN since it was verified.
static void TakeOverPin(const Session& session, const DeviceChange& change) {
  if (session.device->pin == nullptr) return;
  switch (TakeOverKeys(change.device, session.device.get())) {
    case VAKRO_OK:
      return;
    case VAKRO_WRONG_PIN:
      throw Failure(EXIT_WRONG_PIN,
                    "The PIN of device " + NameOf(session.device.get()) +
                        " has been changed "
                        "meanwhile; nothing is stored.",
                    "Do it again with the new PIN.");
    default:
      throw std::bad_alloc();
  }
}

void ChangeDevice(const Session& session, const std::string& what,
                  const std::function<void(DeviceChange&)>& edit) {
  const Device* device = session.device.get();
  DeviceChange change;
  errno = 0;
  // A passing failure and a damaged file are one to the user: nothing was done, errno says why.
  if (BeginChange(device->filePath, change) != VAKRO_OK) RequireChange(device, VAKRO_FAILED, what);
  RequireSameDevice(device, change.device);
  TakeOverPin(session, change);
  edit(change);
  errno = 0;
  RequireChange(device, CommitChange(change), what);
}

void AppendCertificate(Keypair* keypair, const Bytes& der) {
  Cert* cert = NewCert(der.data(), static_cast<int>(der.size()));
  if (cert == nullptr) throw std::bad_alloc();
  keypair->certs[keypair->certCount++] = cert;
}

// --- What went wrong -----------------------------------------------------------------------------

static constexpr unsigned long ROOM_NEEDED = 1UL << 20;  // bytes; about the largest usual file

std::string WhyNotWritten(const std::string& path) {
  const int cause = errno;
  const std::string folder = path.substr(0, path.rfind('/') + 1);
  if (access(folder.c_str(), W_OK) != 0) {
    return "the folder " + folder + " can't be written: " + SystemError();
  }
  if (access(path.c_str(), W_OK) != 0 && errno != ENOENT)
    return path + " can't be written: " + SystemError();
  struct statvfs room = {};
  if (statvfs(folder.c_str(), &room) == 0) {
    if (room.f_bavail * room.f_frsize < ROOM_NEEDED) return "the disk is full, or nearly so";
    if (room.f_files > 0 && room.f_favail == 0) return "the disk has no room for another file";
  }
  if (cause == ETIMEDOUT || cause == EAGAIN) {
    return "another program holds the device file and does not go on";
  }
  errno = cause;
  return cause == 0 ? "the device file has changed or is damaged" : SystemError();
}

void RequireChange(const Device* device, int result, const std::string& what) {
  switch (result) {
    case VAKRO_OK:
      return NoteChange(what);
    case VAKRO_ALREADY_EXISTS:
      throw Failure(EXIT_EXISTS, "Can't " + what + ": it exists already.",
                    "Choose another label, number or type.");
    case VAKRO_NO_SUCH_DATA:
      throw Failure(EXIT_NOT_FOUND, "Can't " + what + ": it is gone by now.");
    default:
      throw Failure("Can't " + what + ": " + WhyNotWritten(device->filePath) + ".",
                    "The device is as it was.");
  }
}
