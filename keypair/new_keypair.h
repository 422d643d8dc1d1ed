// What generation and import share. Inside keypair/ only.
#ifndef VAKRO_KEYPAIR_NEW_KEYPAIR_H
#define VAKRO_KEYPAIR_NEW_KEYPAIR_H

#include "core/owners.h"
#include "keypair/keypair.h"

// CheckNameAndRoom: 1; -6 when the device holds a keypair of this type and label; 0 when it is
// full.
int CheckNameAndRoom(const Device* device, unsigned int type, const char* label);

// CheckPinAndLabel: 1; -8 when the device has no PIN to encrypt under; 0 for a label that is too
// long.
int CheckPinAndLabel(const Device* device, const char* label);

// StoreKeypair encrypts a new keypair, writes it to the device file and puts it on the device, with
// the caller's handle in *out. Returns 1; -6 when the file holds a keypair of this type and label
// that the record does not know of; 0. Device and file are then unchanged. Caller locks and has
// made both checks.
int StoreKeypair(Device* device, OwnedKeypair keypair, const char* label, Keypair** out);

#endif
