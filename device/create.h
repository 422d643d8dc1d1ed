// New devices: an empty device file, with or without a PIN, complete under its name or not there.
#ifndef VAKRO_DEVICE_CREATE_H
#define VAKRO_DEVICE_CREATE_H

#include "core/records.h"

extern "C" {

inline constexpr int NO_ROOM = -30;  // the folder holds as many devices as a scan loads

// CreateDevice makes a device in the key folder, and the folder, open to its owner alone, with
// those above it where they are missing. The file is its owner's alone.
//   serialNumber  NULL for one drawn at random; else 1 to 63 bytes
//   label         1 to 63 bytes
//   pin           the PIN of the device, which is given an anchor to hold it; NULL: none yet, the
//                 first keypair that is stored sets it
//   path          out, may be NULL; the path of the file (vakro_free), also of one that could not
//                 be made; NULL where it did not come to that
// Returns 1; VAKRO_ALREADY_EXISTS when the folder holds a device of that serial number, a file of
// its name or the backup of one, and no existing file is ever written; NO_ROOM; VAKRO_NOT_SUPPORTED
// for a PIN without SM2; VAKRO_FAILED, with errno set by what failed. Only the folder is left then.
int CreateDevice(const char* serialNumber, const char* label, const char* pin, char** path);

// The steps of CreateDevice, for one who puts more into the device than that.

// NewDeviceRecord makes the record of a device that has no file yet, with a fresh file tag and the
// path that belongs to its serial number (FreeDevice); NULL where memory or random numbers are out,
// or a name is empty or too long. Different serial numbers have different paths.
Device* NewDeviceRecord(const char* serialNumber, const char* label);

// StoreNewDevice makes the file of such a record. Results as CreateDevice.
int StoreNewDevice(const Device* device);

}  // extern "C"

#endif
