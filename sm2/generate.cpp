// New elliptic-curve keypairs.
//
// OpenSSL multiplies on the SM2 group by its general method, which takes sixty times as long as it
// needs on P-256. For SM2 the key object therefore has a method of our own while
// EC_KEY_generate_key works on it, and its usual one again before anybody else sees it: keys may
// outlive the module, so that nothing of it may be called through them.
#include "sm2/key_object.h"
#include "sm2/operands.h"

using EcKeyMethod = std::unique_ptr<EC_KEY_METHOD, Release<EC_KEY_METHOD_free>>;

// Gives the key a scalar d, uniform in [1, n - 2], and the point [d]G: GB/T 32918.1, 6.1.
static int MakeSM2Key(EC_KEY* key) {
  const BigNum limit(BN_dup(g_sm2->order));
  const BigNum d(BN_new());
  if (!limit || !d || BN_sub_word(limit.get(), 1) != 1) return 0;
  do {
    if (BN_priv_rand_range(d.get(), limit.get()) != 1) return 0;
  } while (BN_is_zero(d.get()));
  ScalarBytes scalar;
  unsigned char point[SM2_POINT_SIZE] = {POINT_CONVERSION_UNCOMPRESSED};
  if (!ReadSecret(d.get(), scalar) || SM2MultiplyGenerator(point + 1, scalar.bytes) != 1) return 0;
  return EC_KEY_set_private_key(key, d.get()) == 1 &&
         EC_KEY_oct2key(key, point, sizeof(point), nullptr) == 1;
}

static EcKey GenerateSM2Key() {
  const EcKeyMethod ours(EC_KEY_METHOD_new(EC_KEY_OpenSSL()));
  EcKey key = NewKeyOn(CURVE_SM2);  // younger than its method: it is freed first
  if (!ours || !key) return nullptr;
  // A program may have chosen another method for all its keys, and makes them by that.
  const bool isUsual = EC_KEY_get_method(key.get()) == EC_KEY_OpenSSL();
  EC_KEY_METHOD_set_keygen(ours.get(), MakeSM2Key);
  if (isUsual && EC_KEY_set_method(key.get(), ours.get()) != 1) return nullptr;
  if (EC_KEY_generate_key(key.get()) != 1) return nullptr;
  if (isUsual && EC_KEY_set_method(key.get(), EC_KEY_OpenSSL()) != 1) return nullptr;
  return key;
}

static EcKey GenerateKey(int curve) {
  if (curve == CURVE_SM2) return GenerateSM2Key();
  EcKey key = NewKeyOn(curve);
  if (!key || EC_KEY_generate_key(key.get()) != 1) return nullptr;
  return key;
}

int GenerateTempECCKeypair(int curve, int bits, int type, Keypair** out) {
  const EcKey key = GenerateKey(curve);
  EvpKey evp = key ? WrapEC(key.get()) : nullptr;
  if (!evp) return 0;
  OwnedKeypair keypair(NewKeypair());
  if (!keypair) return 0;
  keypair->algorithm = ALGORITHM_ECC;
  keypair->bits = static_cast<unsigned int>(bits);
  keypair->isTemp = 1;
  keypair->type = static_cast<unsigned int>(type);
  keypair->privateKey = evp.release();
  keypair->curve = curve;
  if (ToECCPublicKeyEncode(curve, key.get(), &keypair->publicKey, &keypair->publicKeyLen) != 1)
    return 0;
  *out = keypair.release();
  return 1;
}
