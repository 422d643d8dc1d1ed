// Starting the module, choosing device and keypair, verifying the PIN.
#include "tools/session.h"

#include "device/change.h"
#include "keypair/keypair.h"
#include "tools/choice.h"
#include "tools/files.h"
#include "tools/rights.h"
#include "tools/scan_report.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>
#include <algorithm>

// --- The folder ----------------------------------------------------------------------------------

static std::string WithSlash(const std::string& folder) {
  return folder.ends_with('/') ? folder : folder + "/";
}

// A set-user-id program must not be led elsewhere by who calls it.
static std::string FolderOfEnvironment() {
  const char* folder = secure_getenv("VAKRO_FOLDER");
  return folder == nullptr || *folder == '\0' ? "" : WithSlash(folder);
}

std::string FolderOf(const Target& target) {
  if (!target.folder.empty()) return WithSlash(target.folder);
  const std::string environment = FolderOfEnvironment();
  return environment.empty() ? DEFAULT_FOLDER : environment;
}

std::vector<std::string> KeyFolders(const Target& target) {
  return {FolderOf(target), DEFAULT_FOLDER, FolderOfEnvironment()};
}

// --- Loading -------------------------------------------------------------------------------------

Module::Module(const Target& target) {
  const std::string folder = FolderOf(target);
  if (DeviceSetKeyFolder(folder.c_str()) != VAKRO_OK) throw std::bad_alloc();
}

static DeviceSet* LoadDevices(const Target& target, bool looking) {
  const std::string folder = FolderOf(target);
  RefuseMovable(folder, looking);
  RefuseOpen(folder, looking);
  const Backups before = BackupsIn(folder);
  DeviceSet* devices = DeviceGetAllDevices();
  if (devices != nullptr) {
    SayWhatWasMended(before);
    return devices;
  }
  const bool missing = errno == ENOENT;
  throw Failure(missing ? EXIT_NOT_FOUND : EXIT_FAILED,
                "Can't list the key folder " + folder + ": " + SystemError() + ".",
                missing ? "'softdevice create' makes the folder and a first device; --folder names "
                          "another."
                        : "");
}

Folder::Folder(const Target& target, bool looking)
    : module(target), devices(LoadDevices(target, looking)) {}

static DeviceHandle HandleOf(DeviceSet* set, const Device* chosen) {
  Device** const end = set->devices + set->count;
  Device** const found = std::find(set->devices, end, chosen);
  DeviceHandle device(DeviceGetDevice(set, static_cast<unsigned int>(found - set->devices)));
  if (!device) throw Failure("The device could not be opened.");
  return device;
}

Session::Session(const Target& target, bool looking)
    : folder(target, looking),
      device(HandleOf(folder.devices.get(), ChooseDevice(folder.devices.get(), target.device))) {
  RefuseOpen(device->filePath, looking);
}

void Session::Reload() {
  Device* fresh = nullptr;
  const int result = LoadDevice(device->filePath, &fresh);
  if (result != 1) {
    throw Failure("The device file " + std::string(device->filePath) +
                  (result == 0 ? " is gone or damaged by now." : " can't be read just now."));
  }
  DeviceHandle read(fresh);
  RequireSameDevice(device.get(), fresh);
  device = std::move(read);
}

// A rewrite keeps the tag, whoever makes it.
void RequireSameDevice(const Device* before, Device* now) {
  if (before->fileTag == now->fileTag && strcmp(before->serialNumber, now->serialNumber) == 0) {
    return;
  }
  throw Failure("The file " + std::string(now->filePath) + " holds another device by now, " +
                    NameOf(now) + "; nothing was done.",
                "'softdevice list' shows what there is.");
}

static KeypairHandle HandleOf(Device* device, Keypair* chosen) {
  Keypair** const end = device->keypairs + device->keypairCount;
  KeypairHandle keypair(DeviceGetKeypair(
      device, static_cast<int>(std::find(device->keypairs, end, chosen) - device->keypairs)));
  if (!keypair) throw Failure("The keypair could not be opened.");
  return keypair;
}

KeypairSession::KeypairSession(const Target& target, bool looking)
    : Session(target, looking),
      keypair(HandleOf(device.get(), ChooseKeypair(device.get(), target))) {}

static bool SameKeypair(const Keypair* a, const Keypair* b) {
  return a->type == b->type && strcmp(a->label, b->label) == 0 &&
         a->publicKeyLen == b->publicKeyLen &&
         memcmp(a->publicKey, b->publicKey, static_cast<size_t>(a->publicKeyLen)) == 0;
}

Keypair* FindKeypair(Device* device, const Keypair* keypair) {
  Keypair** const end = device->keypairs + device->keypairCount;
  Keypair** const found =
      std::find_if(device->keypairs, end, [&](Keypair* k) { return SameKeypair(k, keypair); });
  return found == end ? nullptr : *found;
}

Keypair* SameKeypairIn(Device* device, const Keypair* keypair) {
  if (Keypair* same = FindKeypair(device, keypair)) return same;
  throw Failure(EXIT_NOT_FOUND, "Keypair " + std::string(keypair->label) +
                                    " is gone by now; another program has changed the device.");
}

// The handle of before keeps its record alive until the same keypair is found in the new one.
void KeypairSession::Reload() {
  const KeypairHandle before = std::move(keypair);
  Session::Reload();
  keypair = HandleOf(device.get(), SameKeypairIn(device.get(), before.get()));
}

// --- The PIN -------------------------------------------------------------------------------------

static bool Opens(const Keypair* keypair, const SecretText& pin) {
  int curve = 0;
  const EvpKey key(DecryptKeyPair(keypair->algorithm, keypair, pin.data(), &curve));
  return key != nullptr;
}

[[noreturn]] static void FailWrongPin(Device* device) {
  throw Failure(EXIT_WRONG_PIN, "Wrong PIN for device " + NameOf(device) + ".",
                "Nothing is counted, so try again.");
}

void ProvePin(Device* device, const SecretText& pin) {
  Keypair** const end = device->keypairs + device->keypairCount;
  if (std::any_of(device->keypairs, end,
                  [&](Keypair* k) { return IsKeypairsPin(k, pin.data()) == 1; })) {
    return;
  }
  FailWrongPin(device);
}

// A wrong PIN opens nothing. Where it opens one keypair, it is the device's, and what does not open
// is damaged, from another device, or of a kind that can't be opened.
static void ExplainWrongPin(Device* device, const SecretText& pin) {
  std::vector<std::string> closed;
  for (int i = 0; i < device->keypairCount; i++) {
    if (!Opens(device->keypairs[i], pin)) closed.push_back(NameOf(device->keypairs[i]));
  }
  ProvePin(device, pin);
  throw Failure("The PIN of device " + NameOf(device) + " is right, but keypair " + Join(closed) +
                    " does not open, which keeps the whole device shut.",
                "'softdevice check' says what is wrong there. 'softdevice restore' takes a backup; "
                "'softdevice delete-keypair' gives the keypair up and opens the others.");
}

void Verify(Device* device, const SecretText& pin) {
  switch (DeviceVerifyPwd(device, PIN_TYPE_USER, pin.data(), nullptr)) {
    case VAKRO_OK:
      return;
    case VAKRO_WRONG_PIN:
      return ExplainWrongPin(device, pin);
    default:
      throw Failure("The PIN could not be verified: out of memory?");
  }
}

SecretText Unlock(Session& session, const SecretSource& source) {
  if (session.device->keypairCount == 0) {
    throw Failure("Device " + NameOf(session.device.get()) + " has no keypairs, and so no PIN.",
                  "'softdevice keygen' and 'softdevice import' give it both.");
  }
  SecretText pin = ReadSecret(source, "PIN of device " + NameOf(session.device.get()));
  session.Reload();
  Verify(session.device.get(), pin);
  return pin;
}

SecretText UnlockForFirst(Session& session, const SecretSource& source, bool saidNew) {
  if (session.device->keypairCount > 0) return Unlock(session, source);
  const std::string name = NameOf(session.device.get());
  if (!source.isTerminal() && !saidNew) {
    throw Failure(EXIT_USAGE, "Device " + name + " has no PIN yet; this one would become its PIN.",
                  "--new-pin says that this is meant.");
  }
  Remark("Device " + name + " has no PIN yet: you are setting a new one.");
  SecretText pin = ReadNewPin(source, "New PIN for device " + name);
  session.Reload();
  if (session.device->keypairCount > 0) {
    throw Failure("Device " + name + " has been given a keypair and a PIN meanwhile.");
  }
  Verify(session.device.get(), pin);
  return pin;
}
