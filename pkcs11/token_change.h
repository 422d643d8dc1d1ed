// A change of a token: lock, fresh look, change, in one breath and one rewrite of the file.
#ifndef VAKRO_PKCS11_TOKEN_CHANGE_H
#define VAKRO_PKCS11_TOKEN_CHANGE_H

#include "device/change.h"
#include "pkcs11/slot.h"

// The file's lock, a record as it is now, with its keys open, and the objects of that record. What
// is changed in both reaches the file with CommitTokenChange, or not at all.
struct TokenChange {
  Slot& slot;
  const MutexLock work;
  DeviceChange file;
  View view;  // goes before the record that its keys belong to
  explicit TokenChange(Slot& of) : slot(of), work(of.work) {}
  Device* device() const { return file.device; }
};

// Begins; someone must be logged in. CKR_OK, CKR_USER_NOT_LOGGED_IN, CKR_DEVICE_REMOVED,
// CKR_DEVICE_ERROR, CKR_HOST_MEMORY.
CK_RV BeginTokenChange(TokenChange& change);
CK_RV BeginVerifiedChange(TokenChange& change);  // the slot's record is verified; nobody need be

// Writes the table of the view, making the anchor where there is none, and the file; then the slot
// shows what it has become. CKR_DEVICE_MEMORY when 64 keypairs leave no room for an anchor.
CK_RV CommitTokenChange(TokenChange& change);

// TakeOutKeypair removes a keypair from the record and its private key from the view. Its public
// key and certificates stay, as objects of their own.
CK_RV TakeOutKeypair(TokenChange& change, Object* privateKey);

// PutInKeypair puts a keypair into the record, enciphered under the PIN, and its objects into the
// view. It takes `made` over, also on failure. CKR_DEVICE_MEMORY when the device is full.
CK_RV PutInKeypair(TokenChange& change, Keypair* made, Object** privateKey, Object** publicKey);

// PutInCertificate puts a certificate into the list of the keypair whose public key it holds, or
// into the table, and makes its object.
CK_RV PutInCertificate(TokenChange& change, Span certificate, Object** made);

// TakeOutCertificate removes one from where it is. Its object is deleted.
CK_RV TakeOutCertificate(TokenChange& change, Object* certificate);

// PutInData makes a data object; a private one is enciphered to the anchor, which is made if there
// is none. SetData gives one another value, TakeOutData removes one.
CK_RV PutInData(TokenChange& change, Span value, bool isPrivate, Object** made);
CK_RV SetData(TokenChange& change, Object& object, Span value);
CK_RV TakeOutData(TokenChange& change, Object* object);

#endif
