// Start and stop, the key folder and the PIN: what device/ itself offers beside the exported
// functions. Gives the records and the globals too.
//
// What every function shares: 1 is success and 0 failure unless another result is given; NULL
// where a value is required is the caller's fault unless the comment says otherwise; memory comes
// from vakro_malloc. "Caller locks" means that the caller holds the module lock.
#ifndef VAKRO_DEVICE_DEVICE_H
#define VAKRO_DEVICE_DEVICE_H

#include "core/lock.h"
#include "core/records.h"
#include "vakro_crypto.h"
#include "vakro_device.h"
#include "vakro_util.h"

extern "C" {

// --- Lifecycle (lifecycle.cpp) -------------------------------------------------------------------

char* GetCertificatKeyFilePath(void);  // a copy of the key folder's path; vakro_free

// --- Key folder (names.cpp, scan.cpp) ------------------------------------------------------------

// GetFilePath joins a folder, with or without a trailing slash, and a name. vakro_free; NULL when
// memory is out.
char* GetFilePath(const char* folder, const char* name);

// string_endwiths returns 1 when `text` ends with `suffix`, 0 also when either is NULL.
int string_endwiths(const char* text, const char* suffix);

// addFileName2List appends `name` and its NUL to the packed list; the buffer grows in steps of
// 1024 bytes and may move. On 0 the list is as it was.
int addFileName2List(char** list, unsigned int* used, unsigned int* capacity, const char* name);

// GetAllCertificateKeyFileName lists a folder, without its subfolders, in directory order: names
// ending in BACKUP_SUFFIX go to the backup list, all others to the device-file list. Both lists
// are packed, NUL behind each name, and go back with vakro_free.
int GetAllCertificateKeyFileName(const char* folder, char** files, unsigned int* filesLen,
                                 char** backups, unsigned int* backupsLen);

DeviceSet* GetDeviceSetHandle(void);  // the scan behind DeviceGetAllDevices

// --- PIN (pin.cpp) -------------------------------------------------------------------------------

// IsSamePin compares two PINs, 1 or 0, in a time that depends on their lengths alone.
int IsSamePin(const char* pin, const char* candidate);

// VerifyPin verifies the device by `pin`: 1, -5, or 0 when the copy of the PIN could not be kept.
// A wrong PIN leaves no key decrypted that was not so before. Caller locks.
int VerifyPin(Device* device, const char* pin);

// ChangePin re-encrypts every private key of a verified device under `newPin`, in memory only. On
// 0 nothing has changed, unless the copy of the new PIN failed: then `pin` is NULL. Caller locks.
int ChangePin(Device* device, const char* newPin);

}  // extern "C"
#endif
