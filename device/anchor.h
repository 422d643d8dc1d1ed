// The anchor: a keypair that stands for the PIN. A device file keeps nothing to judge a PIN by but
// what it encrypts, so a device without keypairs takes any PIN. An anchor gives a new device a PIN
// from its first moment on. It is an SM2 keypair of a reserved type and a telling label, one of the
// 64; programs do not show it as a key. Its certificate list is the place for what belongs to the
// device as a whole (docs/pkcs11.md).
#ifndef VAKRO_DEVICE_ANCHOR_H
#define VAKRO_DEVICE_ANCHOR_H

#include "core/records.h"

extern "C" {

inline constexpr unsigned int ANCHOR_TYPE = 0x50494E41;  // "PINA"
inline constexpr char ANCHOR_LABEL[] = "PIN anchor, keep";

// By type, algorithm and label.
int IsAnchor(const Keypair* keypair);  // 1 or 0

// FindAnchor returns the device's anchor, borrowed, or NULL. Caller locks, or owns the record.
Keypair* FindAnchor(const Device* device);

// AddAnchor gives a record that nobody else can reach an anchor under `pin`, in memory only; the
// record is verified then. It has no keypairs yet, or is verified by that PIN. Returns 1;
// VAKRO_ALREADY_EXISTS; VAKRO_OUT_OF_RANGE when 64 keypairs are there; VAKRO_NOT_SUPPORTED without
// SM2; VAKRO_FAILED. Takes no lock.
int AddAnchor(Device* device, const char* pin);

// MakeAnchor is AddAnchor for a device that has a file: it verifies the device by `pin` and stores
// the keypair. Returns 1, also when there is an anchor already; VAKRO_WRONG_PIN;
// VAKRO_NOT_SUPPORTED without SM2; VAKRO_FAILED. Takes the module lock.
int MakeAnchor(Device* device, const char* pin);

}  // extern "C"

#endif
