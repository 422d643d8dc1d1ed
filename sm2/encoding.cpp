// Elliptic-curve keys: from OpenSSL's objects to the crypto library's encodings, and back.
#include "core/secret.h"
#include "sm2/key_object.h"
#include "sm2/sm2.h"

#include <string.h>

static constexpr int POINT_BUFFER_SIZE = 160;  // P-521 needs 133

namespace {
// An uncompressed point: 0x04, x, y, both `fieldSize` bytes.
struct RawPoint {
  unsigned char bytes[POINT_BUFFER_SIZE];
  int fieldSize = 0;

  bool Read(const EC_KEY* key);
  const unsigned char* X() const { return bytes + 1; }
  const unsigned char* Y() const { return bytes + 1 + fieldSize; }
};
}  // namespace

bool RawPoint::Read(const EC_KEY* key) {
  const EC_GROUP* group = EC_KEY_get0_group(key);
  const EC_POINT* point = EC_KEY_get0_public_key(key);
  if (group == nullptr || point == nullptr) return false;
  const size_t size = EC_POINT_point2oct(group, point, POINT_CONVERSION_UNCOMPRESSED, bytes,
                                         sizeof(bytes), nullptr);
  if (size < 3 || size % 2 == 0) return false;  // 1: the point at infinity
  fieldSize = static_cast<int>((size - 1) / 2);
  return true;
}

int EncodeECCKeypair(int curve, const EC_KEY* key, unsigned char** out, int* outLen) {
  RawPoint point;
  const BIGNUM* d = EC_KEY_get0_private_key(key);
  if (d == nullptr || BN_is_zero(d) || !point.Read(key)) return 0;
  Wiped<POINT_BUFFER_SIZE> scalar;
  const int size = point.fieldSize;
  if (BN_bn2binpad(d, scalar.bytes, size) != size) return 0;
  LibOutput made;
  const int result = VakroPKICryptoEncodeECCKeyPair(curve, point.X(), size, point.Y(), size,
                                                    scalar.bytes, size, &made.bytes, &made.length);
  return made.HandOut(result, out, outLen);
}

int ToECCPublicKeyEncode(int curve, const EC_KEY* key, unsigned char** out, int* outLen) {
  RawPoint point;
  if (!point.Read(key)) return 0;
  LibOutput made;
  const int result = VakroPKICryptoEncodeECCPubKey(curve, point.X(), point.fieldSize, point.Y(),
                                                   point.fieldSize, &made.bytes, &made.length);
  return made.HandOut(result, out, outLen);
}

EcKey NewKeyOn(int curve) {
  if (curve != CURVE_SM2) {
    const int nid = GetECCCurveNid(curve);
    return EcKey(nid < 0 ? nullptr : EC_KEY_new_by_curve_name(nid));
  }
  if (g_sm2 == nullptr) return nullptr;
  EcKey key(EC_KEY_new());
  if (!key || EC_KEY_set_group(key.get(), g_sm2->group) != 1) return nullptr;
  return key;
}

EvpKey WrapEC(EC_KEY* ec) {
  EvpKey key(EVP_PKEY_new());
  if (!key || EVP_PKEY_set1_EC_KEY(key.get(), ec) != 1) return nullptr;
  return key;
}

// Puts the last 32 bytes of a coordinate, padded on the left, at `out`.
static bool PutCoordinate(unsigned char* out, const unsigned char* bytes, int length) {
  if (bytes == nullptr || length < 0) return false;
  const int used = length < SM2_FIELD_SIZE ? length : SM2_FIELD_SIZE;
  memset(out, 0, SM2_FIELD_SIZE);
  memcpy(out + (SM2_FIELD_SIZE - used), bytes + (length - used), static_cast<size_t>(used));
  return true;
}

// Always a 65-byte point, so only keys on 256-bit curves can be rebuilt.
static bool SetPoint(EC_KEY* key, const unsigned char* x, int xLen, const unsigned char* y,
                     int yLen) {
  unsigned char raw[SM2_POINT_SIZE] = {POINT_CONVERSION_UNCOMPRESSED};
  if (!PutCoordinate(raw + 1, x, xLen) || !PutCoordinate(raw + 1 + SM2_FIELD_SIZE, y, yLen))
    return false;
  const EC_GROUP* group = EC_KEY_get0_group(key);
  const EcPoint point(EC_POINT_new(group));
  const BnCtx ctx(BN_CTX_new());
  return point && ctx && EC_POINT_oct2point(group, point.get(), raw, sizeof(raw), ctx.get()) == 1 &&
         EC_KEY_set_public_key(key, point.get()) == 1;
}

static bool SetScalar(EC_KEY* key, const unsigned char* d, int dLen) {
  const BigNum scalar(BN_bin2bn(d, dLen, nullptr));
  return scalar && EC_KEY_set_private_key(key, scalar.get()) == 1;
}

EVP_PKEY* DecodeECCPair(const unsigned char* data, int len, int* curve) {
  unsigned char* x = nullptr;
  unsigned char* y = nullptr;
  unsigned char* d = nullptr;
  int xLen = 0;
  int yLen = 0;
  int dLen = 0;
  int decodedCurve = 0;
  if (VakroPKICryptoDecodeECCKeyPair(data, len, &decodedCurve, &x, &xLen, &y, &yLen, &d, &dLen) !=
      1)
    return nullptr;
  *curve = decodedCurve;
  const LibBytes ownedX(x);
  const LibBytes ownedY(y);
  const KeyLibBytes ownedD(d, static_cast<size_t>(dLen));
  const EcKey key = NewKeyOn(decodedCurve);
  if (!key || !SetPoint(key.get(), x, xLen, y, yLen) || !SetScalar(key.get(), d, dLen))
    return nullptr;
  return WrapEC(key.get()).release();
}

EVP_PKEY* GetECCPublicKey(const unsigned char* data, int len, int* bits, int* curve) {
  unsigned char* x = nullptr;
  unsigned char* y = nullptr;
  int xLen = 0;
  int yLen = 0;
  int decodedCurve = 0;
  if (VakroPKICryptoDecodeECCPubKey(data, len, &decodedCurve, &x, &xLen, &y, &yLen) != 1)
    return nullptr;
  *curve = decodedCurve;
  const LibBytes ownedX(x);
  const LibBytes ownedY(y);
  const EcKey key = NewKeyOn(decodedCurve);
  if (!key) return nullptr;
  *bits = GetECCBits(decodedCurve);
  if (!SetPoint(key.get(), x, xLen, y, yLen)) return nullptr;
  return WrapEC(key.get()).release();
}
