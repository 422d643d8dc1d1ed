// Signing and verification, dispatched on the algorithm and the type of the key.
#include "core/answer.h"
#include "core/error_mark.h"
#include "core/lock.h"
#include "core/secret.h"
#include "keypair/keypair.h"
#include "keypair/private_key.h"
#include "keypair/request.h"
#include "sm2/sm2.h"

#include <string.h>

static constexpr int SM2_SIGNATURE_SIZE = 80;  // the answer to a size query
static constexpr int MAX_ECDSA_BITS = 521;
static constexpr int MAX_ECDSA_SIGNATURE_SIZE = 160;  // P-521 needs 139

static int SignaturePadding(unsigned int algorithm) {
  return RsaPadding(algorithm, ALGORITHM_RSA_PKCS1_SIGN, ALGORITHM_RSA_RAW_SIGN);
}

static int SignRSA(const EVP_PKEY* key, unsigned int algorithm, const OperationRequest& request) {
  const Computing computing;
  const RsaKey rsa(EVP_PKEY_get1_RSA(const_cast<EVP_PKEY*>(key)));
  const int padding = SignaturePadding(algorithm);
  if (!rsa || padding == 0) return VAKRO_FAILED;
  const int modulusSize = RSA_size(rsa.get());
  int result = VAKRO_FAILED;
  if (!request.HasRoom(modulusSize, result)) return result;
  if (!request.HasInput()) return VAKRO_FAILED;
  const int written =
      RSA_private_encrypt(request.inputLen, request.input, request.output, rsa.get(), padding);
  return written == -1 ? VAKRO_FAILED : VAKRO_OK;
}

static int SignECDSA(const EVP_PKEY* key, const OperationRequest& request) {
  const Computing computing;
  const EcKey ec(EVP_PKEY_get1_EC_KEY(const_cast<EVP_PKEY*>(key)));
  if (!ec) return VAKRO_FAILED;
  if (request.output == nullptr) return AnswerSize(ECDSA_size(ec.get()), request.length);
  unsigned char signature[MAX_ECDSA_SIGNATURE_SIZE];
  unsigned int length = 0;
  if (EC_GROUP_order_bits(EC_KEY_get0_group(ec.get())) > MAX_ECDSA_BITS || !request.HasInput() ||
      ECDSA_sign(0, request.input, request.inputLen, signature, &length, ec.get()) != 1)
    return VAKRO_FAILED;
  return AnswerBytes(signature, static_cast<int>(length), request.output, request.size,
                     request.length);
}

static int SignSM2(Keypair* keypair, PrivateKey& fetched, const OperationRequest& request) {
  if (g_sm2 == nullptr || request.inputLen != SM2_FIELD_SIZE) return VAKRO_FAILED;
  if (request.output == nullptr) return AnswerSize(SM2_SIGNATURE_SIZE, request.length);
  if (!request.HasInput()) return VAKRO_FAILED;
  const Computing computing;
  // Computing the factor costs an eighth of a signature, so it stays with the record.
  int isNew = 0;
  if (SM2FindFactor(fetched.key.get(), &fetched.factor, &isNew) != 1) return VAKRO_FAILED;
  if (isNew != 0) KeepSigningFactor(keypair, fetched);
  unsigned char* signature = nullptr;
  int length = 0;
  const int result =
      SM2SignWithFactor(&fetched.factor, request.input, request.inputLen, &signature, &length);
  if (result != VAKRO_OK) return result;
  const LibBytes owned(signature);
  return AnswerBytes(signature, length, request.output, request.size, request.length);
}

int DeviceSign(Keypair* keypair, unsigned int algorithm, const void* /*parameters*/,
               const unsigned char* data, int dataLen, unsigned char* signature, int size,
               int* length) {
  const ErrorMark mark;
  if (keypair == nullptr) return VAKRO_NULL_HANDLE;
  PrivateKey fetched;
  const int result = FetchPrivateKey(keypair, fetched);
  if (result != VAKRO_OK) return result;
  if (length == nullptr) return VAKRO_FAILED;
  const OperationRequest request = {data, dataLen, signature, size, length};
  switch (EVP_PKEY_get_id(fetched.key.get())) {
    case EVP_PKEY_RSA:
      return SignRSA(fetched.key.get(), algorithm, request);
    case EVP_PKEY_EC:
      if (algorithm == ALGORITHM_ECDSA_SIGN) return SignECDSA(fetched.key.get(), request);
      if (algorithm == ALGORITHM_SM2_SIGN && fetched.curve == CURVE_SM2)
        return SignSM2(keypair, fetched, request);
      return VAKRO_FAILED;
    default:
      return VAKRO_FAILED;
  }
}

static int VerifyRSA(EVP_PKEY* key, unsigned int algorithm, const unsigned char* data, int dataLen,
                     const unsigned char* signature, int signatureLen) {
  const RsaKey rsa(EVP_PKEY_get1_RSA(key));
  const int padding = SignaturePadding(algorithm);
  if (!rsa || padding == 0 || signatureLen < 1 || signatureLen != RSA_size(rsa.get()))
    return VAKRO_FAILED;
  const UtilBytes block(Allocate<unsigned char>(static_cast<size_t>(signatureLen), "keypair"));
  if (!block) return VAKRO_FAILED;
  const int blockLen = RSA_public_decrypt(signatureLen, signature, block.get(), rsa.get(), padding);
  if (blockLen < 0 || blockLen != dataLen) return VAKRO_FAILED;
  return CRYPTO_memcmp(block.get(), data, static_cast<size_t>(dataLen)) == 0 ? VAKRO_OK
                                                                             : VAKRO_FAILED;
}

static int VerifyECDSA(EVP_PKEY* key, const unsigned char* data, int dataLen,
                       const unsigned char* signature, int signatureLen) {
  const EcKey ec(EVP_PKEY_get1_EC_KEY(key));
  if (!ec) return VAKRO_FAILED;
  return ECDSA_verify(0, data, dataLen, signature, signatureLen, ec.get()) == 1 ? VAKRO_OK
                                                                                : VAKRO_FAILED;
}

int DeviceVerify(PublicKey* key, unsigned int algorithm, const void* /*parameters*/,
                 const unsigned char* data, int dataLen, const unsigned char* signature,
                 int signatureLen) {
  const ErrorMark mark;
  if (key == nullptr || !IsBlock(data, dataLen) || signature == nullptr || signatureLen < 0)
    return VAKRO_FAILED;
  const Computing computing;
  switch (EVP_PKEY_get_id(key->key)) {
    case EVP_PKEY_RSA:
      return VerifyRSA(key->key, algorithm, data, dataLen, signature, signatureLen);
    case EVP_PKEY_EC:
      if (algorithm == ALGORITHM_ECDSA_SIGN)
        return VerifyECDSA(key->key, data, dataLen, signature, signatureLen);
      if (algorithm == ALGORITHM_SM2_SIGN && g_sm2 != nullptr && key->curve == CURVE_SM2 &&
          dataLen == SM2_FIELD_SIZE)
        return SM2Verify(key->key, data, dataLen, signature, signatureLen);
      return VAKRO_FAILED;
    default:
      return VAKRO_FAILED;
  }
}
