// Hash and MAC objects. The final step ends an object: later steps fail.
#include "platform/crypto/crypto.h"

#include <openssl/hmac.h>

struct VakroPKICryptoHash {
  EVP_MD_CTX* context;  // EVP_MD_CTX_free; NULL after the final step
};

struct VakroPKICryptoMac {
  HMAC_CTX* context;  // HMAC_CTX_free; NULL after the final step
};

using DigestContext = std::unique_ptr<EVP_MD_CTX, Release<EVP_MD_CTX_free>>;
using HmacContext = std::unique_ptr<HMAC_CTX, Release<HMAC_CTX_free>>;

VakroPKICryptoHash* VakroPKICryptoNewHash(VakroPKICryptoDevice* device, int algorithm) {
  const EVP_MD* const digest = FindDigest(device, algorithm);
  if (digest == nullptr) return nullptr;
  DigestContext context(EVP_MD_CTX_new());
  if (!context || EVP_DigestInit_ex(context.get(), digest, nullptr) != 1) return nullptr;
  auto hash = NewArray<VakroPKICryptoHash>(1);
  if (!hash) return nullptr;
  hash[0].context = context.release();
  return hash.release();
}

int VakroPKICryptoHashUpdate(VakroPKICryptoHash* hash, const unsigned char* data, int length) {
  if (hash == nullptr || hash->context == nullptr || !AreBytes(data, length)) return 0;
  return EVP_DigestUpdate(hash->context, data, static_cast<size_t>(length)) == 1 ? 1 : 0;
}

int VakroPKICryptoHashFinal(VakroPKICryptoHash* hash, unsigned char** digest, int* digestLength) {
  if (hash == nullptr || hash->context == nullptr) return 0;
  if (digest == nullptr || digestLength == nullptr) return 0;
  auto result = NewArray<unsigned char>(EVP_MAX_MD_SIZE);
  if (!result) return 0;
  const DigestContext context(std::exchange(hash->context, nullptr));
  unsigned int length = 0;
  if (EVP_DigestFinal_ex(context.get(), result.get(), &length) != 1) return 0;
  return HandOut(result, length, digest, digestLength);
}

void VakroPKICryptoFreeHash(VakroPKICryptoHash* hash) {
  if (hash == nullptr) return;
  EVP_MD_CTX_free(hash->context);
  vakro_free(hash);
}

VakroPKICryptoMac* VakroPKICryptoNewMac(VakroPKICryptoDevice* device, int algorithm,
                                        const unsigned char* key, int keyLength,
                                        const void* parameters) {
  if (parameters != nullptr || !AreBytes(key, keyLength)) return nullptr;
  const EVP_MD* const digest = FindDigest(device, algorithm);
  if (digest == nullptr) return nullptr;
  HmacContext context(HMAC_CTX_new());
  // To OpenSSL a NULL key means the one set before, and there is none.
  const void* const bytes = keyLength > 0 ? static_cast<const void*>(key) : "";
  if (!context || HMAC_Init_ex(context.get(), bytes, keyLength, digest, nullptr) != 1)
    return nullptr;
  auto mac = NewArray<VakroPKICryptoMac>(1);
  if (!mac) return nullptr;
  mac[0].context = context.release();
  return mac.release();
}

int VakroPKICryptoMacUpdate(VakroPKICryptoMac* mac, const unsigned char* data, int length) {
  if (mac == nullptr || mac->context == nullptr || !AreBytes(data, length)) return 0;
  return HMAC_Update(mac->context, data, static_cast<size_t>(length)) == 1 ? 1 : 0;
}

int VakroPKICryptoMacFinal(VakroPKICryptoMac* mac, unsigned char** value, int* valueLength) {
  if (mac == nullptr || mac->context == nullptr) return 0;
  if (value == nullptr || valueLength == nullptr) return 0;
  auto result = NewArray<unsigned char>(EVP_MAX_MD_SIZE);
  if (!result) return 0;
  const HmacContext context(std::exchange(mac->context, nullptr));
  unsigned int length = 0;
  if (HMAC_Final(context.get(), result.get(), &length) != 1) return 0;
  return HandOut(result, length, value, valueLength);
}

void VakroPKICryptoFreeMac(VakroPKICryptoMac* mac) {
  if (mac == nullptr) return;
  HMAC_CTX_free(mac->context);
  vakro_free(mac);
}
