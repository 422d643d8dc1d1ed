// The module as a command uses it: started on a folder, its devices loaded, one of them and one of
// its keypairs chosen, the PIN verified. Owners give everything back in the right order.
#ifndef VAKRO_TOOLS_SESSION_H
#define VAKRO_TOOLS_SESSION_H

#include "core/openssl_owners.h"
#include "core/secret.h"
#include "device/device.h"
#include "tools/secret.h"
#include "tools/tool.h"

using SetHandle = std::unique_ptr<DeviceSet, Release<DeviceFreeDevices>>;
using DeviceHandle = std::unique_ptr<Device, Release<DeviceFreeDevice>>;
using KeypairHandle = std::unique_ptr<Keypair, Release<DeviceFreeKeypair>>;
using PublicHandle = std::unique_ptr<PublicKey, Release<DeviceFreePublicKey>>;

std::string FolderOf(const Target& target);  // with a slash at its end

// The module, started. It works on the target's folder, or its own.
struct Module {
  explicit Module(const Target& target);
  Module(const Module&) = delete;
  Module& operator=(const Module&) = delete;
  ~Module() { DeviceEnd(); }
};

// The devices of the target's folder; fails when the folder can't be listed.
struct Folder {
  const Module module;
  const SetHandle devices;
  explicit Folder(const Target& target);
};

// The device that the target names.
struct Session {
  const Folder folder;
  const DeviceHandle device;
  explicit Session(const Target& target);
};

// The keypair that the target names on the device.
struct KeypairSession {
  const Session session;
  const KeypairHandle keypair;
  explicit KeypairSession(const Target& target);
  Device* device() const { return session.device.get(); }
};

// PassedOver names the files of the folder that were not taken for devices, each with the reason.
std::vector<std::string> PassedOver(DeviceSet* devices);

std::string LabelOf(Device* device);         // printable
std::string SerialNumberOf(Device* device);  // printable
std::string LabelOf(Keypair* keypair);       // printable

// Unlock verifies the PIN and returns it. On a device without keypairs this sets the PIN, so it is
// asked twice.
SecretText Unlock(Device* device, const SecretSource& source);

// RequireChange fails unless `result`, of a call that changes the device file, is success; `what`
// was to be done, as in "store the keypair".
void RequireChange(int result, const std::string& what);

#endif
