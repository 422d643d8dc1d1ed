// SM2 through the interface, measured by OpenSSL's ECDSA on P-256, a curve of the same size, and
// beside other libraries' SM2.
#include "operations.h"
#include "peers.h"

static constexpr double SIGN_RATE = 2.1;
static constexpr double VERIFY_RATE = 1.2;
static constexpr double CIPHER_COST = 1.0;  // of 32 bytes, in ECDSA verifications
static constexpr size_t LARGE = 4096;

// The peers behind the module and its measure.
static std::vector<Contender> Beside(std::vector<Contender> row, Sm2Operation operation,
                                     size_t size = 32) {
  for (Contender& peer : Sm2Peers(operation, size)) row.push_back(std::move(peer));
  return row;
}

static EncryptCall Encrypt(size_t size) {
  return {EccKeyOf(CURVE_SM2), ALGORITHM_SM2_ENCRYPT, SomeBytes(size)};
}

static DecryptCall Decrypt(size_t size) {
  return {EccKeyOf(CURVE_SM2), ALGORITHM_SM2_ENCRYPT, OutputOf(Encrypt(size))};
}

void MeasureSm2() {
  Measure("sign/SM2", RateAtLeast(SIGN_RATE), [] {
    const SignCall call{EccKeyOf(CURVE_SM2), ALGORITHM_SM2_SIGN, SomeBytes(32)};
    return Beside({Timed("DeviceSign", call), Timed("ECDSA_sign P-256", BareEcdsaSign())},
                  Sm2Operation::SIGN);
  });
  Measure("verify/SM2", RateAtLeast(VERIFY_RATE), [] {
    const SignCall sign{EccKeyOf(CURVE_SM2), ALGORITHM_SM2_SIGN, SomeBytes(32)};
    const VerifyCall call{sign.key, sign.algorithm, sign.data, OutputOf(sign)};
    return Beside({Timed("DeviceVerify", call), Timed("ECDSA_verify P-256", BareEcdsaVerify())},
                  Sm2Operation::VERIFY);
  });
  Measure("encrypt/SM2, 32 bytes", CostAtMost(CIPHER_COST), [] {
    return Beside({Timed("DevicePublicKeyEncrypt", Encrypt(32)),
                   Timed("ECDSA_verify P-256", BareEcdsaVerify())},
                  Sm2Operation::ENCRYPT);
  });
  Measure("decrypt/SM2, 32 bytes", CostAtMost(CIPHER_COST), [] {
    return Beside({Timed("DevicePrivateKeyDecrypt", Decrypt(32)),
                   Timed("ECDSA_verify P-256", BareEcdsaVerify())},
                  Sm2Operation::DECRYPT);
  });
  Measure("encrypt/SM2, 4 KB", {}, [] {
    return Beside({Timed("DevicePublicKeyEncrypt", Encrypt(LARGE))}, Sm2Operation::ENCRYPT, LARGE);
  });
  Measure("decrypt/SM2, 4 KB", {}, [] {
    return Beside({Timed("DevicePrivateKeyDecrypt", Decrypt(LARGE))}, Sm2Operation::DECRYPT, LARGE);
  });
}
