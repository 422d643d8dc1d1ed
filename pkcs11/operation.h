// The operations of a session: digest, sign, verify, encrypt and decrypt. Each is a state machine
// that begins with its Init function and takes its input in one part or in many.
//
// What every function shares: the result is a CK_RV; the caller holds the session and nothing else,
// for no lock of a slot or of the module is held while a key works. An operation ends with the call
// that gives its result and with any failure; it goes on after a query for the size of the result
// and after CKR_BUFFER_TOO_SMALL.
#ifndef VAKRO_PKCS11_OPERATION_H
#define VAKRO_PKCS11_OPERATION_H

#include "core/openssl_owners.h"
#include "pkcs11/key.h"
#include "pkcs11/mechanisms.h"

#include <span>

using Bytes = std::span<const unsigned char>;
using DigestContext = std::unique_ptr<EVP_MD_CTX, Release<EVP_MD_CTX_free>>;

// Input that is kept until a key works on it. It may be secret: wiped before it is released.
struct Gathered {
  unsigned char* bytes = nullptr;  // vakro_free
  size_t length = 0;
  size_t capacity = 0;

  Gathered() = default;
  Gathered(const Gathered&) = delete;
  Gathered& operator=(const Gathered&) = delete;
  ~Gathered() { Clear(); }
  void Clear();
  bool Append(Bytes more);  // false, and nothing changed, when memory is out
  Bytes All() const { return {bytes, length}; }
};

struct Operation {
  const Mechanism* mechanism = nullptr;  // NULL: none is active
  CK_FLAGS use = 0;                      // the kind, such as CKF_SIGN
  bool updated = false;                  // input came in parts
  KeyUse key;                            // none for a digest
  DigestContext digest;                  // of the input, where the mechanism has a hash
  Gathered input;                        // where it has none
  // The parameters of PSS and OAEP.
  const Hash* hash = nullptr;
  const Hash* mask = nullptr;
  int saltLen = 0;
  Gathered label;
};

// One operation of each kind can be active at a time.
struct Operations {
  Operation digest, sign, verify, encrypt, decrypt;
};

// These wipe and release what active operations hold.
void EndOperation(Operation& operation);
void EndPrivateOperations(Operations& operations);  // those with a private key, for a logout
void EndOperations(Operations& operations);

// BeginOperation is the Init function of a kind.
//   operation  one of the session's
//   use        the kind: CKF_DIGEST, CKF_SIGN, CKF_VERIFY, CKF_ENCRYPT or CKF_DECRYPT
//   mechanism  the program's; NULL ends an active operation
//   key        not read for a digest
// On failure no operation is active, but for CKR_OPERATION_ACTIVE, which leaves the one that is.
CK_RV BeginOperation(Session& session, Operation& operation, CK_FLAGS use,
                     const CK_MECHANISM* mechanism, CK_OBJECT_HANDLE key);

// The calls that follow, for every kind. `bytes` and `length` are the program's; without bytes the
// pointer may be NULL. `out` NULL asks for the size of the result alone.

// UpdateOperation takes a part of the input. C_EncryptUpdate and C_DecryptUpdate, which could give
// a part of the result, give none: all of it comes at the end.
CK_RV UpdateOperation(Operation& operation, const CK_BYTE* bytes, CK_ULONG length);
CK_RV UpdateCipher(Operation& operation, const CK_BYTE* bytes, CK_ULONG length, const CK_BYTE* out,
                   CK_ULONG* outLen);

// These take all of the input, or none after the parts, and give the result.
CK_RV RunOperation(Operation& operation, const CK_BYTE* bytes, CK_ULONG length, CK_BYTE* out,
                   CK_ULONG* outLen);
CK_RV FinishOperation(Operation& operation, CK_BYTE* out, CK_ULONG* outLen);

// Likewise for a verification.
CK_RV RunVerification(Operation& operation, const CK_BYTE* bytes, CK_ULONG length,
                      const CK_BYTE* signature, CK_ULONG signatureLen);
CK_RV FinishVerification(Operation& operation, const CK_BYTE* signature, CK_ULONG signatureLen);

#endif
