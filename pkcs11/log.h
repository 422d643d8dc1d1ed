// The log that VAKRO_PKCS11_LOG=FILE asks for: calls, results and reasons; never PINs or data. In
// programs that run with more rights than their user the variable is ignored.
#ifndef VAKRO_PKCS11_LOG_H
#define VAKRO_PKCS11_LOG_H

#include "pkcs11/cryptoki.h"

void OpenLog();   // by C_Initialize
void CloseLog();  // by C_Finalize

// LogReason adds a line that says why the present call is about to fail, or what it found. printf's
// format. Without a log it costs a look at one variable.
[[gnu::format(printf, 1, 2)]] void LogReason(const char* format, ...);

// LogResult writes down a call and its result, and returns the result.
CK_RV LogResult(const char* function, CK_RV result);

#endif
