// The SM2 group, the table of curves, and two helpers on byte strings.
#include "core/openssl_owners.h"
#include "sm2/parameters.h"
#include "sm2/sm2.h"

#include <openssl/obj_mac.h>

namespace {
struct Curve {
  int id;
  int bits;
  int nid;  // OpenSSL's, or -1
};
}  // namespace

static constexpr Curve CURVES[] = {
    {CURVE_P192, 192, NID_X9_62_prime192v1},
    {CURVE_P224, 224, NID_secp224r1},
    {CURVE_P256, 256, NID_X9_62_prime256v1},
    {CURVE_P384, 384, NID_secp384r1},
    {CURVE_P521, 521, NID_secp521r1},
    {CURVE_192, 192, -1},
    {CURVE_SM2, 256, -1},
};

static BigNum FromBytes(const unsigned char (&bytes)[SM2_FIELD_SIZE]) {
  return BigNum(BN_bin2bn(bytes, SM2_FIELD_SIZE, nullptr));
}

static EcGroup NewGroup() {
  const BigNum p = FromBytes(SM2_CURVE.p);
  const BigNum a = FromBytes(SM2_CURVE.a);
  const BigNum b = FromBytes(SM2_CURVE.b);
  if (!p || !a || !b) return nullptr;
  EcGroup group(EC_GROUP_new(EC_GFp_simple_method()));
  if (!group || EC_GROUP_set_curve_GFp(group.get(), p.get(), a.get(), b.get(), nullptr) != 1)
    return nullptr;
  return group;
}

static bool SetGenerator(EC_GROUP* group, const BIGNUM* order) {
  const EcPoint g(EC_POINT_new(group));
  const BigNum gx = FromBytes(SM2_CURVE.gx);
  const BigNum gy = FromBytes(SM2_CURVE.gy);
  if (!g || !gx || !gy) return false;
  return EC_POINT_set_affine_coordinates_GFp(group, g.get(), gx.get(), gy.get(), nullptr) == 1 &&
         EC_GROUP_set_generator(group, g.get(), order, BN_value_one()) == 1 &&
         EC_GROUP_precompute_mult(group, nullptr) == 1;
}

SM2Info* NewSM2Info(void) {
  EcGroup group = NewGroup();
  BigNum order = FromBytes(SM2_CURVE.n);
  if (!group || !order || !SetGenerator(group.get(), order.get())) return nullptr;
  SM2Info* info = Allocate<SM2Info>(1, "keypair");
  if (info == nullptr) return nullptr;
  info->group = group.release();
  info->order = order.release();
  return info;
}

void FreeSM2Info(SM2Info* info) {
  if (info == nullptr) return;
  BN_free(info->order);
  EC_GROUP_free(info->group);
  vakro_free(info);
}

static const Curve* FindCurve(int id) {
  for (const Curve& curve : CURVES) {
    if (curve.id == id) return &curve;
  }
  return nullptr;
}

int GetECCBits(int curve) {
  const Curve* found = FindCurve(curve);
  return found != nullptr ? found->bits : -1;
}

int checkCurveBits(int curve, int bits) {
  const Curve* found = FindCurve(curve);
  return found != nullptr && found->bits == bits ? 1 : 0;
}

int GetECCCurveNid(int curve) {
  const Curve* found = FindCurve(curve);
  return found != nullptr ? found->nid : -1;
}

int IsAllZero(const unsigned char* buf, int len) {
  unsigned char any = 0;
  for (int i = 0; i < len; i++) any |= buf[i];
  return any == 0 ? 1 : 0;
}

void Xor(unsigned char* dst, const unsigned char* src, int len) {
  for (int i = 0; i < len; i++) dst[i] ^= src[i];
}
