// Sessions: their table, their states, and the calls about them.
#include "pkcs11/call.h"
#include "pkcs11/search.h"
#include "pkcs11/slot.h"

// A handle is the session's place in the table and a count, so that it does not come again soon.
static constexpr unsigned int PLACE_BITS = 20;
static constexpr CK_ULONG MAX_SESSIONS = (1UL << PLACE_BITS) - 1;

namespace {
struct Table {
  List<Session*> places;  // NULL: free
  List<CK_ULONG> free;
  CK_ULONG count = 0;  // of sessions that were ever opened
};
}  // namespace

static Table* g_table;
static pthread_mutex_t g_tableMutex = PTHREAD_MUTEX_INITIALIZER;  // for moments; the last of all

void ForgetSessions() {
  g_table = nullptr;
  g_tableMutex = PTHREAD_MUTEX_INITIALIZER;
}

static void GiveBack(Session* session) {
  if (session->references.fetch_sub(1, std::memory_order_acq_rel) == 1) Delete(session);
}

// A reference, or NULL.
static Session* Hold(CK_SESSION_HANDLE handle) {
  const MutexLock lock(g_tableMutex);
  const CK_ULONG place = handle & MAX_SESSIONS;
  if (g_table == nullptr || place >= g_table->places.count) return nullptr;
  Session* const session = g_table->places[place];
  if (session == nullptr || session->handle != handle) return nullptr;
  session->references.fetch_add(1, std::memory_order_relaxed);
  return session;
}

// The one behind `handle` in the table, and the next at the start; a reference, or NULL.
static Session* HoldNext(CK_ULONG& place) {
  const MutexLock lock(g_tableMutex);
  while (g_table != nullptr && place < g_table->places.count) {
    Session* const session = g_table->places[place++];
    if (session == nullptr) continue;
    session->references.fetch_add(1, std::memory_order_relaxed);
    return session;
  }
  return nullptr;
}

static CK_RV AddToTable(Session* session) {
  const MutexLock lock(g_tableMutex);
  if (g_table == nullptr) g_table = New<Table>();
  if (g_table == nullptr) return CKR_HOST_MEMORY;
  CK_ULONG place = g_table->places.count;
  if (g_table->free.count > 0) {
    place = g_table->free[--g_table->free.count];
  } else if (place >= MAX_SESSIONS) {
    return CKR_SESSION_COUNT;
  } else if (!g_table->free.Reserve(place + 1) || !g_table->places.Add(nullptr)) {
    return CKR_HOST_MEMORY;  // room is made now, for when it is given back
  }
  g_table->places[place] = session;
  session->handle = ++g_table->count << PLACE_BITS | place;
  return CKR_OK;
}

static bool TakeFromTable(const Session* session) {
  const MutexLock lock(g_tableMutex);
  const CK_ULONG place = session->handle & MAX_SESSIONS;
  if (g_table == nullptr || g_table->places[place] != session) return false;  // another was first
  g_table->places[place] = nullptr;
  g_table->free.Add(place);
  return true;
}

static Session* LockHeld(Session* session) {
  if (session == nullptr) return nullptr;
  pthread_mutex_lock(&session->mutex);
  if (!session->closed) return session;
  pthread_mutex_unlock(&session->mutex);
  GiveBack(session);
  return nullptr;
}

SessionLock::SessionLock(CK_SESSION_HANDLE handle) : session(LockHeld(Hold(handle))) {}

SessionLock::~SessionLock() {
  if (session == nullptr) return;
  pthread_mutex_unlock(&session->mutex);
  GiveBack(session);
}

void DropObjects(Slot& slot, CK_SESSION_HANDLE owner) {
  for (size_t i = slot.sessionObjects.count; i-- > 0;) {
    Object* const object = slot.sessionObjects[i];
    if (owner != 0 && object->owner != owner) continue;
    slot.sessionObjects.RemoveAt(i);
    Delete(object);
  }
}

// Closes the session, which is held, and gives it back. With the last one of a slot the login ends.
static bool Close(Session* session) {
  if (!TakeFromTable(session)) return GiveBack(session), false;
  Slot& slot = *session->slot;
  {
    const MutexLock lock(session->mutex);  // waits for a call that is on its way
    session->closed = true;
    EndOperations(session->operations);
    EndSearch(*session);
  }
  bool isLast = false;
  {
    const MutexLock lock(slot.state);
    DropObjects(slot, session->handle);
    slot.sessions--;
    if (session->CanWrite()) slot.writers--;
    isLast = slot.sessions == 0 && slot.login != Login::NONE;
  }
  if (isLast) {
    const MutexLock work(slot.work);
    bool stillIs = false;
    {
      const MutexLock lock(slot.state);
      stillIs = slot.sessions == 0;
    }
    if (stillIs) EndLogin(slot);
  }
  GiveBack(session);  // the table's
  GiveBack(session);  // ours
  return true;
}

void CloseSessionsOf(Slot* slot) {
  CK_ULONG place = 0;
  while (Session* const session = HoldNext(place)) {
    if (slot == nullptr || session->slot == slot) {
      Close(session);
    } else {
      GiveBack(session);
    }
  }
}

void CloseSessions() {
  CloseSessionsOf(nullptr);
  Delete(g_table);
  ForgetSessions();
}

void EndPrivateWork(Slot& slot) {
  CK_ULONG place = 0;
  while (Session* const session = HoldNext(place)) {
    if (session->slot == &slot) {
      const MutexLock lock(session->mutex);
      EndPrivateOperations(session->operations);
    }
    GiveBack(session);
  }
  const MutexLock lock(slot.state);
  for (size_t i = slot.sessionObjects.count; i-- > 0;) {
    Object* const object = slot.sessionObjects[i];
    if (!object->IsPrivate()) continue;
    slot.sessionObjects.RemoveAt(i);
    Delete(object);
  }
}

// --- Calls ---------------------------------------------------------------------------------------

static CK_RV Open(Slot& slot, CK_FLAGS flags, CK_SESSION_HANDLE* handle) {
  const CK_RV refreshed = Refresh(slot);
  if (refreshed != CKR_OK) return refreshed;
  Session* const session = New<Session>();
  if (session == nullptr) return CKR_HOST_MEMORY;
  session->flags = flags & (CKF_RW_SESSION | CKF_SERIAL_SESSION);
  session->slot = &slot;
  CK_RV result = CKR_OK;
  {
    const MutexLock lock(slot.state);
    if (slot.device == nullptr) result = CKR_TOKEN_NOT_RECOGNIZED;
    if (session->CanWrite() && result == CKR_OK && !slot.writable)
      result = CKR_TOKEN_WRITE_PROTECTED;
    if (!session->CanWrite() && slot.login == Login::SO) result = CKR_SESSION_READ_WRITE_SO_EXISTS;
    if (result == CKR_OK) result = AddToTable(session);
    if (result == CKR_OK) {
      slot.sessions++;
      if (session->CanWrite()) slot.writers++;
      *handle = session->handle;
    }
  }
  if (result != CKR_OK) GiveBack(session);
  return result;
}

CK_RV C_OpenSession(CK_SLOT_ID slotID, CK_FLAGS flags, CK_VOID_PTR /*pApplication*/,
                    CK_NOTIFY /*Notify*/, CK_SESSION_HANDLE_PTR phSession) {
  return InCall("C_OpenSession", [&]() -> CK_RV {
    if (phSession == nullptr) return CKR_ARGUMENTS_BAD;
    if ((flags & CKF_SERIAL_SESSION) == 0) return CKR_SESSION_PARALLEL_NOT_SUPPORTED;
    Slot* const slot = FindSlot(slotID);
    return slot == nullptr ? CKR_SLOT_ID_INVALID : Open(*slot, flags, phSession);
  });
}

CK_RV C_CloseSession(CK_SESSION_HANDLE hSession) {
  return InCall("C_CloseSession", [&]() -> CK_RV {
    Session* const session = Hold(hSession);
    return session != nullptr && Close(session) ? CKR_OK : CKR_SESSION_HANDLE_INVALID;
  });
}

CK_RV C_CloseAllSessions(CK_SLOT_ID slotID) {
  return InCall("C_CloseAllSessions", [&]() -> CK_RV {
    Slot* const slot = FindSlot(slotID);
    if (slot == nullptr) return CKR_SLOT_ID_INVALID;
    CloseSessionsOf(slot);
    return CKR_OK;
  });
}

static CK_STATE StateOf(const Session& session, Login login) {
  switch (login) {
    case Login::USER:
      return session.CanWrite() ? CKS_RW_USER_FUNCTIONS : CKS_RO_USER_FUNCTIONS;
    case Login::SO:
      return CKS_RW_SO_FUNCTIONS;
    default:
      return session.CanWrite() ? CKS_RW_PUBLIC_SESSION : CKS_RO_PUBLIC_SESSION;
  }
}

CK_RV C_GetSessionInfo(CK_SESSION_HANDLE hSession, CK_SESSION_INFO_PTR pInfo) {
  return InSession("C_GetSessionInfo", hSession, [&](Session& session) -> CK_RV {
    if (pInfo == nullptr) return CKR_ARGUMENTS_BAD;
    const MutexLock lock(session.slot->state);
    *pInfo = {session.slot->id, StateOf(session, session.slot->login), session.flags, 0};
    return CKR_OK;
  });
}

CK_RV C_GetFunctionStatus(CK_SESSION_HANDLE hSession) {
  return InSession("C_GetFunctionStatus", hSession,
                   [](Session&) -> CK_RV { return CKR_FUNCTION_NOT_PARALLEL; });
}

CK_RV C_CancelFunction(CK_SESSION_HANDLE hSession) {
  return InSession("C_CancelFunction", hSession,
                   [](Session&) -> CK_RV { return CKR_FUNCTION_NOT_PARALLEL; });
}
