// Which device and which keypair a user means.
#ifndef VAKRO_TOOLS_CHOICE_H
#define VAKRO_TOOLS_CHOICE_H

#include "tools/session.h"

// These fail in words: there is none, no such one, or several could be meant; then all candidates
// are listed, each with the option that decides.

// ChooseDevice takes a serial number, a label or a file; "serial:", "label:" or "file:" before the
// name says which. An empty name will do for a folder with one device.
Device* ChooseDevice(DeviceSet* set, const std::string& name);

// ChooseKeypair takes a label, a number as in "#2" or a fingerprint or its beginning, and the type.
Keypair* ChooseKeypair(Device* device, const Target& target);

// IsFingerprint says whether `text` may be the beginning of this fingerprint: 8 digits or more,
// "SHA256:" before it or not, in either case.
bool IsFingerprint(const std::string& text, const std::string& fingerprint);

#endif
