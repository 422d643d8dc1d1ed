// SM2 signature, GB/T 32918.2, from the digest e on: A3 to A7 and B1 to B7 but for the hashing.
#include "sm2/random.h"
#include "sm2/sm2.h"

#include <string.h>

static constexpr int TRY_AGAIN = -1;

// The x coordinate of a point, or NULL for one that has no 65-byte form.
static BigNum XCoordinate(const EC_POINT* point) {
  Wiped<SM2_POINT_SIZE> raw;
  if (EC_POINT_point2oct(g_sm2->group, point, POINT_CONVERSION_UNCOMPRESSED, raw.bytes,
                         SM2_POINT_SIZE, nullptr) != SM2_POINT_SIZE)
    return nullptr;
  return BigNum(BN_bin2bn(raw.bytes + 1, SM2_FIELD_SIZE, nullptr));
}

// A6: s = ((1 + d)^-1 * (k - r * d)) mod n
static BigNum ComputeS(const BIGNUM* d, const BIGNUM* k, const BIGNUM* r, BN_CTX* ctx) {
  const BIGNUM* n = g_sm2->order;
  BigNum s(BN_new());
  const BigNum sum(BN_new());
  if (!s || !sum || BN_add(sum.get(), d, BN_value_one()) != 1) return nullptr;
  BN_set_flags(sum.get(), BN_FLG_CONSTTIME);
  const BigNum inverse(BN_mod_inverse(nullptr, sum.get(), n, ctx));
  if (!inverse || BN_mod_mul(s.get(), r, d, n, ctx) != 1 ||
      BN_mod_sub(s.get(), k, s.get(), n, ctx) != 1 ||
      BN_mod_mul(s.get(), s.get(), inverse.get(), n, ctx) != 1)
    return nullptr;
  return s;
}

static bool Encode(const BIGNUM* r, const BIGNUM* s, unsigned char** sig, int* sigLen) {
  unsigned char rBytes[SM2_FIELD_SIZE];
  unsigned char sBytes[SM2_FIELD_SIZE];
  const int rLen = BN_bn2bin(r, rBytes);
  const int sLen = BN_bn2bin(s, sBytes);
  if (rLen <= 0 || sLen <= 0) return false;
  return VakroPKICryptoEncodeECCSignature(rBytes, rLen, sBytes, sLen, sig, sigLen) == 1;
}

int TrySM2Sign(const BIGNUM* d, const unsigned char* e, int eLen, unsigned char** sig,
               int* sigLen) {
  const EC_GROUP* group = g_sm2->group;
  const BIGNUM* n = g_sm2->order;
  const BigNum k = RandomScalar();  // A3
  const BnCtx ctx(BN_CTX_new());
  const EcPoint point(EC_POINT_new(group));
  const BigNum digest(BN_bin2bn(e, eLen, nullptr));
  const BigNum r(BN_new());
  const BigNum sum(BN_new());
  if (!k || !ctx || !point || !digest || !r || !sum) return 0;
  // A4: (x1, y1) = [k]G
  if (EC_POINT_mul(group, point.get(), k.get(), nullptr, nullptr, ctx.get()) != 1) return 0;
  if (EC_POINT_is_at_infinity(group, point.get())) return TRY_AGAIN;
  const BigNum x1 = XCoordinate(point.get());
  // A5: r = (e + x1) mod n
  if (!x1 || BN_mod_add(r.get(), digest.get(), x1.get(), n, ctx.get()) != 1) return 0;
  if (BN_is_zero(r.get())) return TRY_AGAIN;
  if (BN_add(sum.get(), r.get(), k.get()) != 1) return 0;
  if (BN_cmp(sum.get(), n) == 0) return TRY_AGAIN;
  const BigNum s = ComputeS(d, k.get(), r.get(), ctx.get());
  if (!s) return 0;
  if (BN_is_zero(s.get())) return TRY_AGAIN;
  return Encode(r.get(), s.get(), sig, sigLen) ? 1 : 0;  // A7
}

int SM2Sign(EVP_PKEY* key, const unsigned char* e, int eLen, unsigned char** sig, int* sigLen) {
  const EC_KEY* ec = EVP_PKEY_get0_EC_KEY(key);
  const BIGNUM* d = ec == nullptr ? nullptr : EC_KEY_get0_private_key(ec);
  if (d == nullptr) return 0;
  int result = TRY_AGAIN;
  while (result == TRY_AGAIN) result = TrySM2Sign(d, e, eLen, sig, sigLen);
  return result;
}

// A component of a signature as a number in [1, n - 1], or NULL.
static BigNum Component(const unsigned char* bytes, int length) {
  if (length > SM2_FIELD_SIZE) return nullptr;
  BigNum number(BN_bin2bn(bytes, length, nullptr));
  if (!number || BN_is_zero(number.get()) || BN_cmp(number.get(), g_sm2->order) >= 0)
    return nullptr;
  return number;
}

static bool VerifyComponents(const EC_POINT* pub, const unsigned char* e, int eLen, const BIGNUM* r,
                             const BIGNUM* s) {
  const EC_GROUP* group = g_sm2->group;
  const BIGNUM* n = g_sm2->order;
  const BnCtx ctx(BN_CTX_new());
  const EcPoint point(EC_POINT_new(group));
  const BigNum digest(BN_bin2bn(e, eLen, nullptr));
  const BigNum t(BN_new());
  if (!ctx || !point || !digest || !t) return false;
  // B5: t = (r + s) mod n
  if (BN_mod_add(t.get(), r, s, n, ctx.get()) != 1 || BN_is_zero(t.get())) return false;
  // B6: (x1, y1) = [s]G + [t]P
  if (EC_POINT_mul(group, point.get(), s, pub, t.get(), ctx.get()) != 1) return false;
  const BigNum x1 = XCoordinate(point.get());  // NULL at infinity
  // B7: R = (e + x1) mod n
  return x1 && BN_mod_add(t.get(), digest.get(), x1.get(), n, ctx.get()) == 1 &&
         BN_cmp(t.get(), r) == 0;
}

int SM2Verify(EVP_PKEY* key, const unsigned char* e, int eLen, const unsigned char* sig,
              int sigLen) {
  const EC_KEY* ec = EVP_PKEY_get0_EC_KEY(key);
  const EC_POINT* pub = ec == nullptr ? nullptr : EC_KEY_get0_public_key(ec);
  unsigned char* rBytes = nullptr;
  unsigned char* sBytes = nullptr;
  int rLen = 0;
  int sLen = 0;
  const int decoded = VakroPKICryptoDecodeECCSignature(sig, sigLen, &rBytes, &rLen, &sBytes, &sLen);
  if (decoded != 1) return decoded;
  const LibBytes ownedR(rBytes);
  const LibBytes ownedS(sBytes);
  // B1, B2
  const BigNum r = Component(rBytes, rLen);
  const BigNum s = Component(sBytes, sLen);
  if (pub == nullptr || !r || !s) return 0;
  return VerifyComponents(pub, e, eLen, r.get(), s.get()) ? 1 : 0;
}
