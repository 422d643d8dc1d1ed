// What the calls that make objects share: who may, and how an object becomes a session's or the
// token's.
#ifndef VAKRO_PKCS11_OBJECT_MAKING_H
#define VAKRO_PKCS11_OBJECT_MAKING_H

#include "pkcs11/template.h"
#include "pkcs11/token_change.h"

// Who may make or change an object: a public one anyone, as far as sessions go; but what is kept on
// the token needs the PIN, under which the device file is written. Caller holds the slot's `state`.
CK_RV CheckMayWrite(const Session& session, bool isToken, bool isPrivate);
CK_RV CheckMayMake(const Session& session, bool isToken, bool isPrivate);  // takes it

using OwnedObject = std::unique_ptr<Object, Release<Delete<Object>>>;

// AddSessionObject gives a new object what the template wants, makes it the session's and hands out
// its handle.
CK_RV AddSessionObject(Session& session, OwnedObject object, const Template& wanted,
                       CK_OBJECT_HANDLE* handle);

// DeleteSessionObject does nothing where there is none. Caller holds `state`.
void DeleteSessionObject(Slot& slot, CK_OBJECT_HANDLE handle);

// CommitMade is CommitTokenChange for a change that makes objects, two at most, and hands out their
// handles; to NULL none.
struct Made {
  const Object* object;
  CK_OBJECT_HANDLE* handle;
};
CK_RV CommitMade(TokenChange& change, Made one, Made other = {});

// --- Keys (keypair_calls.cpp) --------------------------------------------------------------------
// `mechanism` is what the key was made by; NULL: it was made elsewhere.

// KeyOfKeypair takes the keypair over. NULL when memory is out.
ObjectKey* KeyOfKeypair(Keypair* keypair);

// MakeSessionKey makes an object of the session for a key.
CK_RV MakeSessionKey(Session& session, CK_OBJECT_CLASS cls, ObjectKey* key, const Template& wanted,
                     const CK_MECHANISM* mechanism, CK_OBJECT_HANDLE* handle);

// StoreMadeKeypair stores a keypair, with what both templates say of its objects; `inherited` is
// what is known of the private key before. `publicHandle` NULL: the private key is all that the
// client makes, or the public key is to be the session's.
CK_RV StoreMadeKeypair(Session& session, OwnedKeypair keypair, Span inherited,
                       const Template& privateKey, const Template& publicKey,
                       const CK_MECHANISM* mechanism, CK_OBJECT_HANDLE* privateHandle,
                       CK_OBJECT_HANDLE* publicHandle);

// StorePublicKey stores a public key alone.
CK_RV StorePublicKey(Session& session, Span encoding, const Template& wanted,
                     const CK_MECHANISM* mechanism, CK_OBJECT_HANDLE* handle);

// --- Any (create_object.cpp) ---------------------------------------------------------------------

// CreateObject is C_CreateObject.
CK_RV CreateObject(Session& session, const Template& wanted, CK_OBJECT_HANDLE* handle);

#endif
