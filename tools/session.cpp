// Starting the module, choosing device and keypair, verifying the PIN.
#include "tools/session.h"

#include "store/change.h"
#include "tools/files.h"

#include <string.h>
#include <unistd.h>
#include <algorithm>

std::string FolderOf(const Target& target) {
  if (!target.folder.empty()) {
    return target.folder.ends_with('/') ? target.folder : target.folder + "/";
  }
  const UtilText own(GetCertificatKeyFilePath());
  if (!own) throw std::bad_alloc();
  return own.get();
}

Module::Module(const Target& target) {
  if (DeviceInit() != VAKRO_OK || DeviceSetKeyFolder(FolderOf(target).c_str()) != VAKRO_OK)
    throw std::bad_alloc();
}

static DeviceSet* LoadDevices() {
  DeviceSet* devices = DeviceGetAllDevices();
  if (devices != nullptr) return devices;
  throw Failure(
      "Can't list the key folder " + std::string(g_keyFolder) + ": " + SystemError() + ".",
      "'softdevice create' makes the folder and a first device; --folder names another.");
}

Folder::Folder(const Target& target) : module(target), devices(LoadDevices()) {}

std::string LabelOf(Device* device) { return Printable(device->label); }
std::string SerialNumberOf(Device* device) { return Printable(device->serialNumber); }
std::string LabelOf(Keypair* keypair) { return Printable(keypair->label); }

static std::string NameOf(Device* device) {
  return SerialNumberOf(device) + " (" + LabelOf(device) + ")";
}

static std::string NameOf(Keypair* keypair) {
  return LabelOf(keypair) + " (type " + std::to_string(DeviceGetKeypairType(keypair)) + ")";
}

template <class Record>
static std::string Names(const std::vector<Record*>& records) {
  std::string names;
  for (Record* record : records) names += (names.empty() ? "" : ", ") + NameOf(record);
  return names;
}

// Choose returns the one candidate, or says why there is none or more than one.
template <class Record>
static Record* Choose(const std::vector<Record*>& fitting, const std::vector<Record*>& all,
                      const std::string& what, const std::string& option, const std::string& none) {
  if (fitting.size() == 1) return fitting.front();
  if (all.empty()) throw Failure("There is no " + what + " yet.", none);
  if (fitting.empty()) throw Failure("No such " + what + ".", "There is: " + Names(all) + ".");
  throw Failure("Several " + what + "s could be meant: " + Names(fitting) + ".",
                "Choose one with " + option + ".");
}

static Device* ChooseDevice(DeviceSet* set, const std::string& name) {
  const std::vector<Device*> all(set->devices, set->devices + set->count);
  std::vector<Device*> fitting;
  // A serial number goes before a label that reads the same.
  for (Device* d : all) {
    if (name.empty() || name == d->serialNumber) fitting.push_back(d);
  }
  if (fitting.empty()) {
    std::copy_if(all.begin(), all.end(), std::back_inserter(fitting),
                 [&](Device* d) { return name == d->label; });
  }
  return Choose(fitting, all, "device", "--device",
                "'softdevice create' makes one; 'softdevice list' shows what the folder holds.");
}

static Device* HandleOf(DeviceSet* set, const std::string& name) {
  Device** const end = set->devices + set->count;
  Device** const found = std::find(set->devices, end, ChooseDevice(set, name));
  Device* device = DeviceGetDevice(set, static_cast<unsigned int>(found - set->devices));
  if (device == nullptr) throw Failure("The device could not be opened.");
  return device;
}

Session::Session(const Target& target)
    : folder(target), device(HandleOf(folder.devices.get(), target.device)) {}

static Keypair* ChooseKeypair(Device* device, const Target& target) {
  const std::vector<Keypair*> all(device->keypairs, device->keypairs + device->keypairCount);
  std::vector<Keypair*> fitting;
  for (Keypair* k : all) {
    if (!target.keypair.empty() && target.keypair != k->label) continue;
    if (target.type == 0 || target.type == k->type) fitting.push_back(k);
  }
  Keypair* chosen = Choose(fitting, all, "keypair", "--keypair (and --type)",
                           "'softdevice keygen' and 'softdevice import' make one.");
  const auto index = std::find(all.begin(), all.end(), chosen) - all.begin();
  Keypair* keypair = DeviceGetKeypair(device, static_cast<int>(index));
  if (keypair == nullptr) throw Failure("The keypair could not be opened.");
  return keypair;
}

KeypairSession::KeypairSession(const Target& target)
    : session(target), keypair(ChooseKeypair(session.device.get(), target)) {}

static std::string WhyPassedOver(const std::string& path) {
  if (access(path.c_str(), R_OK) != 0) return SystemError();
  FileImage image;
  const Found found = ReadImage(path.c_str(), &image);
  if (found == Found::UNKNOWN) return "could not be read";
  return found == Found::GOOD ? "not loaded" : "damaged, or no device file";
}

std::vector<std::string> PassedOver(DeviceSet* set) {
  char *rawFiles = nullptr, *rawBackups = nullptr;
  unsigned int filesLen = 0, backupsLen = 0;
  if (GetAllCertificateKeyFileName(g_keyFolder, &rawFiles, &filesLen, &rawBackups, &backupsLen) !=
      1) {
    return {};
  }
  const UtilText files(rawFiles), backups(rawBackups);
  std::vector<std::string> left;
  for (const char* name = rawFiles; name < rawFiles + filesLen; name += strlen(name) + 1) {
    const std::string path = g_keyFolder + std::string(name);
    Device** const end = set->devices + set->count;
    if (std::none_of(set->devices, end, [&](Device* d) { return path == d->filePath; })) {
      left.push_back(Printable(path) + ": " + WhyPassedOver(path));
    }
  }
  return left;
}

SecretText Unlock(Device* device, const SecretSource& source) {
  SecretText pin = DeviceGetKeypairCount(device) == 0
                       ? ReadNewPin(source, "New PIN for device " + LabelOf(device))
                       : ReadSecret(source, "PIN of device " + LabelOf(device));
  switch (DeviceVerifyPwd(device, PIN_TYPE_USER, pin.data(), nullptr)) {
    case VAKRO_OK:
      return pin;
    case VAKRO_WRONG_PIN:
      throw Failure("Wrong PIN for device " + LabelOf(device) + ".",
                    "Nothing is counted, so try again. If the PIN is certain, a keypair in the "
                    "device file is damaged: put a copy of the file back.");
    default:
      throw Failure("The PIN could not be verified: out of memory?");
  }
}

void RequireChange(int result, const std::string& what) {
  switch (result) {
    case VAKRO_OK:
      return;
    case VAKRO_ALREADY_EXISTS:
      throw Failure("Can't " + what + ": it exists already.", "Choose another label, id or type.");
    default:
      throw Failure("Can't " + what + "; the device is as it was.",
                    "Is the folder " + std::string(g_keyFolder) +
                        " writable and the disk not full? The module keeps at most 64 keypairs on "
                        "a device and 10 certificates on a keypair.");
  }
}
