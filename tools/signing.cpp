// Hashing of messages and the calls of DeviceSign and DeviceVerify.
#include "tools/signing.h"

#include <openssl/core_names.h>
#include <openssl/objects.h>
#include <openssl/rsa.h>

#include <algorithm>

using KeyContext = std::unique_ptr<EVP_PKEY_CTX, Release<EVP_PKEY_CTX_free>>;
using HashContext = std::unique_ptr<EVP_MD_CTX, Release<EVP_MD_CTX_free>>;

static constexpr size_t SM2_ID_MAX = 8191;  // its bit length has to fit 16 bits

// DER of DigestInfo { AlgorithmIdentifier { hash, NULL }, OCTET STRING }, up to the digest; RFC
// 8017, 9.2, note 1. The hashes of SHA-2 differ in three bytes.
static Bytes DigestInfo(const Bytes& digest) {
  const auto size = static_cast<unsigned char>(digest.size());
  const unsigned char number = size == 32 ? 1 : size == 48 ? 2 : 3;  // in 2.16.840.1.101.3.4.2
  Bytes info{0x30,   static_cast<unsigned char>(size + 17),
             0x30,   0x0d,
             0x06,   0x09,
             0x60,   0x86,
             0x48,   0x01,
             0x65,   0x03,
             0x04,   0x02,
             number, 0x05,
             0x00,   0x04,
             size};
  info.insert(info.end(), digest.begin(), digest.end());
  return info;
}

static const EVP_MD* HashOf(const Scheme& scheme, Kind kind) {
  if (kind == Kind::SM2) return EVP_sm3();
  if (scheme.hash == "sha384") return EVP_sha384();
  return scheme.hash == "sha512" ? EVP_sha512() : EVP_sha256();
}

void RequireFitting(const Scheme& scheme, Kind kind) {
  if (scheme.pss && kind != Kind::RSA_PKCS1) {
    throw Failure(EXIT_USAGE, "--pss is for RSA keypairs.");
  }
  if (kind == Kind::SM2 && scheme.hash != "sha256") {
    throw Failure(EXIT_USAGE, "SM2 signs with SM3; leave --hash out.");
  }
}

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

// --- What is signed ------------------------------------------------------------------------------

static Bytes DigestOf(const PublicPart& key, const Scheme& scheme, const Message& message) {
  const EVP_MD* hash = HashOf(scheme, key.kind);
  if (!scheme.isDigest) {
    return Hash(hash, key.kind == Kind::SM2 ? HashOfUser(key, scheme.id) : Bytes(), message);
  }
  const auto size = static_cast<size_t>(EVP_MD_get_size(hash));
  Bytes digest;
  message([&](ByteSpan block) {
    if (block.size() <= size + 1 - std::min(size + 1, digest.size())) {
      digest.insert(digest.end(), block.begin(), block.end());
    } else {
      digest.resize(size + 1);
    }
  });
  if (digest.size() == size) return digest;
  throw Failure(std::string("A digest of ") + EVP_MD_get0_name(hash) + " has " +
                std::to_string(size) + " bytes, in binary; this file has not.");
}

// The RSA key of the low-level padding functions; the EVP key owns it.
static RSA* RsaOf(const PublicPart& key) {
  RSA* rsa = const_cast<RSA*>(EVP_PKEY_get0_RSA(key.key.get()));
  if (rsa == nullptr) throw Failure("The RSA key can't be converted: " + OpenSslError() + ".");
  return rsa;
}

static Bytes PssBlock(const PublicPart& key, const EVP_MD* hash, const Bytes& digest) {
  Bytes block(static_cast<size_t>(EVP_PKEY_get_size(key.key.get())));
  if (RSA_padding_add_PKCS1_PSS(RsaOf(key), block.data(), digest.data(), hash,
                                RSA_PSS_SALTLEN_DIGEST) != 1) {
    throw Failure("The key is too short for PSS with this hash.");
  }
  return block;
}

static unsigned int AlgorithmOf(Kind kind, const Scheme& scheme) {
  switch (kind) {
    case Kind::RSA_PKCS1:
      return scheme.pss ? ALGORITHM_RSA_RAW_SIGN : ALGORITHM_RSA_PKCS1_SIGN;
    case Kind::ECDSA:
      return ALGORITHM_ECDSA_SIGN;
    default:
      return ALGORITHM_SM2_SIGN;
  }
}

std::string SchemeName(const Scheme& scheme, Kind kind) {
  const std::string hash = "SHA-" + scheme.hash.substr(3);
  switch (kind) {
    case Kind::RSA_PKCS1:
      return (scheme.pss ? "RSA PSS with " : "RSA PKCS#1 v1.5 with ") + hash;
    case Kind::ECDSA:
      return "ECDSA with " + hash;
    default:
      return "SM2 with SM3";
  }
}

// --- Signing and verifying -----------------------------------------------------------------------

static Bytes SignBlock(Keypair* keypair, unsigned int algorithm, const Bytes& block) {
  const int blockLen = static_cast<int>(block.size());
  int length = 0;
  int result = DeviceSign(keypair, algorithm, nullptr, block.data(), blockLen, nullptr, 0, &length);
  Bytes signature(result == VAKRO_OK ? static_cast<size_t>(length) : 0);
  if (result == VAKRO_OK) {
    result = DeviceSign(keypair, algorithm, nullptr, block.data(), blockLen, signature.data(),
                        length, &length);
  }
  if (result != VAKRO_OK) throw Failure("Keypair " + NameOf(keypair) + " did not sign.");
  signature.resize(static_cast<size_t>(length));
  return signature;
}

static bool IsPssValid(const PublicPart& key, const EVP_MD* hash, const Bytes& digest,
                       ByteSpan signature) {
  const KeyContext context(EVP_PKEY_CTX_new(key.key.get(), nullptr));
  return context && EVP_PKEY_verify_init(context.get()) == 1 &&
         EVP_PKEY_CTX_set_rsa_padding(context.get(), RSA_PKCS1_PSS_PADDING) == 1 &&
         EVP_PKEY_CTX_set_signature_md(context.get(), hash) == 1 &&
         EVP_PKEY_CTX_set_rsa_pss_saltlen(context.get(), RSA_PSS_SALTLEN_AUTO) == 1 &&
         EVP_PKEY_verify(context.get(), signature.data(), signature.size(), digest.data(),
                         digest.size()) == 1;
}

static bool IsValid(const PublicPart& key, const Scheme& scheme, const Bytes& digest,
                    ByteSpan signature) {
  const EVP_MD* hash = HashOf(scheme, key.kind);
  if (scheme.pss) return IsPssValid(key, hash, digest, signature);
  const Bytes block = key.kind == Kind::RSA_PKCS1 ? DigestInfo(digest) : digest;
  return DeviceVerify(key.handle.get(), AlgorithmOf(key.kind, scheme), nullptr, block.data(),
                      static_cast<int>(block.size()), signature.data(),
                      static_cast<int>(signature.size())) == VAKRO_OK;
}

Bytes SignMessage(Keypair* keypair, const PublicPart& key, const Scheme& scheme,
                  const Message& message) {
  RequireFitting(scheme, key.kind);
  RequireOwnKey(keypair, key);
  const EVP_MD* hash = HashOf(scheme, key.kind);
  const Bytes digest = DigestOf(key, scheme, message);
  const Bytes block = key.kind != Kind::RSA_PKCS1 ? digest
                      : scheme.pss                ? PssBlock(key, hash, digest)
                                                  : DigestInfo(digest);
  Bytes signature = SignBlock(keypair, AlgorithmOf(key.kind, scheme), block);
  if (IsValid(key, scheme, digest, signature)) return signature;
  throw Failure("What keypair " + NameOf(keypair) +
                    " has signed is not valid for its public key "
                    "in the device file; nothing is given out.",
                "Someone has changed the file, or it is damaged: 'softdevice check' looks at it.");
}

bool IsSignatureValid(const PublicPart& key, const Scheme& scheme, const Message& message,
                      ByteSpan signature) {
  RequireFitting(scheme, key.kind);
  return IsValid(key, scheme, DigestOf(key, scheme, message), signature);
}
