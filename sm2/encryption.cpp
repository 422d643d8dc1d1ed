// SM2 public-key encryption, GB/T 32918.4; the ciphertext is C1 || C2 || C3.
#include "sm2/operands.h"

#include <string.h>

static constexpr int TRY_AGAIN = -1;

namespace {
// One SM3 digest over several pieces.
struct SM3 {
  HashObject hash;
  explicit SM3(VakroPKICryptoDevice* device) : hash(VakroPKICryptoNewHash(device, SM3_HASH_ID)) {}
  bool Add(const unsigned char* data, int length) const {
    return VakroPKICryptoHashUpdate(hash.get(), data, length) == 1;
  }
  // Copies the first `size` bytes of the digest, at most 32.
  bool Finish(unsigned char* out, int size) const;
};
}  // namespace

bool SM3::Finish(unsigned char* out, int size) const {
  unsigned char* digest = nullptr;
  int length = 0;
  if (VakroPKICryptoHashFinal(hash.get(), &digest, &length) != 1) return false;
  const SecretLibBytes owned(digest, static_cast<size_t>(length));
  memcpy(out, digest, static_cast<size_t>(size));
  return true;
}

int SM2KDF(const unsigned char* z, int zLen, unsigned char* out, int kLen) {
  const SoftDevice device(VakroPKICryptoGetPseudoDevice());
  if (!device) return 0;
  unsigned int ct = 1;
  for (int done = 0; done < kLen; ct++) {
    unsigned char counter[4];
    int2be(ct, counter);
    const int missing = kLen - done;
    const int size = missing < SM2_FIELD_SIZE ? missing : SM2_FIELD_SIZE;
    const SM3 sm3(device.get());
    if (!sm3.hash || !sm3.Add(z, zLen) || !sm3.Add(counter, sizeof(counter)) ||
        !sm3.Finish(out + done, size))
      return 0;
    done += size;
  }
  return 1;
}

int SM3C3(const unsigned char* x2, const unsigned char* y2, const unsigned char* m, int mLen,
          unsigned char* c3) {
  SoftDevice device(VakroPKICryptoGetPseudoDevice());
  if (!device) return 0;
  const SM3 sm3(device.get());
  device.reset();
  return sm3.hash && sm3.Add(x2, SM2_FIELD_SIZE) && sm3.Add(m, mLen) &&
         sm3.Add(y2, SM2_FIELD_SIZE) && sm3.Finish(c3, SM2_FIELD_SIZE);
}

int TrySM2Encrypt(const EC_POINT* pub, const unsigned char* m, int mLen, unsigned char* out) {
  ScalarBytes k;
  unsigned char point[SM2_AFFINE_SIZE];
  if (!RandomScalar(k) || !ReadPublicPoint(pub, point)) return 0;  // A1
  // A2: C1 = [k]G
  out[0] = POINT_CONVERSION_UNCOMPRESSED;
  if (SM2MultiplyGenerator(out + 1, k.bytes) != 1) return 0;
  // A4: (x2, y2) = [k]P_B
  AffineBytes shared;
  if (SM2MultiplyPoint(shared.bytes, k.bytes, point) != 1) return 0;
  // A5: t = KDF(x2 || y2, mLen)
  unsigned char* const c2 = out + SM2_POINT_SIZE;
  if (SM2KDF(shared.bytes, SM2_AFFINE_SIZE, c2, mLen) != 1) return 0;
  if (IsAllZero(c2, mLen)) return TRY_AGAIN;
  Xor(c2, m, mLen);  // A6
  // A7: C3 = SM3(x2 || M || y2)
  return SM3C3(shared.bytes, shared.bytes + SM2_FIELD_SIZE, m, mLen, c2 + mLen);
}

int SM2Encrypt(EVP_PKEY* key, const unsigned char* m, int mLen, unsigned char* out) {
  const EC_KEY* ec = EVP_PKEY_get0_EC_KEY(key);
  const EC_POINT* pub = ec == nullptr ? nullptr : EC_KEY_get0_public_key(ec);
  if (pub == nullptr || mLen < 1) return 0;
  int result = TRY_AGAIN;
  while (result == TRY_AGAIN) result = TrySM2Encrypt(pub, m, mLen, out);
  return result;
}

static bool Decrypt(const BIGNUM* d, const unsigned char* c, int mLen, unsigned char* out) {
  // B1: C1 is a point of the curve
  ScalarBytes scalar;
  if (c[0] != POINT_CONVERSION_UNCOMPRESSED || SM2IsOnCurve(c + 1) != 1 || !ReadSecret(d, scalar))
    return false;
  // B3: (x2, y2) = [d]C1
  AffineBytes shared;
  if (SM2MultiplyPoint(shared.bytes, scalar.bytes, c + 1) != 1) return false;
  // B4: t = KDF(x2 || y2, mLen)
  if (SM2KDF(shared.bytes, SM2_AFFINE_SIZE, out, mLen) != 1 || IsAllZero(out, mLen)) return false;
  const unsigned char* const c2 = c + SM2_POINT_SIZE;
  Xor(out, c2, mLen);  // B5
  // B6: u = SM3(x2 || M' || y2)
  unsigned char u[SM2_FIELD_SIZE];
  return SM3C3(shared.bytes, shared.bytes + SM2_FIELD_SIZE, out, mLen, u) == 1 &&
         CRYPTO_memcmp(u, c2 + mLen, SM2_FIELD_SIZE) == 0;
}

int SM2Decrypt(EVP_PKEY* key, const unsigned char* c, int cLen, unsigned char* out) {
  const EC_KEY* ec = EVP_PKEY_get0_EC_KEY(key);
  const BIGNUM* d = ec == nullptr ? nullptr : EC_KEY_get0_private_key(ec);
  const int mLen = cLen - SM2_CIPHER_OVERHEAD;
  if (d == nullptr || mLen < 1) return 0;
  if (Decrypt(d, c, mLen, out)) return 1;
  OPENSSL_cleanse(out, static_cast<size_t>(mLen));
  return 0;
}
