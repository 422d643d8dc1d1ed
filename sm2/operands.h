// The operands that signature and encryption start from, as bytes. Inside sm2/ only.
#ifndef VAKRO_SM2_OPERANDS_H
#define VAKRO_SM2_OPERANDS_H

#include "core/openssl_owners.h"
#include "core/secret.h"
#include "sm2/multiply.h"
#include "sm2/scalar.h"
#include "sm2/sm2.h"

inline constexpr int SM2_AFFINE_SIZE = 2 * SM2_FIELD_SIZE;  // x, y

using ScalarBytes = Wiped<SM2_FIELD_SIZE>;
using AffineBytes = Wiped<SM2_AFFINE_SIZE>;

// A number mod n that is wiped at the end.
struct SecretScalar : sm2::U256 {
  SecretScalar() : sm2::U256{} {}
  SecretScalar(const SecretScalar&) = delete;
  SecretScalar& operator=(const SecretScalar&) = delete;
  ~SecretScalar() { OPENSSL_cleanse(limb, sizeof(limb)); }
};

// RandomScalar draws k, uniform in [1, n - 1]: GB/T 32918.2 A3, GB/T 32918.4 A1.
bool RandomScalar(ScalarBytes& k);

// ReadSecret takes a private scalar; one that needs more than 32 bytes is reduced mod n. False when
// memory is out.
bool ReadSecret(const BIGNUM* d, ScalarBytes& bytes);

// ReadPublicPoint takes a point; false for one that is not a finite point of the SM2 curve.
bool ReadPublicPoint(const EC_POINT* point, unsigned char (&affine)[SM2_AFFINE_SIZE]);

#endif
