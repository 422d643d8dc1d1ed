// The C_ functions of the five kinds of operation.
#include "pkcs11/call.h"
#include "pkcs11/search.h"

// --- Digest --------------------------------------------------------------------------------------

CK_RV C_DigestInit(CK_SESSION_HANDLE handle, CK_MECHANISM_PTR mechanism) {
  return InSession("C_DigestInit", handle, [&](Session& session) {
    return BeginOperation(session, session.operations.digest, CKF_DIGEST, mechanism, 0);
  });
}

CK_RV C_Digest(CK_SESSION_HANDLE handle, CK_BYTE_PTR data, CK_ULONG dataLen, CK_BYTE_PTR digest,
               CK_ULONG_PTR digestLen) {
  return InSession("C_Digest", handle, [&](Session& session) {
    return RunOperation(session.operations.digest, data, dataLen, digest, digestLen);
  });
}

CK_RV C_DigestUpdate(CK_SESSION_HANDLE handle, CK_BYTE_PTR part, CK_ULONG partLen) {
  return InSession("C_DigestUpdate", handle, [&](Session& session) {
    return UpdateOperation(session.operations.digest, part, partLen);
  });
}

CK_RV C_DigestFinal(CK_SESSION_HANDLE handle, CK_BYTE_PTR digest, CK_ULONG_PTR digestLen) {
  return InSession("C_DigestFinal", handle, [&](Session& session) {
    return FinishOperation(session.operations.digest, digest, digestLen);
  });
}

// --- Sign ----------------------------------------------------------------------------------------

CK_RV C_SignInit(CK_SESSION_HANDLE handle, CK_MECHANISM_PTR mechanism, CK_OBJECT_HANDLE key) {
  return InSession("C_SignInit", handle, [&](Session& session) {
    return BeginOperation(session, session.operations.sign, CKF_SIGN, mechanism, key);
  });
}

CK_RV C_Sign(CK_SESSION_HANDLE handle, CK_BYTE_PTR data, CK_ULONG dataLen, CK_BYTE_PTR signature,
             CK_ULONG_PTR signatureLen) {
  return InSession("C_Sign", handle, [&](Session& session) {
    return RunOperation(session.operations.sign, data, dataLen, signature, signatureLen);
  });
}

CK_RV C_SignUpdate(CK_SESSION_HANDLE handle, CK_BYTE_PTR part, CK_ULONG partLen) {
  return InSession("C_SignUpdate", handle, [&](Session& session) {
    return UpdateOperation(session.operations.sign, part, partLen);
  });
}

CK_RV C_SignFinal(CK_SESSION_HANDLE handle, CK_BYTE_PTR signature, CK_ULONG_PTR signatureLen) {
  return InSession("C_SignFinal", handle, [&](Session& session) {
    return FinishOperation(session.operations.sign, signature, signatureLen);
  });
}

// --- Verify --------------------------------------------------------------------------------------

CK_RV C_VerifyInit(CK_SESSION_HANDLE handle, CK_MECHANISM_PTR mechanism, CK_OBJECT_HANDLE key) {
  return InSession("C_VerifyInit", handle, [&](Session& session) {
    return BeginOperation(session, session.operations.verify, CKF_VERIFY, mechanism, key);
  });
}

CK_RV C_Verify(CK_SESSION_HANDLE handle, CK_BYTE_PTR data, CK_ULONG dataLen, CK_BYTE_PTR signature,
               CK_ULONG signatureLen) {
  return InSession("C_Verify", handle, [&](Session& session) {
    return RunVerification(session.operations.verify, data, dataLen, signature, signatureLen);
  });
}

CK_RV C_VerifyUpdate(CK_SESSION_HANDLE handle, CK_BYTE_PTR part, CK_ULONG partLen) {
  return InSession("C_VerifyUpdate", handle, [&](Session& session) {
    return UpdateOperation(session.operations.verify, part, partLen);
  });
}

CK_RV C_VerifyFinal(CK_SESSION_HANDLE handle, CK_BYTE_PTR signature, CK_ULONG signatureLen) {
  return InSession("C_VerifyFinal", handle, [&](Session& session) {
    return FinishVerification(session.operations.verify, signature, signatureLen);
  });
}

// --- Encrypt -------------------------------------------------------------------------------------

CK_RV C_EncryptInit(CK_SESSION_HANDLE handle, CK_MECHANISM_PTR mechanism, CK_OBJECT_HANDLE key) {
  return InSession("C_EncryptInit", handle, [&](Session& session) {
    return BeginOperation(session, session.operations.encrypt, CKF_ENCRYPT, mechanism, key);
  });
}

CK_RV C_Encrypt(CK_SESSION_HANDLE handle, CK_BYTE_PTR data, CK_ULONG dataLen, CK_BYTE_PTR encrypted,
                CK_ULONG_PTR encryptedLen) {
  return InSession("C_Encrypt", handle, [&](Session& session) {
    return RunOperation(session.operations.encrypt, data, dataLen, encrypted, encryptedLen);
  });
}

CK_RV C_EncryptUpdate(CK_SESSION_HANDLE handle, CK_BYTE_PTR part, CK_ULONG partLen,
                      CK_BYTE_PTR encrypted, CK_ULONG_PTR encryptedLen) {
  return InSession("C_EncryptUpdate", handle, [&](Session& session) {
    return UpdateCipher(session.operations.encrypt, part, partLen, encrypted, encryptedLen);
  });
}

CK_RV C_EncryptFinal(CK_SESSION_HANDLE handle, CK_BYTE_PTR encrypted, CK_ULONG_PTR encryptedLen) {
  return InSession("C_EncryptFinal", handle, [&](Session& session) {
    return FinishOperation(session.operations.encrypt, encrypted, encryptedLen);
  });
}

// --- Decrypt -------------------------------------------------------------------------------------

CK_RV C_DecryptInit(CK_SESSION_HANDLE handle, CK_MECHANISM_PTR mechanism, CK_OBJECT_HANDLE key) {
  return InSession("C_DecryptInit", handle, [&](Session& session) {
    return BeginOperation(session, session.operations.decrypt, CKF_DECRYPT, mechanism, key);
  });
}

CK_RV C_Decrypt(CK_SESSION_HANDLE handle, CK_BYTE_PTR encrypted, CK_ULONG encryptedLen,
                CK_BYTE_PTR data, CK_ULONG_PTR dataLen) {
  return InSession("C_Decrypt", handle, [&](Session& session) {
    return RunOperation(session.operations.decrypt, encrypted, encryptedLen, data, dataLen);
  });
}

CK_RV C_DecryptUpdate(CK_SESSION_HANDLE handle, CK_BYTE_PTR encrypted, CK_ULONG encryptedLen,
                      CK_BYTE_PTR part, CK_ULONG_PTR partLen) {
  return InSession("C_DecryptUpdate", handle, [&](Session& session) {
    return UpdateCipher(session.operations.decrypt, encrypted, encryptedLen, part, partLen);
  });
}

CK_RV C_DecryptFinal(CK_SESSION_HANDLE handle, CK_BYTE_PTR part, CK_ULONG_PTR partLen) {
  return InSession("C_DecryptFinal", handle, [&](Session& session) {
    return FinishOperation(session.operations.decrypt, part, partLen);
  });
}

// --- All -----------------------------------------------------------------------------------------

CK_RV C_SessionCancel(CK_SESSION_HANDLE handle, CK_FLAGS flags) {
  return InSession("C_SessionCancel", handle, [&](Session& session) -> CK_RV {
    Operations& operations = session.operations;
    if ((flags & CKF_DIGEST) != 0) EndOperation(operations.digest);
    if ((flags & CKF_SIGN) != 0) EndOperation(operations.sign);
    if ((flags & CKF_VERIFY) != 0) EndOperation(operations.verify);
    if ((flags & CKF_ENCRYPT) != 0) EndOperation(operations.encrypt);
    if ((flags & CKF_DECRYPT) != 0) EndOperation(operations.decrypt);
    if ((flags & CKF_FIND_OBJECTS) != 0) EndSearch(session);
    return CKR_OK;
  });
}
