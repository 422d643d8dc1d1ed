// SM2 signature, GB/T 32918.2, from the digest e on: A3 to A7 and B1 to B7 but for the hashing.
#include "sm2/operands.h"

#include <string.h>

using sm2::U256;

static constexpr int TRY_AGAIN = -1;

// An empty digest is the number 0; its bytes may be NULL.
static bool IsDigest(const unsigned char* e, int eLen) {
  return eLen >= 0 && (e != nullptr || eLen == 0);
}

// The signing factor, (1 + d)^-1 mod n. False when 1 + d has no inverse.
static bool ComputeFactor(const ScalarBytes& bytes, U256& factor) {
  static constexpr unsigned char ONE[] = {1};
  SecretScalar scalar;
  U256 one;
  ReadScalar(scalar, bytes.bytes, SM2_FIELD_SIZE);
  ReadScalar(one, ONE, sizeof(ONE));
  AddScalars(scalar, scalar, one);
  return InvertScalar(factor, scalar);
}

static bool ReadSecret(EVP_PKEY* key, ScalarBytes& bytes) {
  const EC_KEY* ec = EVP_PKEY_get0_EC_KEY(key);
  const BIGNUM* d = ec == nullptr ? nullptr : EC_KEY_get0_private_key(ec);
  return d != nullptr && ReadSecret(d, bytes);
}

// A7. The encoder gets the numbers in their shortest form.
static bool Encode(const U256& r, const U256& s, unsigned char** sig, int* sigLen) {
  unsigned char rBytes[SM2_FIELD_SIZE];
  unsigned char sBytes[SM2_FIELD_SIZE];
  WriteScalar(rBytes, r);
  WriteScalar(sBytes, s);
  const unsigned char* rStart = rBytes;
  const unsigned char* sStart = sBytes;
  while (*rStart == 0) rStart++;  // neither is zero
  while (*sStart == 0) sStart++;
  LibOutput made;
  const int result = VakroPKICryptoEncodeECCSignature(
      rStart, static_cast<int>(rBytes + SM2_FIELD_SIZE - rStart), sStart,
      static_cast<int>(sBytes + SM2_FIELD_SIZE - sStart), &made.bytes, &made.length);
  return made.HandOut(result, sig, sigLen) == 1;
}

// One attempt, A3 to A7: 1, 0 or TRY_AGAIN.
static int TrySign(const U256& factor, const unsigned char* e, int eLen, unsigned char** sig,
                   int* sigLen) {
  ScalarBytes kBytes;
  if (!RandomScalar(kBytes)) return 0;  // A3
  // A4: (x1, y1) = [k]G
  AffineBytes point;
  if (SM2MultiplyGenerator(point.bytes, kBytes.bytes) != 1) return TRY_AGAIN;
  // A5: r = (e + x1) mod n
  U256 digest;
  U256 r;
  ReadScalar(digest, e, eLen);
  ReadScalar(r, point.bytes, SM2_FIELD_SIZE);
  AddScalars(r, digest, r);
  if (IsZeroScalar(r)) return TRY_AGAIN;
  // r + k = n, for numbers between 0 and n, is r + k = 0 mod n
  SecretScalar k;
  SecretScalar sum;
  ReadScalar(k, kBytes.bytes, SM2_FIELD_SIZE);
  AddScalars(sum, r, k);
  if (IsZeroScalar(sum)) return TRY_AGAIN;
  // A6: s = ((1 + d)^-1 * (k - r * d)) mod n, and k - r * d = k + r - r * (1 + d)
  U256 s;
  MultiplyScalars(s, sum, factor);
  SubtractScalars(s, s, r);
  if (IsZeroScalar(s)) return TRY_AGAIN;
  return Encode(r, s, sig, sigLen) ? 1 : 0;
}

static int Sign(const U256& factor, const unsigned char* e, int eLen, unsigned char** sig,
                int* sigLen) {
  if (!IsDigest(e, eLen)) return 0;
  int result = TRY_AGAIN;
  while (result == TRY_AGAIN) result = TrySign(factor, e, eLen, sig, sigLen);
  return result;
}

int TrySM2Sign(const BIGNUM* d, const unsigned char* e, int eLen, unsigned char** sig,
               int* sigLen) {
  ScalarBytes bytes;
  SecretScalar factor;
  if (!ReadSecret(d, bytes) || !ComputeFactor(bytes, factor) || !IsDigest(e, eLen)) return 0;
  return TrySign(factor, e, eLen, sig, sigLen);
}

int SM2Sign(EVP_PKEY* key, const unsigned char* e, int eLen, unsigned char** sig, int* sigLen) {
  ScalarBytes bytes;
  SecretScalar factor;
  if (!ReadSecret(key, bytes) || !ComputeFactor(bytes, factor)) return 0;
  return Sign(factor, e, eLen, sig, sigLen);
}

int SM2FindFactor(EVP_PKEY* key, SigningFactor* factor, int* isNew) {
  ScalarBytes bytes;
  if (!ReadSecret(key, bytes)) return 0;
  *isNew = IsAllZero(factor->inverse, SM2_FIELD_SIZE) ||
           CRYPTO_memcmp(factor->scalar, bytes.bytes, SM2_FIELD_SIZE) != 0;
  if (!*isNew) return 1;
  SecretScalar inverse;
  if (!ComputeFactor(bytes, inverse)) return 0;
  memcpy(factor->scalar, bytes.bytes, SM2_FIELD_SIZE);
  WriteScalar(factor->inverse, inverse);
  return 1;
}

int SM2SignWithFactor(const SigningFactor* factor, const unsigned char* e, int eLen,
                      unsigned char** sig, int* sigLen) {
  SecretScalar scalar;
  ReadScalar(scalar, factor->inverse, SM2_FIELD_SIZE);
  return Sign(scalar, e, eLen, sig, sigLen);
}

// A component of a signature, a number in [1, n - 1].
static bool ReadComponent(const unsigned char* bytes, int length, U256& number) {
  return length <= SM2_FIELD_SIZE && ReadScalar(number, bytes, length) && !IsZeroScalar(number);
}

static bool VerifyComponents(const EC_POINT* pub, const unsigned char* e, int eLen, const U256& r,
                             const U256& s) {
  unsigned char point[SM2_AFFINE_SIZE];
  if (!ReadPublicPoint(pub, point)) return false;
  // B5: t = (r + s) mod n
  U256 t;
  AddScalars(t, r, s);
  if (IsZeroScalar(t)) return false;
  // B6: (x1, y1) = [s]G + [t]P
  unsigned char sBytes[SM2_FIELD_SIZE];
  unsigned char tBytes[SM2_FIELD_SIZE];
  WriteScalar(sBytes, s);
  WriteScalar(tBytes, t);
  if (SM2MultiplyPublic(point, sBytes, point, tBytes) != 1) return false;
  // B7: R = (e + x1) mod n; R = r
  U256 digest;
  U256 difference;
  ReadScalar(digest, e, eLen);
  ReadScalar(difference, point, SM2_FIELD_SIZE);
  AddScalars(difference, digest, difference);
  SubtractScalars(difference, difference, r);
  return IsZeroScalar(difference);
}

int SM2Verify(EVP_PKEY* key, const unsigned char* e, int eLen, const unsigned char* sig,
              int sigLen) {
  const EC_KEY* ec = EVP_PKEY_get0_EC_KEY(key);
  const EC_POINT* pub = ec == nullptr ? nullptr : EC_KEY_get0_public_key(ec);
  if (pub == nullptr || !IsDigest(e, eLen)) return 0;
  unsigned char* rBytes = nullptr;
  unsigned char* sBytes = nullptr;
  int rLen = 0;
  int sLen = 0;
  const int decoded = VakroPKICryptoDecodeECCSignature(sig, sigLen, &rBytes, &rLen, &sBytes, &sLen);
  if (decoded != 1) return decoded;
  const LibBytes ownedR(rBytes);
  const LibBytes ownedS(sBytes);
  // B1, B2
  U256 r;
  U256 s;
  if (!ReadComponent(rBytes, rLen, r) || !ReadComponent(sBytes, sLen, s)) return 0;
  return VerifyComponents(pub, e, eLen, r, s) ? 1 : 0;
}
