// RSA and ECDSA through the interface beside OpenSSL's own functions on the same key objects;
// generation; signing in two threads.
#include "harness.h"
#include "operations.h"

static constexpr double OPERATION_COST = 1.03;
static constexpr size_t DIGEST_INFO_SIZE = 51;  // of SHA-256
static constexpr size_t SECRET_SIZE = 32;

static void MeasureRsa(int bits) {
  const std::string name = "/RSA-" + std::to_string(bits);
  const Target target = CostAtMost(OPERATION_COST);
  Measure("sign" + name, target, [bits]() -> std::vector<Contender> {
    const Key key = RsaKeyOf(bits);
    const Bytes data = SomeBytes(DIGEST_INFO_SIZE);
    RSA* const rsa = RsaOf(key.pair->privateKey);
    return {Timed("DeviceSign", SignCall{key, ALGORITHM_RSA_PKCS1_SIGN, data}),
            Timed("RSA_private_encrypt", RsaCall{RSA_private_encrypt, rsa, data})};
  });
  Measure("verify" + name, target, [bits]() -> std::vector<Contender> {
    const Key key = RsaKeyOf(bits);
    const Bytes data = SomeBytes(DIGEST_INFO_SIZE);
    const Bytes signature = OutputOf(SignCall{key, ALGORITHM_RSA_PKCS1_SIGN, data});
    RSA* const rsa = RsaOf(key.pub->key);
    return {Timed("DeviceVerify", VerifyCall{key, ALGORITHM_RSA_PKCS1_SIGN, data, signature}),
            Timed("RSA_public_decrypt", RsaCall{RSA_public_decrypt, rsa, signature, data})};
  });
  Measure("encrypt" + name, target, [bits]() -> std::vector<Contender> {
    const Key key = RsaKeyOf(bits);
    const Bytes data = SomeBytes(SECRET_SIZE);
    RSA* const rsa = RsaOf(key.pub->key);
    return {Timed("DevicePublicKeyEncrypt", EncryptCall{key, ALGORITHM_RSA_PKCS1_ENCRYPT, data}),
            Timed("RSA_public_encrypt", RsaCall{RSA_public_encrypt, rsa, data})};
  });
  Measure("decrypt" + name, target, [bits]() -> std::vector<Contender> {
    const Key key = RsaKeyOf(bits);
    const Bytes data = SomeBytes(SECRET_SIZE);
    const Bytes secret = OutputOf(EncryptCall{key, ALGORITHM_RSA_PKCS1_ENCRYPT, data});
    RSA* const rsa = RsaOf(key.pair->privateKey);
    return {Timed("DevicePrivateKeyDecrypt", DecryptCall{key, ALGORITHM_RSA_PKCS1_ENCRYPT, secret}),
            Timed("RSA_private_decrypt", RsaCall{RSA_private_decrypt, rsa, secret, data})};
  });
}

static void MeasureEcdsa() {
  Measure("sign/ECDSA P-256", CostAtMost(OPERATION_COST), []() -> std::vector<Contender> {
    const SignCall call{EccKeyOf(CURVE_P256), ALGORITHM_ECDSA_SIGN, SomeBytes(32)};
    return {Timed("DeviceSign", call), Timed("ECDSA_sign", BareEcdsaSign())};
  });
  Measure("verify/ECDSA P-256", CostAtMost(OPERATION_COST), []() -> std::vector<Contender> {
    const EcdsaVerifyCall bare = BareEcdsaVerify();
    const VerifyCall call{EccKeyOf(CURVE_P256), ALGORITHM_ECDSA_SIGN, bare.data, bare.signature};
    return {Timed("DeviceVerify", call), Timed("ECDSA_verify", bare)};
  });
}

// --- Generation ---

static bool BareRsaGeneration(int bits) {
  const RsaKey rsa(RSA_new());
  const BigNum e(BN_new());
  return rsa && e && BN_set_word(e.get(), RSA_F4) == 1 &&
         RSA_generate_key_ex(rsa.get(), bits, e.get(), nullptr) == 1;
}

void MeasureGeneration() {
  for (const int bits : {1024, 2048, 4096}) {
    Measure("generate/RSA-" + std::to_string(bits), {}, [bits]() -> std::vector<Contender> {
      const auto module = [bits] {
        const SameRandom random;
        return GenerateTemporary(ALGORITHM_RSA, bits) != nullptr;
      };
      const auto bare = [bits] {
        const SameRandom random;
        return BareRsaGeneration(bits);
      };
      return {Timed("DeviceGenerateKeypair", module), Timed("RSA_generate_key_ex", bare)};
    });
  }
  Measure("generate/P-256", {}, []() -> std::vector<Contender> {
    return {Timed("DeviceGenerateKeypair",
                  [] { return GenerateTemporary(ALGORITHM_ECC, CURVE_P256) != nullptr; }),
            Timed("EC_KEY_generate_key", [] { return BareEcGeneration(); })};
  });
  Measure("generate/SM2", {}, []() -> std::vector<Contender> {
    const EC_GROUP* group = EC_KEY_get0_group(EcOf(EccKeyOf(CURVE_SM2).pair->privateKey));
    return {Timed("DeviceGenerateKeypair",
                  [] { return GenerateTemporary(ALGORITHM_ECC, CURVE_SM2) != nullptr; }),
            Timed("EC_KEY_generate_key", [group] { return BareEcGeneration(group); })};
  });
}

// --- Threads ---

// Times are those of one signature: two threads halve them where nothing is in the way.
void MeasureThreads() {
  Measure("sign on 2 threads/RSA-2048", {}, []() -> std::vector<Contender> {
    const Key key = RsaKeyOf(2048);
    const SignCall call{key, ALGORITHM_RSA_PKCS1_SIGN, SomeBytes(DIGEST_INFO_SIZE)};
    const RsaCall bare{RSA_private_encrypt, RsaOf(key.pair->privateKey), call.data};
    return {Threaded("DeviceSign, 2 threads", 2, call),
            Threaded("RSA_private_encrypt, 2 threads", 2, bare),
            Threaded("DeviceSign, 1 thread", 1, call)};
  });
  Measure("sign on 2 threads/ECDSA P-256", {}, []() -> std::vector<Contender> {
    const SignCall call{EccKeyOf(CURVE_P256), ALGORITHM_ECDSA_SIGN, SomeBytes(32)};
    return {Threaded("DeviceSign, 2 threads", 2, call),
            Threaded("ECDSA_sign, 2 threads", 2, BareEcdsaSign()),
            Threaded("DeviceSign, 1 thread", 1, call)};
  });
  Measure("sign on 2 threads/SM2", {}, []() -> std::vector<Contender> {
    const SignCall call{EccKeyOf(CURVE_SM2), ALGORITHM_SM2_SIGN, SomeBytes(32)};
    return {Threaded("DeviceSign, 2 threads", 2, call),
            Threaded("ECDSA_sign P-256, 2 threads", 2, BareEcdsaSign()),
            Threaded("DeviceSign, 1 thread", 1, call)};
  });
}

void MeasureKeyOperations() {
  for (const int bits : {1024, 2048, 4096}) MeasureRsa(bits);
  MeasureEcdsa();
}
