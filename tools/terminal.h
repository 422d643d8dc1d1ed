// Questions on the terminal of this process, whatever its standard streams are.
#ifndef VAKRO_TOOLS_TERMINAL_H
#define VAKRO_TOOLS_TERMINAL_H

#include "tools/secret.h"

bool HasTerminal();

// Ask shows a prompt and returns the line that is typed, without echo when it is a secret. Signals
// do what they do elsewhere, but the terminal is put right first. `advice` tells how to do without
// a terminal.
SecretText Ask(const std::string& prompt, bool secret, const std::string& advice);

// RequireYes asks whether `what` is meant, unless `yes` is set. Typing anything but yes fails with
// "Nothing was " + done.
void RequireYes(bool yes, const std::string& what, const std::string& done);

#endif
