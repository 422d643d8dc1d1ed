// From OpenSSL's numbers and points to the bytes that our own arithmetic takes.
#include "sm2/operands.h"

#include <string.h>

bool RandomScalar(ScalarBytes& k) {
  const BigNum drawn(BN_new());
  if (!drawn) return false;
  do {
    if (BN_rand_range(drawn.get(), g_sm2->order) != 1) return false;
  } while (BN_is_zero(drawn.get()));
  return ReadSecret(drawn.get(), k);
}

bool ReadSecret(const BIGNUM* d, ScalarBytes& bytes) {
  const bool fits = !BN_is_negative(d) && BN_num_bytes(d) <= SM2_FIELD_SIZE;
  if (fits) return BN_bn2binpad(d, bytes.bytes, SM2_FIELD_SIZE) == SM2_FIELD_SIZE;
  const BigNum reduced(BN_new());
  const BnCtx ctx(BN_CTX_new());
  return reduced && ctx && BN_nnmod(reduced.get(), d, g_sm2->order, ctx.get()) == 1 &&
         BN_bn2binpad(reduced.get(), bytes.bytes, SM2_FIELD_SIZE) == SM2_FIELD_SIZE;
}

bool ReadPublicPoint(const EC_POINT* point, unsigned char (&affine)[SM2_AFFINE_SIZE]) {
  unsigned char raw[SM2_POINT_SIZE];
  if (EC_POINT_point2oct(g_sm2->group, point, POINT_CONVERSION_UNCOMPRESSED, raw, sizeof(raw),
                         nullptr) != sizeof(raw))
    return false;
  memcpy(affine, raw + 1, sizeof(affine));
  return SM2IsOnCurve(affine) == 1;  // not so for a key on another curve
}
