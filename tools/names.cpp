// What devices, keypairs and files are called when we speak of them.
#include "tools/session.h"

#include "device/anchor.h"
#include "tools/inspection.h"

#include <string.h>
#include <algorithm>

std::string NameOf(Device* device) {
  return std::string(device->label) + " (serial number " + device->serialNumber + ")";
}

std::string NameOf(Keypair* keypair) {
  const Device* device = keypair->device;
  const auto isNamesake = [&](const Keypair* k) { return strcmp(k->label, keypair->label) == 0; };
  std::string label = keypair->label;
  if (device == nullptr) return label;
  const auto count =
      std::count_if(device->keypairs, device->keypairs + device->keypairCount, isNamesake);
  return count < 2 ? label : label + " of type " + std::to_string(keypair->type);
}

std::string FileNameOf(Device* device) {
  return strrchr(device->filePath, '/') == nullptr ? device->filePath
                                                   : strrchr(device->filePath, '/') + 1;
}

std::vector<Keypair*> KeypairsIn(Device* device) {
  std::vector<Keypair*> keypairs(device->keypairs, device->keypairs + device->keypairCount);
  std::erase_if(keypairs, [](const Keypair* k) { return IsAnchor(k) == 1; });
  return keypairs;
}

int IndexOf(Keypair* keypair) {
  const std::vector<Keypair*> all = KeypairsIn(keypair->device);
  return static_cast<int>(std::find(all.begin(), all.end(), keypair) - all.begin()) + 1;
}

static std::string WhyPassedOver(const std::string& path, bool full) {
  try {
    const Inspection inspection = Inspect(path);
    if (!inspection.loads) return ReasonOf(inspection);
    return full ? "only 64 devices are loaded" : "it could not be loaded just now";
  } catch (const Failure& failure) {
    return failure.what();
  }
}

std::vector<Passed> PassedOver(DeviceSet* set) {
  char *rawFiles = nullptr, *rawBackups = nullptr;
  unsigned int filesLen = 0, backupsLen = 0;
  if (GetAllCertificateKeyFileName(g_keyFolder, &rawFiles, &filesLen, &rawBackups, &backupsLen) !=
      1) {
    return {};
  }
  const UtilText files(rawFiles), backups(rawBackups);
  std::vector<Passed> left;
  for (const char* name = rawFiles; name < rawFiles + filesLen; name += strlen(name) + 1) {
    const std::string path = g_keyFolder + std::string(name);
    Device** const end = set->devices + set->count;
    if (std::none_of(set->devices, end, [&](Device* d) { return path == d->filePath; })) {
      left.push_back({path, WhyPassedOver(path, set->count == MAX_DEVICES)});
    }
  }
  std::sort(left.begin(), left.end(),
            [](const Passed& a, const Passed& b) { return a.path < b.path; });
  return left;
}
