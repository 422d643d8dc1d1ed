// Decryption with a private key and encryption with a public one.
#include "core/answer.h"
#include "core/error_mark.h"
#include "core/lock.h"
#include "core/secret.h"
#include "keypair/keypair.h"
#include "keypair/private_key.h"
#include "keypair/request.h"
#include "sm2/sm2.h"

#include <limits.h>
#include <string.h>

static int EncryptionPadding(unsigned int algorithm) {
  return RsaPadding(algorithm, ALGORITHM_RSA_PKCS1_ENCRYPT, ALGORITHM_RSA_RAW_ENCRYPT);
}

static int DecryptSM2(EVP_PKEY* key, const OperationRequest& request) {
  if (request.inputLen <= SM2_CIPHER_OVERHEAD || request.input == nullptr || g_sm2 == nullptr)
    return VAKRO_FAILED;
  int result = VAKRO_FAILED;
  if (!request.HasRoom(request.inputLen - SM2_CIPHER_OVERHEAD, result)) return result;
  return SM2Decrypt(key, request.input, request.inputLen, request.output);
}

static int DecryptRSA(EVP_PKEY* key, unsigned int algorithm, const OperationRequest& request) {
  const RsaKey rsa(EVP_PKEY_get1_RSA(key));
  const int modulusSize = rsa ? RSA_size(rsa.get()) : 0;
  if (modulusSize < 1 || request.inputLen != modulusSize) return VAKRO_FAILED;
  if (request.output == nullptr) return AnswerSize(modulusSize, request.length);
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
  const OperationRequest request = {ciphertext, ciphertextLen, plaintext, size, length};
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

static int EncryptSM2(const PublicKey* key, const OperationRequest& request) {
  if (EVP_PKEY_get_id(key->key) != EVP_PKEY_EC || key->curve != CURVE_SM2 ||
      request.input == nullptr || request.inputLen < 1 ||
      request.inputLen > INT_MAX - SM2_CIPHER_OVERHEAD)
    return VAKRO_FAILED;
  int result = VAKRO_FAILED;
  if (!request.HasRoom(request.inputLen + SM2_CIPHER_OVERHEAD, result)) return result;
  if (g_sm2 == nullptr) return VAKRO_FAILED;  // the size is known without
  return SM2Encrypt(key->key, request.input, request.inputLen, request.output);
}

static int EncryptRSA(const PublicKey* key, int padding, const OperationRequest& request) {
  if (EVP_PKEY_get_id(key->key) != EVP_PKEY_RSA) return VAKRO_FAILED;
  const RsaKey rsa(EVP_PKEY_get1_RSA(key->key));
  if (!rsa) return VAKRO_FAILED;
  const int modulusSize = RSA_size(rsa.get());
  int result = VAKRO_FAILED;
  if (!request.HasRoom(modulusSize, result)) return result;
  if (!request.HasInput()) return VAKRO_FAILED;
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
  const OperationRequest request = {plaintext, plaintextLen, ciphertext, size, length};
  const Computing computing;
  if (algorithm == ALGORITHM_SM2_ENCRYPT) return EncryptSM2(key, request);
  const int padding = EncryptionPadding(algorithm);
  return padding == 0 ? VAKRO_FAILED : EncryptRSA(key, padding, request);
}
