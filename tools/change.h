// Changes of a device file by the tool: several edits in one rewrite, and what to say when a change
// could not be made.
#ifndef VAKRO_TOOLS_CHANGE_H
#define VAKRO_TOOLS_CHANGE_H

#include "device/change.h"
#include "tools/session.h"

#include <functional>

// ChangeDevice locks the device file, reads it as it is now, makes sure that it is the session's
// device still and opens it with the PIN that the session has verified, if any. `edit` then works
// on that record and may fail, also because it finds something else than what the user was shown;
// what it leaves is written in one rewrite. So all of it reaches the file, or nothing. `what` is as
// below.
void ChangeDevice(const Session& session, const std::string& what,
                  const std::function<void(DeviceChange&)>& edit);

// What an `edit` does: it puts a certificate behind those of a keypair, which has room for it.
void AppendCertificate(Keypair* keypair, const Bytes& der);

// RequireChange fails unless `result`, of a call that changes the device file, is success; `what`
// was to be done, as in "store the keypair".
void RequireChange(const Device* device, int result, const std::string& what);

// WhyNotWritten says what keeps a device file from being written: rights, room, a lock.
std::string WhyNotWritten(const std::string& path);

#endif
