// Private keys at rest. The PIN and a salt of the keypair's own give, by PBKDF2 with HMAC-SHA-512
// (RFC 8018), the cipher key and the first part of the nonce; the authenticated cipher binds the
// blob to its device file through the associated data. docs/device-file.md draws it.
#include "core/answer.h"
#include "core/lock.h"
#include "core/openssl_owners.h"
#include "core/secret.h"
#include "keypair/keypair.h"
#include "sm2/sm2.h"
#include "store/store.h"

#include <openssl/rand.h>

#include <limits.h>
#include <string.h>

static constexpr int PBKDF2_ITERATIONS = 2000;
static constexpr int SALT_SIZE = 32;
static constexpr int IV_SIZE = 16;
static constexpr int CIPHER_KEY_SIZE = 32;
static constexpr int NONCE_PREFIX_SIZE = 8;  // from the derivation; the keypair's iv follows
static constexpr int MATERIAL_SIZE = CIPHER_KEY_SIZE + NONCE_PREFIX_SIZE;
static constexpr int MAX_NONCE_SIZE = 64;
static constexpr int TAG_SIZE = 16;
static constexpr char AAD_TEXT[] = "password";
static constexpr int AAD_TEXT_SIZE = sizeof(AAD_TEXT) - 1;

namespace {
// What one encryption or decryption is given besides the data. `params` points into the record.
struct CipherInputs {
  Wiped<MATERIAL_SIZE> material;
  Wiped<MAX_NONCE_SIZE> nonce;
  unsigned char aad[4 + AAD_TEXT_SIZE] = {};
  AEADParams params = {};

  bool Derive(const char* pin, unsigned int fileTag, const Keypair* keypair);
};
}  // namespace

bool CipherInputs::Derive(const char* pin, unsigned int fileTag, const Keypair* keypair) {
  // In a file both may have any length, and NULL may stand for none.
  const int ivLen = keypair->ivLen;
  if (ivLen < 0 || ivLen > MAX_NONCE_SIZE - NONCE_PREFIX_SIZE) return false;
  const size_t pinLen = strlen(pin);
  if (pinLen > INT_MAX) return false;
  if (PKCS5_PBKDF2_HMAC(pin, static_cast<int>(pinLen), keypair->salt, keypair->saltLen,
                        PBKDF2_ITERATIONS, EVP_sha512(), MATERIAL_SIZE, material.bytes) != 1)
    return false;
  memcpy(nonce.bytes, material.bytes + CIPHER_KEY_SIZE, NONCE_PREFIX_SIZE);
  if (ivLen > 0) memcpy(nonce.bytes + NONCE_PREFIX_SIZE, keypair->iv, static_cast<size_t>(ivLen));
  int2be(fileTag, aad);
  memcpy(aad + 4, AAD_TEXT, AAD_TEXT_SIZE);
  params = {TAG_SIZE, nonce.bytes, NONCE_PREFIX_SIZE + ivLen, aad, sizeof(aad)};
  return true;
}

static unsigned char* NewBytes(size_t size, int line = __builtin_LINE()) {
  return Allocate<unsigned char>(size, "keypair", line);
}

int EncryptKeypairData(Device* device, Keypair* keypair, const unsigned char* plaintext,
                       int plaintextLen) {
  if (plaintextLen < 0) return 0;
  CipherInputs inputs;
  if (!inputs.Derive(device->pin, device->fileTag, keypair)) return 0;
  const UtilBytes output(NewBytes(static_cast<size_t>(plaintextLen) + CIPHER_SLACK));
  if (!output) return 0;
  unsigned int outputLen = 0;
  if (CalculateCipher(1, PRIVATE_KEY_CIPHER_ID, inputs.material.bytes, CIPHER_KEY_SIZE, plaintext,
                      static_cast<unsigned int>(plaintextLen), output.get(), &outputLen,
                      &inputs.params) != 1)
    return 0;
  keypair->encryptedPrivateKey = NewBytes(outputLen);
  if (keypair->encryptedPrivateKey == nullptr) return 0;
  memcpy(keypair->encryptedPrivateKey, output.get(), outputLen);
  keypair->encryptedPrivateKeyLen = static_cast<int>(outputLen);
  return 1;
}

static UtilBytes RandomBytes(int size) {
  UtilBytes bytes(NewBytes(static_cast<size_t>(size)));
  if (bytes && RAND_bytes(bytes.get(), size) != 1) bytes.reset();
  return bytes;
}

// Gives the keypair fresh salt and iv and encrypts what `encode`, a function of two out-arguments,
// makes of its private key.
template <class Encode>
static int EncryptEncoding(Device* device, Keypair* keypair, const Encode& encode) {
  UtilBytes salt = RandomBytes(SALT_SIZE);
  if (!salt) return 0;
  UtilBytes iv = RandomBytes(IV_SIZE);
  if (!iv) return 0;
  unsigned char* encoding = nullptr;
  int encodingLen = 0;
  if (encode(&encoding, &encodingLen) != 1) return 0;
  const KeyLibBytes owned(encoding, static_cast<size_t>(encodingLen));
  keypair->salt = salt.get();
  keypair->saltLen = SALT_SIZE;
  keypair->iv = iv.get();
  keypair->ivLen = IV_SIZE;
  if (EncryptKeypairData(device, keypair, encoding, encodingLen) == 1) {
    salt.release();
    iv.release();
    return 1;
  }
  keypair->salt = nullptr;
  keypair->saltLen = 0;
  keypair->iv = nullptr;
  keypair->ivLen = 0;
  return 0;
}

int EncryptRSAKeypair(Device* device, Keypair* keypair) {
  return EncryptEncoding(device, keypair, [&](unsigned char** encoding, int* encodingLen) {
    const RsaKey rsa(EVP_PKEY_get1_RSA(keypair->privateKey));
    return rsa ? EncodeRSAKeypair(rsa.get(), encoding, encodingLen) : 0;
  });
}

int EncryptECCKeypair(Device* device, Keypair* keypair) {
  return EncryptEncoding(device, keypair, [&](unsigned char** encoding, int* encodingLen) {
    const EcKey ec(EVP_PKEY_get1_EC_KEY(keypair->privateKey));
    return ec ? EncodeECCKeypair(keypair->curve, ec.get(), encoding, encodingLen) : 0;
  });
}

int EncodeRSAKeypair(RSA* rsa, unsigned char** encoding, int* encodingLen) {
  const int size = i2d_RSAPrivateKey(rsa, nullptr);
  if (size <= 0) return 0;
  const KeyUtilBytes der(NewBytes(static_cast<size_t>(size)), static_cast<size_t>(size));
  if (der.bytes == nullptr) return 0;
  unsigned char* at = der.bytes;
  if (i2d_RSAPrivateKey(rsa, &at) != size) return 0;
  LibOutput made;
  const int result = VakroPKICryptoRSAPrivKeyFromDER(der.bytes, size, &made.bytes, &made.length);
  return made.HandOut(result, encoding, encodingLen);
}

// What deciphering the stored key may need; 0 when there is none.
static size_t DecipheredSize(const Keypair* keypair) {
  if (keypair->encryptedPrivateKey == nullptr || keypair->encryptedPrivateKeyLen < 0) return 0;
  return static_cast<size_t>(keypair->encryptedPrivateKeyLen) + CIPHER_SLACK;
}

static bool Decipher(const Keypair* keypair, const char* pin, const KeyUtilBytes& output,
                     unsigned int* length) {
  CipherInputs inputs;
  return output.bytes != nullptr && inputs.Derive(pin, keypair->device->fileTag, keypair) &&
         CalculateCipher(0, PRIVATE_KEY_CIPHER_ID, inputs.material.bytes, CIPHER_KEY_SIZE,
                         keypair->encryptedPrivateKey,
                         static_cast<unsigned int>(keypair->encryptedPrivateKeyLen), output.bytes,
                         length, &inputs.params) == 1;
}

EVP_PKEY* DecryptKeyPair(unsigned int algorithm, const Keypair* keypair, const char* pin,
                         int* curve) {
  const size_t size = DecipheredSize(keypair);
  if (size == 0) return nullptr;
  const KeyUtilBytes output(NewBytes(size), size);
  unsigned int length = 0;
  if (!Decipher(keypair, pin, output, &length)) return nullptr;
  return DecodePair(algorithm, output.bytes, static_cast<int>(length), curve);
}

int IsKeypairsPin(const Keypair* keypair, const char* pin) {
  const size_t size = DecipheredSize(keypair);
  if (size == 0) return 0;
  const KeyUtilBytes output(NewBytes(size), size);
  unsigned int length = 0;
  return Decipher(keypair, pin, output, &length) ? 1 : 0;
}

static EVP_PKEY* DecodeRSAEncoding(const unsigned char* encoding, int length) {
  unsigned char* der = nullptr;
  int derLen = 0;
  if (VakroPKICryptoRSAPrivKeyToDER(encoding, length, &der, &derLen) != 1) return nullptr;
  const KeyLibBytes owned(der, static_cast<size_t>(derLen));
  return DecodeRSAPair(der, derLen);
}

EVP_PKEY* DecodePair(unsigned int algorithm, const unsigned char* encoding, int length,
                     int* curve) {
  switch (algorithm) {
    case ALGORITHM_RSA:
      return DecodeRSAEncoding(encoding, length);
    case ALGORITHM_ECC:
      return DecodeECCPair(encoding, length, curve);
    default:
      return nullptr;
  }
}

EVP_PKEY* DecodeRSAPair(const unsigned char* der, int length) {
  const unsigned char* at = der;
  const RsaKey rsa(d2i_RSAPrivateKey(nullptr, &at, length));
  if (!rsa || at != der + length) return nullptr;  // bytes left over mean damage
  return WrapRSA(rsa.get());
}
