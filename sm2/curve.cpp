// The SM2 group, the table of curves, and two helpers on byte strings.
#include "device/owners.h"
#include "sm2/sm2.h"

#include <openssl/obj_mac.h>

namespace {
// The recommended curve of GB/T 32918.5, big-endian.
struct CurveParameters {
  unsigned char p[SM2_FIELD_SIZE];
  unsigned char a[SM2_FIELD_SIZE];
  unsigned char b[SM2_FIELD_SIZE];
  unsigned char gx[SM2_FIELD_SIZE];
  unsigned char gy[SM2_FIELD_SIZE];
  unsigned char n[SM2_FIELD_SIZE];
};

struct Curve {
  int id;
  int bits;
  int nid;  // OpenSSL's, or -1
};
}  // namespace

static constexpr CurveParameters SM2_CURVE = {
    {0xff, 0xff, 0xff, 0xfe, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff,
     0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0x00, 0x00,
     0x00, 0x00, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff},
    {0xff, 0xff, 0xff, 0xfe, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff,
     0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0x00, 0x00,
     0x00, 0x00, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xfc},
    {0x28, 0xe9, 0xfa, 0x9e, 0x9d, 0x9f, 0x5e, 0x34, 0x4d, 0x5a, 0x9e,
     0x4b, 0xcf, 0x65, 0x09, 0xa7, 0xf3, 0x97, 0x89, 0xf5, 0x15, 0xab,
     0x8f, 0x92, 0xdd, 0xbc, 0xbd, 0x41, 0x4d, 0x94, 0x0e, 0x93},
    {0x32, 0xc4, 0xae, 0x2c, 0x1f, 0x19, 0x81, 0x19, 0x5f, 0x99, 0x04,
     0x46, 0x6a, 0x39, 0xc9, 0x94, 0x8f, 0xe3, 0x0b, 0xbf, 0xf2, 0x66,
     0x0b, 0xe1, 0x71, 0x5a, 0x45, 0x89, 0x33, 0x4c, 0x74, 0xc7},
    {0xbc, 0x37, 0x36, 0xa2, 0xf4, 0xf6, 0x77, 0x9c, 0x59, 0xbd, 0xce,
     0xe3, 0x6b, 0x69, 0x21, 0x53, 0xd0, 0xa9, 0x87, 0x7c, 0xc6, 0x2a,
     0x47, 0x40, 0x02, 0xdf, 0x32, 0xe5, 0x21, 0x39, 0xf0, 0xa0},
    {0xff, 0xff, 0xff, 0xfe, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff,
     0xff, 0xff, 0xff, 0xff, 0xff, 0x72, 0x03, 0xdf, 0x6b, 0x21, 0xc6,
     0x05, 0x2b, 0x53, 0xbb, 0xf4, 0x09, 0x39, 0xd5, 0x41, 0x23},
};

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
