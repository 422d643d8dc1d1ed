// Hashing of messages and the calls of DeviceSign and DeviceVerify.
#include "tools/signing.h"

#include <openssl/core_names.h>
#include <openssl/objects.h>

using HashContext = std::unique_ptr<EVP_MD_CTX, Release<EVP_MD_CTX_free>>;

static constexpr size_t SM2_ID_MAX = 8191;  // its bit length has to fit 16 bits

// DER of DigestInfo { AlgorithmIdentifier { sha256, NULL }, OCTET STRING of 32 bytes }, up to the
// digest; RFC 8017, 9.2, note 1.
static constexpr unsigned char SHA256_DIGEST_INFO[] = {0x30, 0x31, 0x30, 0x0d, 0x06, 0x09, 0x60,
                                                       0x86, 0x48, 0x01, 0x65, 0x03, 0x04, 0x02,
                                                       0x01, 0x05, 0x00, 0x04, 0x20};

Message FileMessage(const std::string& path) {
  return [path](const std::function<void(ByteSpan)>& take) { EachBlock(path, take); };
}

Message MemoryMessage(ByteSpan bytes) {
  return [bytes](const std::function<void(ByteSpan)>& take) { take(bytes); };
}

static void RequireHash(int result) {
  if (result != 1) throw Failure("Hashing failed: " + OpenSslError() + ".");
}

static Bytes Hash(const EVP_MD* algorithm, ByteSpan prefix, const Message& message) {
  const HashContext context(EVP_MD_CTX_new());
  RequireHash(context && EVP_DigestInit_ex(context.get(), algorithm, nullptr) == 1);
  RequireHash(EVP_DigestUpdate(context.get(), prefix.data(), prefix.size()));
  message([&](ByteSpan block) {
    RequireHash(EVP_DigestUpdate(context.get(), block.data(), block.size()));
  });
  Bytes digest(static_cast<size_t>(EVP_MD_get_size(algorithm)));
  RequireHash(EVP_DigestFinal_ex(context.get(), digest.data(), nullptr));
  return digest;
}

static void Append(Bytes& bytes, const BIGNUM* number) {
  const size_t end = bytes.size();
  bytes.resize(end + SM2_FIELD_SIZE);
  RequireHash(BN_bn2binpad(number, bytes.data() + end, SM2_FIELD_SIZE) == SM2_FIELD_SIZE);
}

// Z = SM3(ENTL || ID || a || b || xG || yG || xA || yA)
static Bytes HashOfUser(const PublicPart& key, const std::string& id) {
  if (id.size() > SM2_ID_MAX) throw Failure("The --id is longer than 8191 bytes.");
  const EcGroup group(EC_GROUP_new_by_curve_name(NID_sm2));
  const BigNum a(BN_new()), b(BN_new()), xG(BN_new()), yG(BN_new());
  RequireHash(group && a && b && xG && yG &&
              EC_GROUP_get_curve(group.get(), nullptr, a.get(), b.get(), nullptr) == 1 &&
              EC_POINT_get_affine_coordinates(group.get(), EC_GROUP_get0_generator(group.get()),
                                              xG.get(), yG.get(), nullptr) == 1);
  FieldNumber xA, yA;
  NumberOf(key.key.get(), OSSL_PKEY_PARAM_EC_PUB_X, xA);
  NumberOf(key.key.get(), OSSL_PKEY_PARAM_EC_PUB_Y, yA);
  const size_t bits = id.size() * 8;
  Bytes input{static_cast<unsigned char>(bits >> 8), static_cast<unsigned char>(bits)};
  input.insert(input.end(), id.begin(), id.end());
  for (const BIGNUM* number : {a.get(), b.get(), xG.get(), yG.get()}) Append(input, number);
  input.insert(input.end(), xA.bytes, xA.bytes + SM2_FIELD_SIZE);
  input.insert(input.end(), yA.bytes, yA.bytes + SM2_FIELD_SIZE);
  return Hash(EVP_sm3(), {}, MemoryMessage(input));
}

// What the module is given to sign.
static Bytes ToBeSigned(const PublicPart& key, const std::string& id, const Message& message) {
  if (key.kind == Kind::SM2) return Hash(EVP_sm3(), HashOfUser(key, id), message);
  const Bytes digest = Hash(EVP_sha256(), {}, message);
  if (key.kind == Kind::ECDSA) return digest;
  Bytes info(std::begin(SHA256_DIGEST_INFO), std::end(SHA256_DIGEST_INFO));
  info.insert(info.end(), digest.begin(), digest.end());
  return info;
}

static unsigned int AlgorithmOf(Kind kind) {
  switch (kind) {
    case Kind::RSA_PKCS1:
      return ALGORITHM_RSA_PKCS1_SIGN;
    case Kind::ECDSA:
      return ALGORITHM_ECDSA_SIGN;
    default:
      return ALGORITHM_SM2_SIGN;
  }
}

const char* SchemeName(Kind kind) {
  switch (kind) {
    case Kind::RSA_PKCS1:
      return "RSA PKCS#1 v1.5 with SHA-256";
    case Kind::ECDSA:
      return "ECDSA with SHA-256";
    default:
      return "SM2 with SM3";
  }
}

Bytes SignMessage(Keypair* keypair, const PublicPart& key, const std::string& id,
                  const Message& message) {
  const Bytes block = ToBeSigned(key, id, message);
  const unsigned int algorithm = AlgorithmOf(key.kind);
  const int blockLen = static_cast<int>(block.size());
  int length = 0;
  int result = DeviceSign(keypair, algorithm, nullptr, block.data(), blockLen, nullptr, 0, &length);
  Bytes signature(result == VAKRO_OK ? static_cast<size_t>(length) : 0);
  if (result == VAKRO_OK) {
    result = DeviceSign(keypair, algorithm, nullptr, block.data(), blockLen, signature.data(),
                        length, &length);
  }
  if (result != VAKRO_OK) throw Failure("Keypair " + LabelOf(keypair) + " did not sign.");
  signature.resize(static_cast<size_t>(length));
  return signature;
}

bool IsSignatureValid(const PublicPart& key, const std::string& id, const Message& message,
                      ByteSpan signature) {
  const Bytes block = ToBeSigned(key, id, message);
  return DeviceVerify(key.handle.get(), AlgorithmOf(key.kind), nullptr, block.data(),
                      static_cast<int>(block.size()), signature.data(),
                      static_cast<int>(signature.size())) == VAKRO_OK;
}
