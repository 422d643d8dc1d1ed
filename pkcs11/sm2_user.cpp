// The hash of an SM2 user, which stands in front of every message that the user signs.
#include "pkcs11/schemes.h"

#include "sm2/parameters.h"
#include "sm2/sm2.h"

static constexpr size_t MAX_SM2_USER_SIZE = 8191;  // its length in bits has to fit 16 bits

// Z = SM3(ENTL || ID || a || b || xG || yG || xA || yA)
static bool HashUser(const Key& key, Bytes identifier, unsigned char* z) {
  const EcKey ec(EVP_PKEY_get1_EC_KEY(key.publicKey->key));
  unsigned char point[SM2_POINT_SIZE];
  if (!ec || EC_POINT_point2oct(EC_KEY_get0_group(ec.get()), EC_KEY_get0_public_key(ec.get()),
                                POINT_CONVERSION_UNCOMPRESSED, point, sizeof(point),
                                nullptr) != sizeof(point))
    return false;
  const size_t bits = identifier.size() * 8;
  const unsigned char entl[] = {static_cast<unsigned char>(bits >> 8),
                                static_cast<unsigned char>(bits)};
  const DigestContext digest(EVP_MD_CTX_new());
  if (!digest || EVP_DigestInit_ex(digest.get(), EVP_sm3(), nullptr) != 1) return false;
  const Bytes parts[] = {entl,
                         identifier,
                         SM2_CURVE.a,
                         SM2_CURVE.b,
                         SM2_CURVE.gx,
                         SM2_CURVE.gy,
                         Bytes(point).subspan(1)};
  for (const Bytes part : parts) {
    if (EVP_DigestUpdate(digest.get(), part.data(), part.size()) != 1) return false;
  }
  return EVP_DigestFinal_ex(digest.get(), z, nullptr) == 1;
}

CK_RV HashSm2User(EVP_MD_CTX* digest, const Key& key, Bytes identifier) {
  if (identifier.size() > MAX_SM2_USER_SIZE) return CKR_MECHANISM_PARAM_INVALID;
  unsigned char z[SM2_FIELD_SIZE];
  if (!HashUser(key, identifier, z) || EVP_DigestUpdate(digest, z, sizeof(z)) != 1)
    return CKR_FUNCTION_FAILED;
  return CKR_OK;
}
