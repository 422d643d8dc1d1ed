// Decryption with a private key and encryption with a public one.
#include "core/answer.h"
#include "core/error_mark.h"
#include "core/lock.h"
#include "core/secret.h"
#include "keypair/keypair.h"
#include "keypair/private_key.h"
#include "sm2/sm2.h"

#include <limits.h>
#include <string.h>

// The padding of an RSA encryption algorithm, or 0 for any other.
static int EncryptionPadding(unsigned int algorithm) {
  switch (algorithm) {
    case ALGORITHM_RSA_PKCS1_ENCRYPT:
      return RSA_PKCS1_PADDING;
    case ALGORITHM_RSA_RAW_ENCRYPT:
      return RSA_NO_PADDING;
    default:
      return 0;
  }
}

namespace {
// The caller's buffers of an encryption or decryption.
struct CipherRequest {
  const unsigned char* input;
  int inputLen;
  unsigned char* output;
  int size;
  int* length;
};
}  // namespace

static int DecryptSM2(EVP_PKEY* key, const CipherRequest& request) {
  if (request.inputLen <= SM2_CIPHER_OVERHEAD || request.input == nullptr || g_sm2 == nullptr)
    return VAKRO_FAILED;
  const int plaintextLen = request.inputLen - SM2_CIPHER_OVERHEAD;
  *request.length = plaintextLen;
  if (request.output == nullptr) return VAKRO_OK;
  if (request.size < plaintextLen) return VAKRO_BUFFER_TOO_SMALL;
  return SM2Decrypt(key, request.input, request.inputLen, request.output);
}

static int DecryptRSA(EVP_PKEY* key, unsigned int algorithm, const CipherRequest& request) {
  const RsaKey rsa(EVP_PKEY_get1_RSA(key));
  const int modulusSize = rsa ? RSA_size(rsa.get()) : 0;
  if (modulusSize < 1 || request.inputLen != modulusSize) return VAKRO_FAILED;
  if (request.output == nullptr) {
    *request.length = modulusSize;
    return VAKRO_OK;
  }
  const int padding = EncryptionPadding(algorithm);
  if (padding == 0 || request.input == nullptr) return VAKRO_FAILED;
  const auto blockSize = static_cast<size_t>(modulusSize);
  const SecretUtilBytes block(Allocate<unsigned char>(blockSize, "keypair"), blockSize);
  if (block.bytes == nullptr) return VAKRO_FAILED;
  const int plaintextLen =
      RSA_private_decrypt(modulusSize, request.input, block.bytes, rsa.get(), padding);
  if (plaintextLen < 0) return VAKRO_FAILED;
  return AnswerBytes(block.bytes, plaintextLen, request.output, request.size, request.length);
}

static int FetchUnderModuleLock(const Keypair* keypair, PrivateKey& fetched) {
  const ModuleLock lock;
  return lock.held ? FetchPrivateKey(keypair, fetched) : VAKRO_FAILED;
}

int DevicePrivateKeyDecrypt(Keypair* keypair, unsigned int algorithm, const void* /*parameters*/,
                            const unsigned char* ciphertext, int ciphertextLen,
                            unsigned char* plaintext, int size, int* length) {
  const ErrorMark mark;
  if (keypair == nullptr) return VAKRO_NULL_HANDLE;
  PrivateKey fetched;
  const int result = FetchUnderModuleLock(keypair, fetched);
  if (result != VAKRO_OK) return result;
  if (length == nullptr) return VAKRO_FAILED;
  const CipherRequest request = {ciphertext, ciphertextLen, plaintext, size, length};
  const Computing computing;
  switch (EVP_PKEY_get_id(fetched.key.get())) {
    case EVP_PKEY_EC:
      if (algorithm != ALGORITHM_SM2_ENCRYPT || fetched.curve != CURVE_SM2) return VAKRO_FAILED;
      return DecryptSM2(fetched.key.get(), request);
    case EVP_PKEY_RSA:
      return DecryptRSA(fetched.key.get(), algorithm, request);
    default:
      return VAKRO_FAILED;
  }
}

static int EncryptSM2(const PublicKey* key, const CipherRequest& request) {
  if (EVP_PKEY_get_id(key->key) != EVP_PKEY_EC || key->curve != CURVE_SM2 ||
      request.input == nullptr || request.inputLen < 1 ||
      request.inputLen > INT_MAX - SM2_CIPHER_OVERHEAD)
    return VAKRO_FAILED;
  const int needed = request.inputLen + SM2_CIPHER_OVERHEAD;
  *request.length = needed;
  if (request.output == nullptr) return VAKRO_OK;
  if (request.size < needed) return VAKRO_BUFFER_TOO_SMALL;
  if (g_sm2 == nullptr) return VAKRO_FAILED;  // the size is known without
  return SM2Encrypt(key->key, request.input, request.inputLen, request.output);
}

static int EncryptRSA(const PublicKey* key, int padding, const CipherRequest& request) {
  if (EVP_PKEY_get_id(key->key) != EVP_PKEY_RSA) return VAKRO_FAILED;
  const RsaKey rsa(EVP_PKEY_get1_RSA(key->key));
  if (!rsa) return VAKRO_FAILED;
  const int modulusSize = RSA_size(rsa.get());
  *request.length = modulusSize;
  if (request.output == nullptr) return VAKRO_OK;
  if (modulusSize > request.size) return VAKRO_BUFFER_TOO_SMALL;
  if (!IsBlock(request.input, request.inputLen)) return VAKRO_FAILED;
  if (padding == RSA_NO_PADDING && request.inputLen != modulusSize) return VAKRO_FAILED;
  const int written =
      RSA_public_encrypt(request.inputLen, request.input, request.output, rsa.get(), padding);
  return written == -1 ? VAKRO_FAILED : VAKRO_OK;
}

int DevicePublicKeyEncrypt(PublicKey* key, unsigned int algorithm, const void* /*parameters*/,
                           const unsigned char* plaintext, int plaintextLen,
                           unsigned char* ciphertext, int size, int* length) {
  const ErrorMark mark;
  if (key == nullptr || length == nullptr) return VAKRO_FAILED;
  const CipherRequest request = {plaintext, plaintextLen, ciphertext, size, length};
  const Computing computing;
  if (algorithm == ALGORITHM_SM2_ENCRYPT) return EncryptSM2(key, request);
  const int padding = EncryptionPadding(algorithm);
  return padding == 0 ? VAKRO_FAILED : EncryptRSA(key, padding, request);
}
