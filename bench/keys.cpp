// Key operations through the interface beside OpenSSL's own functions on the same key objects; SM2
// beside ECDSA on P-256, a curve of the same size; signing in two threads; generation.
#include "keys.h"

#include <openssl/rand.h>

#include <map>
#include <random>

static constexpr size_t DIGEST_INFO_SIZE = 51;  // of SHA-256
static const std::string DIGEST(32, 'e'), LARGE(4096, 'e'), DIGEST_INFO(DIGEST_INFO_SIZE, 'e');

// --- Keys ---

namespace {
// While one lives, OpenSSL's random numbers are one fixed sequence: a search for primes then costs
// every contender the same.
struct SameRandom {
  static inline std::mt19937_64 generator;
  static int Next(unsigned char* bytes, int length) {
    for (int i = 0; i < length; i++) bytes[i] = static_cast<unsigned char>(generator());
    return 1;
  }
  static inline const RAND_METHOD METHOD = {nullptr, Next, nullptr, nullptr, Next, nullptr};
  SameRandom() {
    generator.seed(4);  // finds its primes soon
    RAND_set_rand_method(&METHOD);
  }
  SameRandom(const SameRandom&) = delete;
  SameRandom& operator=(const SameRandom&) = delete;
  ~SameRandom() { RAND_set_rand_method(RAND_OpenSSL()); }
};
}  // namespace

// `size`: the bits of an RSA key, or a curve.
static std::shared_ptr<Keypair> GenerateTemporary(unsigned int algorithm, int size) {
  Device none = {};  // a temporary keypair touches no device
  const RSAKeypairParams rsa = {nullptr, 0, 1};
  const ECCKeypairParams ecc = {size, 1};
  const bool isRsa = algorithm == ALGORITHM_RSA;
  const void* const params = isRsa ? static_cast<const void*>(&rsa) : &ecc;
  Keypair* made = nullptr;
  DeviceGenerateKeypair(&none, algorithm, isRsa ? size : 256, params, 1, "temporary", &made);
  Check(made != nullptr, "DeviceGenerateKeypair");
  return {made, DeviceFreeKeypair};
}

static Key KeyOf(unsigned int algorithm, int size) {
  static std::map<std::pair<unsigned int, int>, std::weak_ptr<Keypair>> known;
  std::shared_ptr<Keypair> pair = known[{algorithm, size}].lock();
  const SameRandom random;
  if (pair == nullptr) known[{algorithm, size}] = pair = GenerateTemporary(algorithm, size);
  return {pair, {DeviceGetPublicKeyFromKeypair(pair.get()), DeviceFreePublicKey}};
}
Key RsaKeyOf(int bits) { return KeyOf(ALGORITHM_RSA, bits); }
Key EccKeyOf(int curve) { return KeyOf(ALGORITHM_ECC, curve); }

static EC_KEY* EcOf(const EVP_PKEY* key) { return const_cast<EC_KEY*>(EVP_PKEY_get0_EC_KEY(key)); }

// --- Calls ---

Call VerifyCall(const Key& key, unsigned int algorithm, const std::string& data) {
  return [=, signature = SignCall{key.pair, algorithm, data}.Output()] {
    return DeviceVerify(key.pub.get(), algorithm, nullptr, Raw(data), Len(data), Raw(signature),
                        Len(signature)) == 1;
  };
}

using RsaFunction = int (*)(int, const unsigned char*, unsigned char*, RSA*, int);

static Call BareRsa(RsaFunction function, const EVP_PKEY* key, const std::string& data) {
  RSA* const rsa = const_cast<RSA*>(EVP_PKEY_get0_RSA(key));
  return [=, output = std::string(1024, '\0')]() mutable {
    return function(Len(data), Raw(data), Room(output), rsa, RSA_PKCS1_PADDING) > 0;
  };
}

Call BareEcdsaSign() {
  return [key = EccKeyOf(CURVE_P256), output = std::string(160, '\0')]() mutable {
    unsigned int length = 0;
    EC_KEY* const ec = EcOf(key.pair->privateKey);
    return ECDSA_sign(0, Raw(DIGEST), 32, Room(output), &length, ec) == 1;
  };
}

Call BareEcdsaVerify() {
  const Key key = EccKeyOf(CURVE_P256);
  const std::string signature = SignCall{key.pair, ALGORITHM_ECDSA_SIGN, DIGEST}.Output();
  return [=] {
    EC_KEY* const ec = EcOf(key.pub->key);
    return ECDSA_verify(0, Raw(DIGEST), 32, Raw(signature), Len(signature), ec) == 1;
  };
}

bool BareEcGeneration(const EC_GROUP* group) {
  const EcKey key(group == nullptr ? EC_KEY_new_by_curve_name(NID_X9_62_prime256v1) : EC_KEY_new());
  return key && (group == nullptr || EC_KEY_set_group(key.get(), group) == 1) &&
         EC_KEY_generate_key(key.get()) == 1;
}

static bool BareRsaGeneration(int bits) {
  const RsaKey rsa(RSA_new());
  const BigNum e(BN_new());
  return rsa && e && BN_set_word(e.get(), RSA_F4) == 1 &&
         RSA_generate_key_ex(rsa.get(), bits, e.get(), nullptr) == 1;
}

// --- Rows ---

static void AddRsa(int bits) {
  const std::string row = "/RSA-" + std::to_string(bits);
  const auto key = [bits] { return RsaKeyOf(bits); };
  const auto signature = [=] {
    return SignCall{key().pair, ALGORITHM_RSA_PKCS1_SIGN, DIGEST_INFO}.Output();
  };
  const auto secret = [=] {
    return EncryptCall{key().pub, ALGORITHM_RSA_PKCS1_ENCRYPT, DIGEST}.Output();
  };
  const auto bare = [=](RsaFunction function, const std::string& data) {
    const Key own = key();
    return Measured{[own, call = BareRsa(function, own.pair->privateKey, data)] { return call(); }};
  };
  Add("sign" + row, "DeviceSign", [=] {
    return Measured{SignCall{key().pair, ALGORITHM_RSA_PKCS1_SIGN, DIGEST_INFO}};
  });
  Add("sign" + row, "RSA_private_encrypt", [=] { return bare(RSA_private_encrypt, DIGEST_INFO); });
  Add("verify" + row, "DeviceVerify",
      [=] { return Measured{VerifyCall(key(), ALGORITHM_RSA_PKCS1_SIGN, DIGEST_INFO)}; });
  Add("verify" + row, "RSA_public_decrypt", [=] { return bare(RSA_public_decrypt, signature()); });
  Add("encrypt" + row, "DevicePublicKeyEncrypt", [=] {
    return Measured{EncryptCall{key().pub, ALGORITHM_RSA_PKCS1_ENCRYPT, DIGEST}};
  });
  Add("encrypt" + row, "RSA_public_encrypt", [=] { return bare(RSA_public_encrypt, DIGEST); });
  Add("decrypt" + row, "DevicePrivateKeyDecrypt", [=] {
    return Measured{DecryptCall{key().pair, ALGORITHM_RSA_PKCS1_ENCRYPT, secret()}};
  });
  Add("decrypt" + row, "RSA_private_decrypt", [=] { return bare(RSA_private_decrypt, secret()); });
}

static void AddCurve(const std::string& name, int curve, unsigned int algorithm) {
  const std::string beside = curve == CURVE_P256 ? "" : " P-256";
  Add("sign/" + name, "DeviceSign", [=] {
    return Measured{SignCall{EccKeyOf(curve).pair, algorithm, DIGEST}};
  });
  Add("sign/" + name, "ECDSA_sign" + beside, [] { return Measured{BareEcdsaSign()}; });
  Add("verify/" + name, "DeviceVerify",
      [=] { return Measured{VerifyCall(EccKeyOf(curve), algorithm, DIGEST)}; });
  Add("verify/" + name, "ECDSA_verify" + beside, [] { return Measured{BareEcdsaVerify()}; });
}

static void AddSm2Cipher(const std::string& size, const std::string& text) {
  const auto encrypt = [=] {
    return EncryptCall{EccKeyOf(CURVE_SM2).pub, ALGORITHM_SM2_ENCRYPT, text};
  };
  const auto decrypt = [=] {
    return DecryptCall{EccKeyOf(CURVE_SM2).pair, ALGORITHM_SM2_ENCRYPT, encrypt().Output()};
  };
  Add("encrypt/SM2, " + size, "DevicePublicKeyEncrypt", [=] { return Measured{encrypt()}; });
  Add("decrypt/SM2, " + size, "DevicePrivateKeyDecrypt", [=] { return Measured{decrypt()}; });
  if (text.size() != DIGEST.size()) return;
  for (const char* row : {"encrypt/SM2, ", "decrypt/SM2, "})
    Add(row + size, "ECDSA_verify P-256", [] { return Measured{BareEcdsaVerify()}; });
}

// Times are those of one signature: two threads halve them where nothing is in the way.
static void AddThreads(const std::string& name, const std::function<Call()>& module,
                       const std::string& bareName, const std::function<Call()>& bare) {
  const std::string row = "sign on 2 threads/" + name;
  const auto add = [&](const std::string& who, int threads, const std::function<Call()>& make) {
    Add(row, who, [=] { return Measured{make()}; })->Threads(threads)->UseRealTime();
  };
  add("DeviceSign", 2, module);
  add(bareName + ", 2 threads", 2, bare);
  add("DeviceSign, 1 thread", 1, module);
}

static void AddGeneration() {
  for (const int bits : {1024, 2048, 4096}) {
    const std::string row = "generate/RSA-" + std::to_string(bits);
    const auto add = [&](const char* who, const Call& call) {
      Add(row, who, [=] {
        return Measured{[=] {
          const SameRandom random;
          return call();
        }};
      });
    };
    add("DeviceGenerateKeypair",
        [bits] { return GenerateTemporary(ALGORITHM_RSA, bits) != nullptr; });
    add("RSA_generate_key_ex", [bits] { return BareRsaGeneration(bits); });
  }
  const auto generate = [](int curve) {
    return [=] {
      return Measured{[=] { return GenerateTemporary(ALGORITHM_ECC, curve) != nullptr; }};
    };
  };
  Add("generate/P-256", "DeviceGenerateKeypair", generate(CURVE_P256));
  Add("generate/P-256", "EC_KEY_generate_key",
      [] { return Measured{[] { return BareEcGeneration(); }}; });
  Add("generate/SM2", "DeviceGenerateKeypair", generate(CURVE_SM2));
  Add("generate/SM2", "DeviceGenerateKeypair P-256", generate(CURVE_P256));
}

void AddKeyOperations() {
  for (const int bits : {1024, 2048, 4096}) AddRsa(bits);
  AddCurve("ECDSA P-256", CURVE_P256, ALGORITHM_ECDSA_SIGN);
  AddCurve("SM2", CURVE_SM2, ALGORITHM_SM2_SIGN);
  AddSm2Cipher("32 bytes", DIGEST);
  AddSm2Cipher("4 KB", LARGE);
  const auto sign = [](auto keyOf, int size, unsigned int algorithm, const std::string& data) {
    return [=] { return SignCall{keyOf(size).pair, algorithm, data}; };
  };
  AddThreads("RSA-2048", sign(RsaKeyOf, 2048, ALGORITHM_RSA_PKCS1_SIGN, DIGEST_INFO),
             "RSA_private_encrypt", [] {
               const Key key = RsaKeyOf(2048);
               const EVP_PKEY* const pair = key.pair->privateKey;
               return
                   [key, call = BareRsa(RSA_private_encrypt, pair, DIGEST_INFO)] { return call(); };
             });
  AddThreads("ECDSA P-256", sign(EccKeyOf, CURVE_P256, ALGORITHM_ECDSA_SIGN, DIGEST), "ECDSA_sign",
             BareEcdsaSign);
  AddThreads("SM2", sign(EccKeyOf, CURVE_SM2, ALGORITHM_SM2_SIGN, DIGEST), "ECDSA_sign P-256",
             BareEcdsaSign);
  AddGeneration();
}
