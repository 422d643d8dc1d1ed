// The module as a command uses it: started on a folder, its devices loaded, one of them and one of
// its keypairs chosen, the PIN verified. Owners give everything back in the right order.
#ifndef VAKRO_TOOLS_SESSION_H
#define VAKRO_TOOLS_SESSION_H

#include "core/openssl_owners.h"
#include "core/secret.h"
#include "device/device.h"
#include "tools/report.h"
#include "tools/secret.h"
#include "tools/tool.h"

using SetHandle = std::unique_ptr<DeviceSet, Release<DeviceFreeDevices>>;
using DeviceHandle = std::unique_ptr<Device, Release<DeviceFreeDevice>>;
using KeypairHandle = std::unique_ptr<Keypair, Release<DeviceFreeKeypair>>;
using PublicHandle = std::unique_ptr<PublicKey, Release<DeviceFreePublicKey>>;

inline constexpr char DEFAULT_FOLDER[] = "/etc/.VAKRO/SoftwareCert/";  // the module's own

// FolderOf is the folder to work in, with a slash at its end: --folder, VAKRO_FOLDER or the
// module's own.
std::string FolderOf(const Target& target);

// KeyFolders are the folders that no output may lie in: FolderOf's, VAKRO_FOLDER's, the module's.
std::vector<std::string> KeyFolders(const Target& target);

// The module, which main has started, at work on the target's folder.
struct Module {
  explicit Module(const Target& target);
};

// The devices of the target's folder; fails when the folder can't be listed. Says what the scan
// restored and removed.
struct Folder {
  const Module module;
  const SetHandle devices;
  explicit Folder(const Target& target, bool looking = false);
};

// The device that the target names.
struct Session {
  const Folder folder;
  DeviceHandle device;
  explicit Session(const Target& target, bool looking = false);

  // Reload reads the device file again: a prompt may have waited while others worked. Fails when it
  // holds another device by now.
  virtual void Reload();
  virtual ~Session() = default;
};

// The keypair that the target names on the device.
struct KeypairSession : Session {
  KeypairHandle keypair;
  explicit KeypairSession(const Target& target, bool looking = false);
  void Reload() override;  // finds the same keypair again, or fails
};

// A file of the folder that was not taken for a device, and why.
struct Passed {
  std::string path;
  std::string reason;
};
std::vector<Passed> PassedOver(DeviceSet* set);

std::string NameOf(Device* device);    // label and serial number
std::string NameOf(Keypair* keypair);  // label; with the type where the label alone is not enough
std::string FileNameOf(Device* device);

// KeypairsIn are the keypairs of a record as people know them: without the anchor, which only holds
// the PIN. IndexOf counts these, from 1.
std::vector<Keypair*> KeypairsIn(Device* device);
int IndexOf(Keypair* keypair);

// FindKeypair finds a keypair in another record of the same device; NULL when it is not there.
// SameKeypairIn fails then.
Keypair* FindKeypair(Device* device, const Keypair* keypair);
Keypair* SameKeypairIn(Device* device, const Keypair* keypair);

// RequireSameDevice fails when the file of a device, read anew, holds another one.
void RequireSameDevice(const Device* before, Device* now);

// Unlock asks for the PIN, reads the device file anew, and verifies. A PIN that opens some keypairs
// and not others is told from a wrong one.
SecretText Unlock(Session& session, const SecretSource& source);

// ProvePin fails unless the PIN opens the stored blob of some keypair, whatever is in it.
void ProvePin(Device* device, const SecretText& pin);

// Verify fails unless the PIN opens every keypair of the device.
void Verify(Device* device, const SecretText& pin);

// UnlockForFirst is for a command that gives the device a keypair. A device that has none takes any
// PIN, so it is asked twice, or taken from elsewhere only if the user has said that it is a new
// one.
SecretText UnlockForFirst(Session& session, const SecretSource& source, bool saidNew);

#endif
