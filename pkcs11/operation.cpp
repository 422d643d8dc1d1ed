// The life of an operation: its beginning with mechanism, parameters and key, its input, its end.
#include "pkcs11/operation.h"

#include "core/secret.h"
#include "pkcs11/log.h"
#include "pkcs11/schemes.h"

#include <limits.h>
#include <string.h>
#include <algorithm>

void Gathered::Clear() {
  if (bytes != nullptr) OPENSSL_cleanse(bytes, length);
  vakro_free(bytes);
  bytes = nullptr;
  length = capacity = 0;
}

bool Gathered::Append(Bytes more) {
  if (more.size() > capacity - length) {
    const size_t needed = length + more.size();
    if (needed < length || needed > INT_MAX) return false;
    // Room to grow, so that many small parts are copied a few times only; a first part, which
    // often is the only one, gets just what it needs.
    const size_t size = length == 0 ? needed : 2 * needed;
    unsigned char* const moved = Allocate<unsigned char>(size, "pkcs11");
    if (moved == nullptr) return false;
    if (length > 0) memcpy(moved, bytes, length);
    const size_t kept = length;
    Clear();
    bytes = moved;
    length = kept;
    capacity = size;
  }
  if (!more.empty()) memcpy(bytes + length, more.data(), more.size());
  length += more.size();
  return true;
}

namespace {
// Ends an operation at the end of a scope, unless it is to go on.
struct Ending {
  Operation& operation;
  bool goesOn = false;
  explicit Ending(Operation& ending) : operation(ending) {}
  Ending(const Ending&) = delete;
  Ending& operator=(const Ending&) = delete;
  ~Ending() {
    if (!goesOn) EndOperation(operation);
  }
  CK_RV GoOn(CK_RV result) {
    goesOn = true;
    return result;
  }
};

// The program's buffer for a result.
struct Room {
  unsigned char* buffer;  // NULL asks for the size alone
  CK_ULONG* length;       // in: the size of the buffer; out: what is needed, or what was written

  // HasTo says whether `size` bytes are to be written; if not, *answer is the call's result.
  bool HasTo(size_t size, CK_RV* answer) const {
    const CK_ULONG room = *length;
    *length = size;
    *answer = buffer != nullptr && room < size ? CKR_BUFFER_TOO_SMALL : CKR_OK;
    return buffer != nullptr && room >= size;
  }
};
}  // namespace

void EndOperation(Operation& operation) {
  operation.mechanism = nullptr;
  operation.use = 0;
  operation.updated = false;
  operation.key.Reset();
  operation.digest.reset();
  operation.input.Clear();
  operation.hash = nullptr;
  operation.mask = nullptr;
  operation.saltLen = 0;
  operation.label.Clear();
}

void EndPrivateOperations(Operations& operations) {
  EndOperation(operations.sign);
  EndOperation(operations.decrypt);
}

void EndOperations(Operations& operations) {
  for (Operation* operation : {&operations.digest, &operations.sign, &operations.verify,
                               &operations.encrypt, &operations.decrypt})
    EndOperation(*operation);
}

static CK_ATTRIBUTE_TYPE UsageOf(CK_FLAGS use) {
  switch (use) {
    case CKF_SIGN:
      return CKA_SIGN;
    case CKF_VERIFY:
      return CKA_VERIFY;
    case CKF_ENCRYPT:
      return CKA_ENCRYPT;
    default:
      return CKA_DECRYPT;
  }
}

static CK_RV TakeKey(Session& session, Operation& operation, CK_OBJECT_HANDLE key) {
  const CK_RV found = FetchKey(session, key, UsageOf(operation.use), operation.key);
  if (found != CKR_OK) return found;
  if (operation.key->kind != operation.mechanism->key) {
    LogReason("%s needs a key of another type", operation.mechanism->name);
    return CKR_KEY_TYPE_INCONSISTENT;
  }
  return CKR_OK;
}

static CK_RV BeginHash(Operation& operation) {
  const Hash* const hash = operation.mechanism->hash;
  if (hash == nullptr) return CKR_OK;
  operation.digest.reset(EVP_MD_CTX_new());
  if (!operation.digest) return CKR_HOST_MEMORY;
  return EVP_DigestInit_ex(operation.digest.get(), hash->method(), nullptr) == 1
             ? CKR_OK
             : CKR_FUNCTION_FAILED;
}

CK_RV BeginOperation(Session& session, Operation& operation, CK_FLAGS use,
                     const CK_MECHANISM* mechanism, CK_OBJECT_HANDLE key) {
  const bool active = operation.mechanism != nullptr;
  if (mechanism == nullptr) {
    EndOperation(operation);
    return active ? CKR_OK : CKR_ARGUMENTS_BAD;
  }
  if (active) return CKR_OPERATION_ACTIVE;
  const Mechanism* const row = FindMechanism(mechanism->mechanism);
  if (row == nullptr || (row->flags & use) == 0) {
    LogReason("mechanism 0x%lx can't do this", mechanism->mechanism);
    return CKR_MECHANISM_INVALID;
  }
  if (mechanism->pParameter == nullptr && mechanism->ulParameterLen != 0)
    return CKR_MECHANISM_PARAM_INVALID;
  Ending ending(operation);
  operation.mechanism = row;
  operation.use = use;
  CK_RV result = BeginHash(operation);
  if (result == CKR_OK && use != CKF_DIGEST) result = TakeKey(session, operation, key);
  if (result == CKR_OK) result = TakeParameters(operation, *mechanism);
  ending.goesOn = result == CKR_OK;
  return result;
}

// --- Input ---------------------------------------------------------------------------------------

static CK_RV CheckInput(const Operation& operation, const CK_BYTE* bytes, CK_ULONG length) {
  if (bytes == nullptr && length > 0) return CKR_ARGUMENTS_BAD;
  if (operation.digest || length <= MaxInput(operation) - operation.input.length) return CKR_OK;
  return operation.use == CKF_DECRYPT ? CKR_ENCRYPTED_DATA_LEN_RANGE : CKR_DATA_LEN_RANGE;
}

static CK_RV TakeInput(Operation& operation, Bytes part) {
  if (!operation.digest) return operation.input.Append(part) ? CKR_OK : CKR_HOST_MEMORY;
  return EVP_DigestUpdate(operation.digest.get(), part.data(), part.size()) == 1
             ? CKR_OK
             : CKR_FUNCTION_FAILED;
}

CK_RV UpdateOperation(Operation& operation, const CK_BYTE* bytes, CK_ULONG length) {
  if (operation.mechanism == nullptr) return CKR_OPERATION_NOT_INITIALIZED;
  Ending ending(operation);
  CK_RV result = CheckInput(operation, bytes, length);
  if (result == CKR_OK) result = TakeInput(operation, {bytes, length});
  operation.updated = true;
  ending.goesOn = result == CKR_OK;
  return result;
}

CK_RV UpdateCipher(Operation& operation, const CK_BYTE* bytes, CK_ULONG length, const CK_BYTE* out,
                   CK_ULONG* outLen) {
  if (operation.mechanism == nullptr) return CKR_OPERATION_NOT_INITIALIZED;
  if (outLen == nullptr) {
    EndOperation(operation);
    return CKR_ARGUMENTS_BAD;
  }
  *outLen = 0;
  return out == nullptr ? CKR_OK : UpdateOperation(operation, bytes, length);
}

// --- Results -------------------------------------------------------------------------------------

// Hands the digest of the input, or the input itself, to `work`.
template <class Work>
static CK_RV WithInput(Operation& operation, Work work) {
  if (!operation.digest) return work(operation.input.All());
  unsigned char digest[MAX_HASH_SIZE];
  if (EVP_DigestFinal_ex(operation.digest.get(), digest, nullptr) != 1) return CKR_FUNCTION_FAILED;
  return work(Bytes(digest, operation.mechanism->hash->size));
}

static bool IsDecryption(const Operation& operation) { return operation.use == CKF_DECRYPT; }

// The size of the result; of a plaintext a bound.
static size_t ResultSize(const Operation& operation, size_t inputLen) {
  switch (operation.use) {
    case CKF_DIGEST:
      return operation.mechanism->hash->size;
    case CKF_SIGN:
      return SignatureSize(*operation.key.key);
    case CKF_ENCRYPT:
      return CiphertextSize(operation, inputLen);
    default:
      return MaxPlaintextSize(operation, inputLen);
  }
}

static CK_RV AnswerPlaintext(Operation& operation, const Room& room) {
  const size_t size = ResultSize(operation, operation.input.length);
  const SecretUtilBytes plaintext(Allocate<unsigned char>(size, "pkcs11"), size);
  if (plaintext.bytes == nullptr) return CKR_HOST_MEMORY;
  size_t length = 0;
  CK_RV result = Decrypt(operation, plaintext.bytes, &length);
  if (result == CKR_OK && room.HasTo(length, &result))
    std::copy_n(plaintext.bytes, length, room.buffer);
  return result;
}

static CK_RV Answer(Operation& operation, const Room& room) {
  switch (operation.use) {
    case CKF_DIGEST:
      return WithInput(operation, [&](Bytes digest) -> CK_RV {
        std::copy(digest.begin(), digest.end(), room.buffer);
        return CKR_OK;
      });
    case CKF_SIGN:
      return WithInput(operation,
                       [&](Bytes input) { return SignInput(operation, input, room.buffer); });
    case CKF_ENCRYPT:
      return Encrypt(operation, room.buffer);
    default:
      return AnswerPlaintext(operation, room);
  }
}

// Where decryption alone can tell the size, a buffer that is smaller than the bound is tried.
static bool HasRoom(const Operation& operation, size_t inputLen, const Room& room, CK_RV* answer) {
  if (IsDecryption(operation) && operation.key->kind == KeyKind::KEY_RSA && room.buffer != nullptr)
    return true;
  return room.HasTo(ResultSize(operation, inputLen), answer);
}

CK_RV RunOperation(Operation& operation, const CK_BYTE* bytes, CK_ULONG length, CK_BYTE* out,
                   CK_ULONG* outLen) {
  if (operation.mechanism == nullptr) return CKR_OPERATION_NOT_INITIALIZED;
  Ending ending(operation);
  if (outLen == nullptr) return CKR_ARGUMENTS_BAD;
  if (operation.updated) return CKR_OPERATION_ACTIVE;
  const Room room = {out, outLen};
  CK_RV result = CheckInput(operation, bytes, length);
  if (result != CKR_OK) return result;
  if (!HasRoom(operation, length, room, &result)) return ending.GoOn(result);
  result = TakeInput(operation, {bytes, length});
  if (result == CKR_OK) result = Answer(operation, room);
  if (result != CKR_BUFFER_TOO_SMALL) return result;
  operation.input.Clear();  // it comes again
  return ending.GoOn(result);
}

CK_RV FinishOperation(Operation& operation, CK_BYTE* out, CK_ULONG* outLen) {
  if (operation.mechanism == nullptr) return CKR_OPERATION_NOT_INITIALIZED;
  Ending ending(operation);
  if (outLen == nullptr) return CKR_ARGUMENTS_BAD;
  const Room room = {out, outLen};
  CK_RV result = CKR_OK;
  if (!HasRoom(operation, operation.input.length, room, &result)) return ending.GoOn(result);
  result = Answer(operation, room);
  return result == CKR_BUFFER_TOO_SMALL ? ending.GoOn(result) : result;
}

// --- Verification --------------------------------------------------------------------------------

static CK_RV Verify(Operation& operation, const CK_BYTE* signature, CK_ULONG signatureLen) {
  if (signature == nullptr) return CKR_ARGUMENTS_BAD;
  return WithInput(operation, [&](Bytes input) {
    return VerifyInput(operation, input, {signature, signatureLen});
  });
}

CK_RV RunVerification(Operation& operation, const CK_BYTE* bytes, CK_ULONG length,
                      const CK_BYTE* signature, CK_ULONG signatureLen) {
  if (operation.mechanism == nullptr) return CKR_OPERATION_NOT_INITIALIZED;
  const Ending ending(operation);
  if (operation.updated) return CKR_OPERATION_ACTIVE;
  CK_RV result = CheckInput(operation, bytes, length);
  if (result == CKR_OK) result = TakeInput(operation, {bytes, length});
  return result == CKR_OK ? Verify(operation, signature, signatureLen) : result;
}

CK_RV FinishVerification(Operation& operation, const CK_BYTE* signature, CK_ULONG signatureLen) {
  if (operation.mechanism == nullptr) return CKR_OPERATION_NOT_INITIALIZED;
  const Ending ending(operation);
  return Verify(operation, signature, signatureLen);
}
