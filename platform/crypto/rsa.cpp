// RSA key encodings: the header and the PKCS#1 DER (RFC 8017, A.1). What goes in and out is DER
// to the letter and the end: OpenSSL's reader is lenient, so what it read must encode to the same
// bytes again.
#include "platform/crypto/crypto.h"
#include "platform/crypto/encoding.h"

#include <openssl/bn.h>
#include <openssl/rsa.h>

#include <limits.h>

using Der = std::span<const unsigned char>;
using RsaKey = std::unique_ptr<RSA, Release<RSA_free>>;

// Reads DER by d2i and checks it with i2d, both of the same type.
template <auto Read, auto Write>
static RsaKey ReadKey(Der der) {
  if (der.empty()) return nullptr;
  const unsigned char* at = der.data();
  RsaKey key(Read(nullptr, &at, static_cast<long>(der.size())));
  if (!key) return nullptr;
  if (BN_is_zero(RSA_get0_n(key.get())) || BN_is_zero(RSA_get0_e(key.get()))) return nullptr;
  if (Write(key.get(), nullptr) != static_cast<int>(der.size())) return nullptr;
  const SecretBytes again = NewSecret(der.size());
  unsigned char* to = again.get();
  if (!again || Write(key.get(), &to) != static_cast<int>(der.size())) return nullptr;
  if (CRYPTO_memcmp(again.get(), der.data(), der.size()) != 0) return nullptr;
  return key;
}

static constexpr auto ReadPrivateKey = ReadKey<d2i_RSAPrivateKey, i2d_RSAPrivateKey>;
static constexpr auto ReadPublicKey = ReadKey<d2i_RSAPublicKey, i2d_RSAPublicKey>;

static int Encode(const char* magic, Der der, unsigned char** encoding, int* encodingLen) {
  if (der.size() > INT_MAX - HEADER_LEN) return 0;
  Bytes result = NewArray<unsigned char>(HEADER_LEN + der.size());
  if (!result) return 0;
  PutHeader(result.get(), magic, KEY_RSA);
  memcpy(result.get() + HEADER_LEN, der.data(), der.size());
  return HandOut(result, HEADER_LEN + der.size(), encoding, encodingLen);
}

int VakroPKICryptoRSAPrivKeyFromDER(const unsigned char* der, int derLen, unsigned char** encoding,
                                    int* encodingLen) {
  if (der == nullptr || derLen < 0 || encoding == nullptr || encodingLen == nullptr) return 0;
  const Der bytes(der, static_cast<size_t>(derLen));
  return ReadPrivateKey(bytes) ? Encode(KEYPAIR_MAGIC, bytes, encoding, encodingLen) : 0;
}

int VakroPKICryptoRSAPrivKeyToDER(const unsigned char* encoding, int encodingLen,
                                  unsigned char** der, int* derLen) {
  Der body;
  if (der == nullptr || derLen == nullptr) return 0;
  if (!GetBody(encoding, encodingLen, KEYPAIR_MAGIC, KEY_RSA, &body)) return 0;
  if (!ReadPrivateKey(body)) return 0;
  Bytes result = NewArray<unsigned char>(body.size());
  if (!result) return 0;
  memcpy(result.get(), body.data(), body.size());
  return HandOut(result, body.size(), der, derLen);
}

int VakroPKICryptoRSAPubKeyFromDER(const unsigned char* der, int derLen, unsigned char** encoding,
                                   int* encodingLen) {
  if (der == nullptr || derLen < 0 || encoding == nullptr || encodingLen == nullptr) return 0;
  const Der bytes(der, static_cast<size_t>(derLen));
  return ReadPublicKey(bytes) ? Encode(PUBKEY_MAGIC, bytes, encoding, encodingLen) : 0;
}

int VakroPKICryptoDecodeRSAPubKey(const unsigned char* encoding, int encodingLen,
                                  unsigned char** modulus, int* modulusLen,
                                  unsigned char** exponent, int* exponentLen) {
  Der body;
  if (modulus == nullptr || modulusLen == nullptr) return 0;
  if (exponent == nullptr || exponentLen == nullptr) return 0;
  if (!GetBody(encoding, encodingLen, PUBKEY_MAGIC, KEY_RSA, &body)) return 0;
  const RsaKey key = ReadPublicKey(body);
  if (!key) return 0;
  const BIGNUM* const n = RSA_get0_n(key.get());
  const BIGNUM* const e = RSA_get0_e(key.get());
  Bytes nBytes = NewArray<unsigned char>(static_cast<size_t>(BN_num_bytes(n)));
  Bytes eBytes = NewArray<unsigned char>(static_cast<size_t>(BN_num_bytes(e)));
  if (!nBytes || !eBytes) return 0;
  const int nLen = BN_bn2bin(n, nBytes.get());
  const int eLen = BN_bn2bin(e, eBytes.get());
  HandOut(nBytes, static_cast<size_t>(nLen), modulus, modulusLen);
  return HandOut(eBytes, static_cast<size_t>(eLen), exponent, exponentLen);
}
