// Changes of one device file in one breath, for programs that carry the module inside: the file is
// locked, a fresh record made of it, the caller edits that, and it is written back in one rewrite.
// Whatever other processes have stored in the meantime is in the fresh record, and stays.
//
// No function here takes the module lock: the record of a change is the caller's alone. None may be
// called for a file that the same thread has under a change already. On a failure errno says why as
// far as the system has said it; ETIMEDOUT: whoever holds the file's lock does not get on.
#ifndef VAKRO_DEVICE_CHANGE_H
#define VAKRO_DEVICE_CHANGE_H

#include "core/records.h"

// LoadDevice makes a fresh record of one device file, paths set, as a scan does: it restores the
// file from its backup where that is due. Returns 1 with *out (FreeDevice, or DeviceFreeDevice); 0
// for a file that is missing, damaged or no device; -1 for a passing failure.
int LoadDevice(const char* path, Device** out);

// TakeOverKeys verifies a fresh record by the PIN of an older one of the same file. Private keys
// whose stored form has not changed are shared; only the others are decrypted. Returns 1; -8 when
// `verified` is not verified; -5 when a keypair of `fresh` does not open under that PIN; 0. Unless
// 1, `fresh` is as it was. Caller holds whatever guards the two records.
int TakeOverKeys(Device* fresh, Device* verified);

// A change under way. It holds the file's lock until it is committed or destroyed; without a commit
// nothing is written.
struct OpenFile;
struct DeviceChange {
  Device* device = nullptr;  // the fresh record, the change's own; see CommitChange
  // The data objects, in file order, with room for one more; `datasKnown` is false, and there are
  // none, where the file's can't be read. Written if `datasChanged`.
  Data** datas = nullptr;  // FreeDatas
  unsigned int dataCount = 0;
  bool datasKnown = false;
  bool datasChanged = false;
  OpenFile* file = nullptr;  // with its lock

  DeviceChange() = default;
  DeviceChange(const DeviceChange&) = delete;
  DeviceChange& operator=(const DeviceChange&) = delete;
  ~DeviceChange();
};

// BeginChange locks and reads the device file at `path` and makes change.device. Waits for another
// writer as long as that one gets on. Results as LoadDevice.
int BeginChange(const char* path, DeviceChange& change);

// CommitChange writes what the caller has made of change.device; the change is over then, whatever
// the result. These are written, all else stays as it is in the file:
//   label and serial number of the device
//   label, type and certificates (NewCert, FreeCert; at most MAX_CERTS) of keypairs
//   a keypair taken out of the list (DeleteKeypairFromDevice, FreeKeypair): it goes, whatever data
//     objects there are
//   a complete keypair put behind the others: it is appended
//   salt, iv and private keys of all keypairs, enciphered anew by ChangePin
//   the data objects
// Returns 1; -6 for two keypairs of one type and label; 0.
int CommitChange(DeviceChange& change);

// TakeRecord hands the record over to the caller. It is that of the file after a commit of 1.
Device* TakeRecord(DeviceChange& change);

// CopyDeviceFile writes the file's content, once its digest is right, to a new file that is its
// owner's alone, bytes and name on stable storage. Nothing is restored. Returns 1; 0 when the file
// is missing or damaged; -6 when `destination` exists; -1.
int CopyDeviceFile(const char* path, const char* destination);

#endif
