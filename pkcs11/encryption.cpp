// The encryption schemes.
#include "pkcs11/schemes.h"

#include "core/secret.h"
#include "sm2/sm2.h"

#include <algorithm>

static size_t OaepOverhead(const Operation& operation) { return 2 * operation.hash->size + 2; }

size_t CiphertextSize(const Operation& operation, size_t inputLen) {
  const Key& key = *operation.key.key;
  return key.kind == KeyKind::KEY_SM2 ? inputLen + SM2_CIPHER_OVERHEAD : ModulusSize(key);
}

size_t MaxPlaintextSize(const Operation& operation, size_t inputLen) {
  const Key& key = *operation.key.key;
  switch (operation.mechanism->scheme) {
    case Scheme::RSA_PKCS:
      return ModulusSize(key) - PKCS_PADDING_SIZE;
    case Scheme::RSA_OAEP:
      return ModulusSize(key) - OaepOverhead(operation);
    case Scheme::RSA_RAW:
      return ModulusSize(key);
    default:
      return inputLen > SM2_CIPHER_OVERHEAD ? inputLen - SM2_CIPHER_OVERHEAD : 0;
  }
}

static bool EncryptBlock(const Key& key, unsigned int algorithm, Bytes block,
                         unsigned char* ciphertext, size_t size) {
  int length = 0;
  return DevicePublicKeyEncrypt(key.publicKey, algorithm, nullptr, block.data(),
                                static_cast<int>(block.size()), ciphertext, static_cast<int>(size),
                                &length) == VAKRO_OK;
}

static bool PadOaep(const Operation& operation, size_t size, unsigned char* block) {
  const Bytes input = operation.input.All();
  const Bytes label = operation.label.All();
  return RSA_padding_add_PKCS1_OAEP_mgf1(block, static_cast<int>(size), input.data(),
                                         static_cast<int>(input.size()), label.data(),
                                         static_cast<int>(label.size()), operation.hash->method(),
                                         operation.mask->method()) == 1;
}

static CK_RV EncryptRsa(const Operation& operation, unsigned char* ciphertext) {
  const Key& key = *operation.key.key;
  const size_t size = ModulusSize(key);
  Bytes block = operation.input.All();
  unsigned int algorithm = ALGORITHM_RSA_RAW_ENCRYPT;
  Wiped<MAX_MODULUS_SIZE> padded;
  switch (operation.mechanism->scheme) {
    case Scheme::RSA_PKCS:
      algorithm = ALGORITHM_RSA_PKCS1_ENCRYPT;
      break;
    case Scheme::RSA_RAW:
      if (!FillRaw(key, block, padded.bytes)) return CKR_DATA_INVALID;
      block = {padded.bytes, size};
      break;
    default:
      if (!PadOaep(operation, size, padded.bytes)) return CKR_FUNCTION_FAILED;
      block = {padded.bytes, size};
      break;
  }
  return EncryptBlock(key, algorithm, block, ciphertext, size) ? CKR_OK : CKR_FUNCTION_FAILED;
}

CK_RV Encrypt(Operation& operation, unsigned char* ciphertext) {
  const Key& key = *operation.key.key;
  if (key.kind == KeyKind::KEY_RSA) return EncryptRsa(operation, ciphertext);
  const Bytes input = operation.input.All();
  if (input.empty()) return CKR_DATA_LEN_RANGE;
  const size_t size = input.size() + SM2_CIPHER_OVERHEAD;
  if (!EncryptBlock(key, ALGORITHM_SM2_ENCRYPT, input, ciphertext, size))
    return CKR_FUNCTION_FAILED;
  if (operation.mechanism->scheme == Scheme::SM2_C1C3C2)
    std::rotate(ciphertext + SM2_POINT_SIZE, ciphertext + size - SM2_FIELD_SIZE, ciphertext + size);
  return CKR_OK;
}

static CK_RV DecryptBlock(const Key& key, unsigned int algorithm, Bytes block,
                          unsigned char* plaintext, size_t size, size_t* length) {
  int written = 0;
  const int result = DevicePrivateKeyDecrypt(key.keypair, algorithm, nullptr, block.data(),
                                             static_cast<int>(block.size()), plaintext,
                                             static_cast<int>(size), &written);
  if (result == VAKRO_NOT_VERIFIED) return CKR_USER_NOT_LOGGED_IN;
  if (result != VAKRO_OK) return CKR_ENCRYPTED_DATA_INVALID;
  *length = static_cast<size_t>(written);
  return CKR_OK;
}

// The decoding by OpenSSL takes the same time for every block.
static CK_RV DecryptOaep(const Operation& operation, unsigned char* plaintext, size_t* length) {
  const Key& key = *operation.key.key;
  const Bytes label = operation.label.All();
  Wiped<MAX_MODULUS_SIZE> block;
  size_t blockLen = 0;
  const CK_RV result = DecryptBlock(key, ALGORITHM_RSA_RAW_ENCRYPT, operation.input.All(),
                                    block.bytes, sizeof(block.bytes), &blockLen);
  if (result != CKR_OK) return result;
  const int size = static_cast<int>(blockLen);
  const int written = RSA_padding_check_PKCS1_OAEP_mgf1(
      plaintext, static_cast<int>(MaxPlaintextSize(operation, blockLen)), block.bytes, size, size,
      label.data(), static_cast<int>(label.size()), operation.hash->method(),
      operation.mask->method());
  if (written < 0) return CKR_ENCRYPTED_DATA_INVALID;
  *length = static_cast<size_t>(written);
  return CKR_OK;
}

static CK_RV DecryptSm2(Operation& operation, unsigned char* plaintext, size_t* length) {
  Gathered& input = operation.input;
  if (input.length <= SM2_CIPHER_OVERHEAD) return CKR_ENCRYPTED_DATA_LEN_RANGE;
  if (operation.mechanism->scheme == Scheme::SM2_C1C3C2)
    std::rotate(input.bytes + SM2_POINT_SIZE, input.bytes + SM2_CIPHER_OVERHEAD,
                input.bytes + input.length);
  return DecryptBlock(*operation.key.key, ALGORITHM_SM2_ENCRYPT, input.All(), plaintext,
                      input.length - SM2_CIPHER_OVERHEAD, length);
}

CK_RV Decrypt(Operation& operation, unsigned char* plaintext, size_t* length) {
  const Key& key = *operation.key.key;
  if (key.kind == KeyKind::KEY_SM2) return DecryptSm2(operation, plaintext, length);
  if (operation.input.length != ModulusSize(key)) return CKR_ENCRYPTED_DATA_LEN_RANGE;
  switch (operation.mechanism->scheme) {
    case Scheme::RSA_OAEP:
      return DecryptOaep(operation, plaintext, length);
    case Scheme::RSA_PKCS:
      return DecryptBlock(key, ALGORITHM_RSA_PKCS1_ENCRYPT, operation.input.All(), plaintext,
                          MaxPlaintextSize(operation, 0), length);
    default:
      return DecryptBlock(key, ALGORITHM_RSA_RAW_ENCRYPT, operation.input.All(), plaintext,
                          ModulusSize(key), length);
  }
}
