// Public-key handles, and the RSA side of the public-key encoding.
#include "core/answer.h"
#include "core/error_mark.h"
#include "core/lock.h"
#include "core/openssl_owners.h"
#include "keypair/keypair.h"
#include "sm2/sm2.h"

#include <limits.h>
#include <string.h>

using OwnedPublicKey = std::unique_ptr<PublicKey, Release<DeviceFreePublicKey>>;

EVP_PKEY* WrapRSA(RSA* rsa) {
  EvpKey key(EVP_PKEY_new());
  if (!key || EVP_PKEY_set1_RSA(key.get(), rsa) != 1) return nullptr;
  return key.release();
}

PublicKey* NewPublicKey(void) { return Allocate<PublicKey>(1, "keypair"); }

int DeviceFreePublicKey(PublicKey* key) {
  if (key == nullptr) return VAKRO_NULL_HANDLE;
  FreeIfSet<vakro_free>(key->publicKey);
  EVP_PKEY_free(key->key);
  vakro_free(key);
  return VAKRO_OK;
}

static bool CopyEncoding(PublicKey* key, const unsigned char* encoding, int length) {
  if (encoding == nullptr || length < 0) return false;
  const auto size = static_cast<size_t>(length);
  key->publicKey = Allocate<unsigned char>(size, "keypair");
  if (key->publicKey == nullptr) return false;
  memcpy(key->publicKey, encoding, size);
  key->publicKeyLen = length;
  return true;
}

PublicKey* DeviceGetPublicKeyFromKeypair(Keypair* keypair) {
  const ErrorMark mark;
  if (keypair == nullptr) return nullptr;
  OwnedPublicKey key(NewPublicKey());
  if (!key) return nullptr;
  key->algorithm = static_cast<int>(keypair->algorithm);
  key->bits = static_cast<int>(keypair->bits);
  key->curve = ReadShared(keypair->curve);
  if (!CopyEncoding(key.get(), keypair->publicKey, keypair->publicKeyLen)) return nullptr;
  const Computing computing;
  int bits = 0;
  int curve = 0;
  key->key = GetPublicKey(keypair->algorithm, key->publicKey, key->publicKeyLen, &bits, &curve);
  return key->key != nullptr ? key.release() : nullptr;
}

int DeviceImportPublicKey(Device* /*device*/, const unsigned char* encoding, int encodingLen,
                          PublicKey** out) {
  const ErrorMark mark;
  if (out == nullptr || encoding == nullptr || encodingLen < KEY_HEADER_SIZE) return VAKRO_FAILED;
  if (memcmp(encoding, PUBLIC_KEY_MAGIC, MAGIC_SIZE) != 0) return VAKRO_FAILED;
  const unsigned int algorithm = be2int(encoding + MAGIC_SIZE);
  const Computing computing;
  int bits = 0;
  int curve = 0;
  EvpKey evp(GetPublicKey(algorithm, encoding, encodingLen, &bits, &curve));
  if (!evp) return VAKRO_FAILED;
  OwnedPublicKey key(NewPublicKey());
  if (!key || !CopyEncoding(key.get(), encoding, encodingLen)) return VAKRO_FAILED;
  key->algorithm = static_cast<int>(algorithm);
  key->bits = bits;
  key->curve = curve;
  key->key = evp.release();
  *out = key.release();
  return VAKRO_OK;
}

int DeviceExportPublicKey(PublicKey* key, unsigned char* buffer, int size, int* length) {
  if (key == nullptr) return VAKRO_NULL_HANDLE;
  return AnswerBytes(key->publicKey, key->publicKeyLen, buffer, size, length);
}

int DeviceGetPublicKeyAlgorithm(PublicKey* key) { return key == nullptr ? 0 : key->algorithm; }

int DeviceGetPublicKeyBits(PublicKey* key) { return key == nullptr ? 0 : key->bits; }

EVP_PKEY* GetPublicKey(unsigned int algorithm, const unsigned char* encoding, int length, int* bits,
                       int* curve) {
  switch (algorithm) {
    case ALGORITHM_RSA:
      return GetRSAPublicKey(encoding, length, bits);
    case ALGORITHM_ECC:
      return GetECCPublicKey(encoding, length, bits, curve);
    default:
      return nullptr;
  }
}

EVP_PKEY* GetRSAPublicKey(const unsigned char* encoding, int length, int* bits) {
  unsigned char* modulus = nullptr;
  unsigned char* exponent = nullptr;
  int modulusLen = 0;
  int exponentLen = 0;
  if (VakroPKICryptoDecodeRSAPubKey(encoding, length, &modulus, &modulusLen, &exponent,
                                    &exponentLen) != 1)
    return nullptr;
  const LibBytes ownedModulus(modulus);
  const LibBytes ownedExponent(exponent);
  const RsaKey rsa(RSA_new());
  BigNum n(BN_bin2bn(modulus, modulusLen, nullptr));
  BigNum e(BN_bin2bn(exponent, exponentLen, nullptr));
  if (!rsa || !n || !e) return nullptr;
  const int modulusBits = BN_num_bits(n.get());
  if (RSA_set0_key(rsa.get(), n.get(), e.get(), nullptr) != 1) return nullptr;
  (void)n.release();  // now the key's
  (void)e.release();
  EVP_PKEY* key = WrapRSA(rsa.get());
  if (key != nullptr) *bits = modulusBits;
  return key;
}

int ToRSAPublicKeyEncode(RSA* rsa, unsigned char** encoding, int* encodingLen) {
  unsigned char* der = nullptr;
  const int derLen = i2d_RSAPublicKey(rsa, &der);
  if (derLen <= 0) return 0;
  const OpensslBytes owned(der);
  LibOutput made;
  const int result = VakroPKICryptoRSAPubKeyFromDER(der, derLen, &made.bytes, &made.length);
  return made.HandOut(result, encoding, encodingLen);
}
