// What surrounds every C_ function: is the library initialised, which session is meant, and the
// log. Each function is one line that names it and its body:
//
//   CK_RV C_SignUpdate(CK_SESSION_HANDLE hSession, CK_BYTE_PTR part, CK_ULONG partLen) {
//     return InSession("C_SignUpdate", hSession, [&](Session& session) -> CK_RV { ... });
//   }
//
// While a body runs, C_Finalize waits; nothing that it can reach goes away.
#ifndef VAKRO_PKCS11_CALL_H
#define VAKRO_PKCS11_CALL_H

#include "pkcs11/log.h"
#include "pkcs11/session.h"

// A call on its way, from its entry to its end. `entered` is false, and nothing may be touched,
// while the library is not initialised: before C_Initialize, in a child process that has not called
// it itself, during and after C_Finalize, and in exit handlers once OpenSSL has cleaned up.
struct Call {
  const char* const name;
  const bool entered;
  explicit Call(const char* function);
  Call(const Call&) = delete;
  Call& operator=(const Call&) = delete;
  ~Call();
};

// RestInCall lets a fifth of a second pass, for a call that waits; false, at once, when it has to
// leave because the library is being finalised. Call it without any lock.
bool RestInCall();

template <class Body>
CK_RV InCall(const char* name, Body body) noexcept {
  const Call call(name);
  return LogResult(name, call.entered ? body() : CKR_CRYPTOKI_NOT_INITIALIZED);
}

// The body has the session to itself: calls with the same session take turns.
template <class Body>
CK_RV InSession(const char* name, CK_SESSION_HANDLE handle, Body body) noexcept {
  const Call call(name);
  if (!call.entered) return LogResult(name, CKR_CRYPTOKI_NOT_INITIALIZED);
  const SessionLock session(handle);
  return LogResult(name, session ? body(*session) : CKR_SESSION_HANDLE_INVALID);
}

#endif
