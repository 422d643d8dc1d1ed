// Backups before and after a scan.
#include "tools/scan_report.h"

#include "core/owners.h"
#include "device/device.h"
#include "tools/inspection.h"
#include "tools/report.h"

#include <fcntl.h>
#include <string.h>
#include <unistd.h>

// A program that is changing the device holds a lock on its file, and the backup is in use.
static bool IsBeingChanged(const std::string& path) {
  const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  struct flock lock = {};
  lock.l_type = F_RDLCK;
  lock.l_whence = SEEK_SET;
  return file.fd >= 0 && fcntl(file.fd, F_OFD_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
}

Backups BackupsIn(const std::string& folder) {
  char *rawFiles = nullptr, *rawBackups = nullptr;
  unsigned int filesLen = 0, backupsLen = 0;
  if (GetAllCertificateKeyFileName(folder.c_str(), &rawFiles, &filesLen, &rawBackups,
                                   &backupsLen) != 1) {
    return {};
  }
  const UtilText files(rawFiles), names(rawBackups);
  Backups backups;
  for (const char* name = rawBackups; name < rawBackups + backupsLen; name += strlen(name) + 1) {
    const std::string path = folder + std::string(name, strlen(name) - strlen(BACKUP_SUFFIX));
    if (!IsBeingChanged(path)) backups.push_back({path, !IsDeviceFile(path)});
  }
  return backups;
}

void SayWhatWasMended(const Backups& before) {
  for (const Backup& backup : before) {
    const std::string path = backup.path + BACKUP_SUFFIX;
    if (access(path.c_str(), F_OK) == 0) continue;
    if (backup.wasNeeded) {
      Warn(backup.path + " was missing or damaged; it was restored from its backup " + path + ".");
    } else {
      Warn("The backup " + path +
           " of an interrupted change is removed: the device file is good. "
           "('softdevice backup' makes copies to keep.)");
    }
  }
}
