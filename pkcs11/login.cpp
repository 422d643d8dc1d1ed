// The PIN: login and logout, and how a token gets and changes it.
//
// A device has one PIN, the user's. A new token, made by C_InitToken, has the security officer's in
// its place, marked so in the table, until C_InitPIN gives it to the user.
#include "core/secret.h"
#include "device/anchor.h"
#include "device/create.h"
#include "device/device.h"
#include "keypair/keypair.h"
#include "pkcs11/call.h"
#include "pkcs11/table.h"
#include "pkcs11/token_change.h"
#include "pkcs11/view.h"

#include <errno.h>

namespace {
// A PIN as a string, wiped at the end. One that holds a NUL, or is too long, can't be any device's.
struct Pin {
  Wiped<MAX_PIN_SIZE + 1> text;
  CK_ULONG size;
  bool possible = false;
  Pin(const CK_UTF8CHAR* pin, CK_ULONG length) : size(length) {
    possible = length <= MAX_PIN_SIZE && memchr(pin, 0, length) == nullptr;
    if (possible && length > 0) memcpy(text.bytes, pin, length);
  }
  const char* Text() const { return reinterpret_cast<const char*>(text.bytes); }
  CK_RV CheckNew() const {
    if (size < MIN_PIN_SIZE || size > MAX_PIN_SIZE) return CKR_PIN_LEN_RANGE;
    return possible ? CKR_OK : CKR_PIN_INVALID;
  }
};
}  // namespace

// A fresh record of the slot's file, opened by the PIN. Caller holds `work`.
static CK_RV LoadVerified(Slot& slot, const Pin& pin, OwnedDeviceHandle& device, Stamp& stamp) {
  if (LookAt(slot.path.get(), stamp) < 0) return CKR_DEVICE_ERROR;
  Device* raw = nullptr;
  const int loaded = LoadDevice(slot.path.get(), &raw);
  if (loaded != 1) return loaded == 0 ? CKR_DEVICE_REMOVED : CKR_DEVICE_ERROR;
  device.reset(raw);
  if (raw->keypairCount == 0) {
    LogReason("a device without keypairs has no PIN; C_InitToken gives it one");
    return CKR_USER_PIN_NOT_INITIALIZED;
  }
  if (!pin.possible) return CKR_PIN_INCORRECT;
  const int verified = VerifyPin(raw, pin.Text());
  if (verified == VAKRO_OK) return CKR_OK;
  if (verified != VAKRO_WRONG_PIN) return CKR_HOST_MEMORY;
  LogUnopened(raw, pin.Text());
  return CKR_PIN_INCORRECT;
}

static CK_RV LogIn(Slot& slot, Login who, const Pin& pin) {
  const MutexLock work(slot.work);
  {
    const MutexLock lock(slot.state);
    if (slot.login == who) return CKR_USER_ALREADY_LOGGED_IN;
    if (slot.login != Login::NONE) return CKR_USER_ANOTHER_ALREADY_LOGGED_IN;
    if (who == Login::SO && slot.sessions != slot.writers) return CKR_SESSION_READ_ONLY_EXISTS;
  }
  OwnedDeviceHandle device;
  Stamp stamp;
  const CK_RV verified = LoadVerified(slot, pin, device, stamp);
  if (!device || device->keypairCount == 0) return verified;
  const bool hasSoPin = HasSoPin(FindAnchor(device.get()));
  if (hasSoPin && who == Login::USER) return CKR_USER_PIN_NOT_INITIALIZED;
  if (!hasSoPin && who == Login::SO) {
    LogReason("the PIN is the user's, and there is no other");
    return CKR_USER_TYPE_INVALID;
  }
  if (verified != CKR_OK) return verified;
  const CK_RV published = Publish(slot, device.release(), stamp);
  if (published != CKR_OK) return published;
  const MutexLock lock(slot.state);
  slot.login = who;
  return CKR_OK;
}

// The slot of a session, without holding the session: a login waits for other sessions' calls.
static CK_RV SlotOf(CK_SESSION_HANDLE handle, Slot** slot, bool* canWrite) {
  const SessionLock session(handle);
  if (!session) return CKR_SESSION_HANDLE_INVALID;
  *slot = (*session).slot;
  *canWrite = (*session).CanWrite();
  return CKR_OK;
}

CK_RV C_Login(CK_SESSION_HANDLE hSession, CK_USER_TYPE userType, CK_UTF8CHAR_PTR pPin,
              CK_ULONG ulPinLen) {
  return InCall("C_Login", [&]() -> CK_RV {
    Slot* slot = nullptr;
    bool canWrite = false;
    const CK_RV found = SlotOf(hSession, &slot, &canWrite);
    if (found != CKR_OK) return found;
    if (userType == CKU_CONTEXT_SPECIFIC) return CKR_OPERATION_NOT_INITIALIZED;
    if (userType != CKU_USER && userType != CKU_SO) return CKR_USER_TYPE_INVALID;
    if (pPin == nullptr) return CKR_ARGUMENTS_BAD;  // there is no other way to give it
    return LogIn(*slot, userType == CKU_USER ? Login::USER : Login::SO, Pin(pPin, ulPinLen));
  });
}

CK_RV C_Logout(CK_SESSION_HANDLE hSession) {
  return InCall("C_Logout", [&]() -> CK_RV {
    Slot* slot = nullptr;
    bool canWrite = false;
    const CK_RV found = SlotOf(hSession, &slot, &canWrite);
    if (found != CKR_OK) return found;
    {
      const MutexLock work(slot->work);
      if (slot->login == Login::NONE) return CKR_USER_NOT_LOGGED_IN;
      EndLogin(*slot);
    }
    EndPrivateWork(*slot);
    return CKR_OK;
  });
}

// --- Giving and changing the PIN -----------------------------------------------------------------

// Changes the PIN of the record and the file in one rewrite. The PIN is the user's from then on,
// unless `keepSo`.
static CK_RV ChangePinOf(TokenChange& change, const char* pin, bool keepSo) {
  if (!keepSo) change.view.hasSoPin = false;
  if (ChangePin(change.device(), pin) != VAKRO_OK) return CKR_HOST_MEMORY;
  return CommitTokenChange(change);
}

CK_RV C_InitPIN(CK_SESSION_HANDLE hSession, CK_UTF8CHAR_PTR pPin, CK_ULONG ulPinLen) {
  return InSession("C_InitPIN", hSession, [&](Session& session) -> CK_RV {
    if (pPin == nullptr) return CKR_ARGUMENTS_BAD;
    const Pin pin(pPin, ulPinLen);
    TokenChange change(*session.slot);
    if (change.slot.login != Login::SO) return CKR_USER_NOT_LOGGED_IN;
    const CK_RV checked = pin.CheckNew();
    if (checked != CKR_OK) return checked;
    const CK_RV begun = BeginTokenChange(change);
    return begun == CKR_OK ? ChangePinOf(change, pin.Text(), false) : begun;
  });
}

CK_RV C_SetPIN(CK_SESSION_HANDLE hSession, CK_UTF8CHAR_PTR pOldPin, CK_ULONG ulOldLen,
               CK_UTF8CHAR_PTR pNewPin, CK_ULONG ulNewLen) {
  return InSession("C_SetPIN", hSession, [&](Session& session) -> CK_RV {
    if (pOldPin == nullptr || pNewPin == nullptr) return CKR_ARGUMENTS_BAD;
    if (!session.CanWrite()) return CKR_SESSION_READ_ONLY;
    const Pin oldPin(pOldPin, ulOldLen), newPin(pNewPin, ulNewLen);
    TokenChange change(*session.slot);
    Slot& slot = change.slot;
    OwnedDeviceHandle verified;
    Stamp stamp;
    const CK_RV opened = LoadVerified(slot, oldPin, verified, stamp);
    if (opened != CKR_OK) return opened;
    const CK_RV checked = newPin.CheckNew();
    if (checked != CKR_OK) return checked;
    const bool hasSoPin = HasSoPin(FindAnchor(verified.get()));
    if (hasSoPin && slot.login != Login::SO) return CKR_USER_PIN_NOT_INITIALIZED;
    // Who is not logged in has shown the PIN all the same; the change takes the keys from here.
    const Login before = slot.login;
    const CK_RV published = Publish(slot, verified.release(), stamp);
    if (published != CKR_OK) return published;
    CK_RV result = BeginVerifiedChange(change);
    if (result == CKR_OK) result = ChangePinOf(change, newPin.Text(), true);
    if (before == Login::NONE) EndLogin(slot);
    return result;
  });
}

// --- C_InitToken ---------------------------------------------------------------------------------

static void ReadLabel(const CK_UTF8CHAR* padded, char (&label)[33]) {
  size_t length = 32;
  while (length > 0 && (padded[length - 1] == ' ' || padded[length - 1] == 0)) length--;
  memcpy(label, padded, length);
  label[length] = '\0';
  if (length == 0) memcpy(label, "Token", 6);
}

// The record of a token whose PIN is the security officer's.
static CK_RV MarkSoPin(Device* device) {
  View view;
  view.hasSoPin = true;
  return StoreTable(device, view);
}

static CK_RV MakeToken(const char* label, const char* pin) {
  const OwnedDevice device(NewDeviceRecord(nullptr, label));
  if (!device) return CKR_HOST_MEMORY;
  if (AddAnchor(device.get(), pin) != VAKRO_OK) return CKR_FUNCTION_FAILED;
  const CK_RV marked = MarkSoPin(device.get());
  if (marked != CKR_OK) return marked;
  errno = 0;
  const int stored = StoreNewDevice(device.get());
  if (stored != VAKRO_OK) {
    LogReason("%s could not be made: %s", device->filePath,
              stored == NO_ROOM ? "the folder is full" : strerror(errno));
    if (stored == NO_ROOM || errno == ENOSPC || errno == EDQUOT) return CKR_DEVICE_MEMORY;
    return errno == EACCES || errno == EROFS ? CKR_TOKEN_WRITE_PROTECTED : CKR_DEVICE_ERROR;
  }
  return AddSlot(device->filePath) != nullptr ? CKR_OK : CKR_HOST_MEMORY;
}

// A device that is there, without keys: it gets a new label and the security officer's PIN. Whoever
// does that has the PIN that it has, if it has one; what it holds stays.
static CK_RV InitDevice(Slot& slot, const char* label, const Pin& pin) {
  const MutexLock work(slot.work);
  DeviceChange change;
  const int begun = BeginChange(slot.path.get(), change);
  if (begun != 1) return begun == 0 ? CKR_DEVICE_REMOVED : CKR_DEVICE_ERROR;
  Device* const device = change.device;
  for (int i = 0; i < device->keypairCount; i++) {
    if (IsAnchor(device->keypairs[i]) != 0) continue;
    LogReason("the device holds keys; it is not made anew by any PIN");
    return CKR_FUNCTION_FAILED;
  }
  const int verified =
      device->keypairCount > 0 ? VerifyPin(device, pin.Text()) : AddAnchor(device, pin.Text());
  if (verified == VAKRO_WRONG_PIN) return CKR_PIN_INCORRECT;
  if (verified != VAKRO_OK) return CKR_FUNCTION_FAILED;
  View view;
  if (LoadTokenView(device, slot.view, view) != 1) return CKR_HOST_MEMORY;
  if (SeesLess(view, *slot.view)) return CKR_DEVICE_ERROR;
  view.hasSoPin = true;
  const CK_RV marked = StoreTable(device, view);
  if (marked != CKR_OK) return marked;
  memcpy(device->label, label, strlen(label) + 1);
  if (CommitChange(change) != 1) return CKR_DEVICE_ERROR;
  return Reload(slot);
}

CK_RV C_InitToken(CK_SLOT_ID slotID, CK_UTF8CHAR_PTR pPin, CK_ULONG ulPinLen,
                  CK_UTF8CHAR_PTR pLabel) {
  return InCall("C_InitToken", [&]() -> CK_RV {
    if (pPin == nullptr || pLabel == nullptr) return CKR_ARGUMENTS_BAD;
    Slot* const slot = FindSlot(slotID);
    if (slot == nullptr) return CKR_SLOT_ID_INVALID;
    const Pin pin(pPin, ulPinLen);
    {
      const MutexLock lock(slot->state);
      if (slot->sessions > 0) return CKR_SESSION_EXISTS;
    }
    char label[33];
    ReadLabel(pLabel, label);
    const CK_RV checked = pin.CheckNew();
    if (checked != CKR_OK)
      return slot->path && ulPinLen < MIN_PIN_SIZE ? CKR_PIN_INCORRECT : checked;
    return slot->path ? InitDevice(*slot, label, pin) : MakeToken(label, pin.Text());
  });
}
