// A key as operations use it: held from their first call to their last, whatever becomes of the
// object, the token or the login meanwhile.
#ifndef VAKRO_PKCS11_KEY_H
#define VAKRO_PKCS11_KEY_H

#include "pkcs11/mechanisms.h"
#include "vakro_device.h"

#include <atomic>

struct Session;

// What a keypair, or a public key alone, is to operations. Never changed once it is made, so that
// threads may use it side by side, without a lock.
struct Key {
  std::atomic<unsigned int> references{1};
  Keypair* keypair = nullptr;      // DeviceFreeKeypair; NULL for a public key alone. After a logout
                                   // the device functions answer VAKRO_NOT_VERIFIED.
  PublicKey* publicKey = nullptr;  // DeviceFreePublicKey; its curve is known
  KeyKind kind = KeyKind::NONE;
  int bits = 0;
  int curve = 0;  // VakroCurve; 0 for RSA
};

void HoldKey(Key* key);
void ReleaseKey(Key* key);  // the last one frees it; NULL is ignored

// A reference on a key that gives itself back.
struct KeyUse {
  Key* key = nullptr;
  KeyUse() = default;
  KeyUse(const KeyUse&) = delete;
  KeyUse& operator=(const KeyUse&) = delete;
  ~KeyUse() { Reset(); }
  void Reset(Key* other = nullptr) {  // takes over a reference
    ReleaseKey(key);
    key = other;
  }
  const Key* operator->() const { return key; }
  explicit operator bool() const { return key != nullptr; }
};

// FetchKey finds the key of an object for one usage: CKA_SIGN and CKA_DECRYPT take a private key,
// CKA_VERIFY and CKA_ENCRYPT a public one. CKR_OK with `use` set, its publicKey not NULL, and for a
// private key its keypair; else CKR_KEY_HANDLE_INVALID, CKR_KEY_FUNCTION_NOT_PERMITTED or
// CKR_USER_NOT_LOGGED_IN. Whether the key fits the mechanism is the caller's to check.
CK_RV FetchKey(Session& session, CK_OBJECT_HANDLE handle, CK_ATTRIBUTE_TYPE usage, KeyUse& use);

#endif
