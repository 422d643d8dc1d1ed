// Public keys between module, OpenSSL and files.
#include "tools/keys.h"

#include <openssl/core_names.h>
#include <openssl/err.h>
#include <openssl/param_build.h>
#include <openssl/pem.h>
#include <openssl/sha.h>

using ParamBuilder = std::unique_ptr<OSSL_PARAM_BLD, Release<OSSL_PARAM_BLD_free>>;
using Params = std::unique_ptr<OSSL_PARAM, Release<OSSL_PARAM_free>>;
using KeyContext = std::unique_ptr<EVP_PKEY_CTX, Release<EVP_PKEY_CTX_free>>;

namespace {
// A curve: its name to show, what OpenSSL calls it, and the size of its field in bytes.
struct CurveInfo {
  const char* name;
  const char* group;
  int size;
};
}  // namespace

static constexpr CurveInfo UNKNOWN_CURVE = {};

// By VakroCurve.
static constexpr CurveInfo CURVES[] = {
    UNKNOWN_CURVE,
    {"P-192", "prime192v1", 24},
    {"P-224", "secp224r1", 28},
    {"P-256", "prime256v1", 32},
    {"P-384", "secp384r1", 48},
    {"P-521", "secp521r1", 66},
    UNKNOWN_CURVE,
    {"SM2", "SM2", 32},
};

static const CurveInfo& InfoOf(int curve) {
  return curve >= CURVE_P192 && curve <= CURVE_SM2 ? CURVES[curve] : UNKNOWN_CURVE;
}

std::string OpenSslError() {
  const unsigned long code = ERR_get_error();
  ERR_clear_error();
  const char* reason = code == 0 ? nullptr : ERR_reason_error_string(code);
  return reason == nullptr ? "unknown cause" : reason;
}

std::string TextOf(BIO* memory) {
  char* text = nullptr;
  const long length = BIO_get_mem_data(memory, &text);
  return length <= 0 ? std::string() : std::string(text, static_cast<size_t>(length));
}

static int DecodePoint(const unsigned char* encoding, int length, LibBytes& x, int& xLen,
                       LibBytes& y, int& yLen) {
  int curve = 0;
  unsigned char *rawX = nullptr, *rawY = nullptr;
  if (VakroPKICryptoDecodeECCPubKey(encoding, length, &curve, &rawX, &xLen, &rawY, &yLen) != 1) {
    return 0;
  }
  x.reset(rawX);
  y.reset(rawY);
  return curve;
}

std::string KindName(Keypair* keypair) {
  if (keypair->algorithm == ALGORITHM_RSA) return "RSA-" + std::to_string(keypair->bits);
  LibBytes x, y;
  int xLen = 0, yLen = 0;
  const int curve = DecodePoint(keypair->publicKey, keypair->publicKeyLen, x, xLen, y, yLen);
  const char* name = InfoOf(curve).name;
  return name == nullptr ? "unknown" : name;
}

static EvpKey FromParams(const char* type, OSSL_PARAM_BLD* builder) {
  const Params params(OSSL_PARAM_BLD_to_param(builder));
  const KeyContext context(EVP_PKEY_CTX_new_from_name(nullptr, type, nullptr));
  EVP_PKEY* key = nullptr;
  if (!params || !context || EVP_PKEY_fromdata_init(context.get()) != 1 ||
      EVP_PKEY_fromdata(context.get(), &key, EVP_PKEY_PUBLIC_KEY, params.get()) != 1) {
    throw Failure("The public key can't be converted: " + OpenSslError() + ".");
  }
  return EvpKey(key);
}

static EvpKey RsaFromEncoding(ByteSpan encoding) {
  unsigned char *rawModulus = nullptr, *rawExponent = nullptr;
  int modulusLen = 0, exponentLen = 0;
  if (VakroPKICryptoDecodeRSAPubKey(encoding.data(), static_cast<int>(encoding.size()), &rawModulus,
                                    &modulusLen, &rawExponent, &exponentLen) != 1) {
    throw Failure("The public key does not decode.");
  }
  const LibBytes modulus(rawModulus), exponent(rawExponent);
  const BigNum n(BN_bin2bn(rawModulus, modulusLen, nullptr));
  const BigNum e(BN_bin2bn(rawExponent, exponentLen, nullptr));
  const ParamBuilder builder(OSSL_PARAM_BLD_new());
  if (!n || !e || !builder) throw std::bad_alloc();
  OSSL_PARAM_BLD_push_BN(builder.get(), OSSL_PKEY_PARAM_RSA_N, n.get());
  OSSL_PARAM_BLD_push_BN(builder.get(), OSSL_PKEY_PARAM_RSA_E, e.get());
  return FromParams("RSA", builder.get());
}

static EvpKey EccFromEncoding(ByteSpan encoding) {
  LibBytes x, y;
  int xLen = 0, yLen = 0;
  const int curve =
      DecodePoint(encoding.data(), static_cast<int>(encoding.size()), x, xLen, y, yLen);
  const CurveInfo& info = InfoOf(curve);
  if (info.group == nullptr || xLen > info.size || yLen > info.size) {
    throw Failure("The public key does not decode.");
  }
  const auto size = static_cast<size_t>(info.size);
  Bytes point(1 + 2 * size);
  point[0] = POINT_CONVERSION_UNCOMPRESSED;
  // A coordinate may come back shorter than its field; pad on the left.
  std::copy_n(x.get(), xLen, point.begin() + 1 + info.size - xLen);
  std::copy_n(y.get(), yLen, point.end() - yLen);
  const ParamBuilder builder(OSSL_PARAM_BLD_new());
  if (!builder) throw std::bad_alloc();
  OSSL_PARAM_BLD_push_utf8_string(builder.get(), OSSL_PKEY_PARAM_GROUP_NAME, info.group, 0);
  OSSL_PARAM_BLD_push_octet_string(builder.get(), OSSL_PKEY_PARAM_PUB_KEY, point.data(),
                                   point.size());
  return FromParams(curve == CURVE_SM2 ? "SM2" : "EC", builder.get());
}

EvpKey PublicKeyOf(const Keypair* keypair) {
  const ByteSpan encoding(keypair->publicKey, static_cast<size_t>(keypair->publicKeyLen));
  try {
    return keypair->algorithm == ALGORITHM_RSA ? RsaFromEncoding(encoding)
                                               : EccFromEncoding(encoding);
  } catch (const Failure&) {
    ERR_clear_error();
    return nullptr;
  }
}

Bytes DerOf(EVP_PKEY* publicKey) {
  unsigned char* raw = nullptr;
  const int length = i2d_PUBKEY(publicKey, &raw);
  if (length <= 0) throw Failure("The public key can't be written: " + OpenSslError() + ".");
  const OpensslBytes der(raw);
  return Bytes(raw, raw + length);
}

std::string FingerprintOf(ByteSpan bytes) {
  unsigned char digest[SHA256_DIGEST_LENGTH];
  SHA256(bytes.data(), bytes.size(), digest);
  return HexText(digest, sizeof digest);
}

std::string FingerprintOf(Keypair* keypair) {
  const EvpKey key = PublicKeyOf(keypair);
  return key ? FingerprintOf(DerOf(key.get())) : "";
}

std::string KindName(EVP_PKEY* key) {
  if (EVP_PKEY_get_base_id(key) == EVP_PKEY_RSA) {
    return "RSA-" + std::to_string(EVP_PKEY_get_bits(key));
  }
  char group[NAME_SIZE] = {};
  if (EVP_PKEY_get_group_name(key, group, sizeof group, nullptr) == 1 &&
      EVP_PKEY_is_a(key, "DH") == 0) {
    for (const CurveInfo& info : CURVES) {
      if (info.group != nullptr && OBJ_txt2nid(group) == OBJ_txt2nid(info.group)) return info.name;
    }
    return std::string("elliptic-curve (") + group + ")";
  }
  const char* name = EVP_PKEY_get0_type_name(key);
  return name == nullptr ? "unknown" : Lower(name) == "ed25519" ? "Ed25519" : name;
}

static Bytes PointOf(const EC_KEY* key) {
  unsigned char* raw = nullptr;
  const size_t length = EC_POINT_point2buf(EC_KEY_get0_group(key), EC_KEY_get0_public_key(key),
                                           POINT_CONVERSION_UNCOMPRESSED, &raw, nullptr);
  const OpensslBytes point(raw);
  return Bytes(raw, raw + length);
}

static Bytes PointOf(EVP_PKEY* publicKey) {
  FieldNumber x, y;
  NumberOf(publicKey, OSSL_PKEY_PARAM_EC_PUB_X, x);
  NumberOf(publicKey, OSSL_PKEY_PARAM_EC_PUB_Y, y);
  Bytes point{POINT_CONVERSION_UNCOMPRESSED};
  point.insert(point.end(), x.bytes, x.bytes + SM2_FIELD_SIZE);
  point.insert(point.end(), y.bytes, y.bytes + SM2_FIELD_SIZE);
  return point;
}

// Not EVP_PKEY_eq alone: the module has SM2 keys as keys of the general kind, which OpenSSL takes
// for something else.
bool SamePublicKey(EVP_PKEY* privateKey, EVP_PKEY* publicKey) {
  const EC_KEY* ec = EVP_PKEY_get0_EC_KEY(privateKey);
  const bool same = ec != nullptr && CurveOf(publicKey) != 0
                        ? PointOf(ec) == PointOf(publicKey)
                        : EVP_PKEY_eq(privateKey, publicKey) == 1;
  ERR_clear_error();
  return same;
}

void RequireOwnKey(Keypair* keypair, const PublicPart& key) {
  if (keypair->privateKey != nullptr && SamePublicKey(keypair->privateKey, key.key.get())) return;
  throw Failure("The public key of keypair " + NameOf(keypair) +
                    " in the device file is not that of its private key: someone has changed the "
                    "file.",
                "'softdevice check' looks at all of it; 'softdevice restore' takes a backup.");
}

// The handle is made from the encoding, not from the keypair: only so it knows the curve without
// the PIN.
static PublicPart FromEncoding(const Bytes& encoding) {
  PublicKey* raw = nullptr;
  if (DeviceImportPublicKey(nullptr, encoding.data(), static_cast<int>(encoding.size()), &raw) !=
      VAKRO_OK) {
    throw Failure(
        "This public key can't be used: it is damaged, or on a curve other than P-256 "
        "and SM2.");
  }
  PublicPart part{
      .kind = Kind::RSA_PKCS1, .bits = DeviceGetPublicKeyBits(raw), .handle = {}, .key = {}};
  part.handle.reset(raw);
  if (raw->algorithm == ALGORITHM_ECC) {
    part.kind = raw->curve == CURVE_SM2 ? Kind::SM2 : Kind::ECDSA;
  }
  if (part.kind == Kind::ECDSA && raw->curve != CURVE_P256) {
    throw Failure("Only elliptic-curve keys on P-256 and SM2 can be used.");
  }
  part.key = part.kind == Kind::RSA_PKCS1 ? RsaFromEncoding(encoding) : EccFromEncoding(encoding);
  return part;
}

PublicPart PublicPartOf(Keypair* keypair) {
  const unsigned char* bytes = keypair->publicKey;
  return FromEncoding(Bytes(bytes, bytes + keypair->publicKeyLen));
}

static Bytes RsaEncoding(EVP_PKEY* key) {
  unsigned char* rawDer = nullptr;
  const int derLen = i2d_PublicKey(key, &rawDer);  // the PKCS#1 RSAPublicKey
  const OpensslBytes der(rawDer);
  unsigned char* raw = nullptr;
  int length = 0;
  if (derLen <= 0 || VakroPKICryptoRSAPubKeyFromDER(rawDer, derLen, &raw, &length) != 1) {
    throw Failure("The RSA public key can't be converted.");
  }
  const LibBytes encoding(raw);
  return Bytes(raw, raw + length);
}

int CurveOf(EVP_PKEY* key) {
  char name[NAME_SIZE] = {};
  if (EVP_PKEY_get_group_name(key, name, sizeof name, nullptr) != 1) return 0;
  const int nid = OBJ_txt2nid(name);
  return nid == NID_X9_62_prime256v1 ? CURVE_P256 : nid == NID_sm2 ? CURVE_SM2 : 0;
}

void NumberOf(EVP_PKEY* key, const char* parameter, FieldNumber& number) {
  BIGNUM* raw = nullptr;
  const bool got = EVP_PKEY_get_bn_param(key, parameter, &raw) == 1;
  const BigNum value(raw);
  if (!got || BN_bn2binpad(raw, number.bytes, SM2_FIELD_SIZE) != SM2_FIELD_SIZE) {
    throw Failure("The elliptic-curve key can't be converted: " + OpenSslError() + ".");
  }
}

static Bytes EccEncoding(EVP_PKEY* key, int curve) {
  FieldNumber x, y;
  NumberOf(key, OSSL_PKEY_PARAM_EC_PUB_X, x);
  NumberOf(key, OSSL_PKEY_PARAM_EC_PUB_Y, y);
  unsigned char* raw = nullptr;
  int length = 0;
  if (VakroPKICryptoEncodeECCPubKey(curve, x.bytes, SM2_FIELD_SIZE, y.bytes, SM2_FIELD_SIZE, &raw,
                                    &length) != 1) {
    throw Failure("The elliptic-curve public key can't be converted.");
  }
  const LibBytes encoding(raw);
  return Bytes(raw, raw + length);
}

PublicPart PublicPartOf(EVP_PKEY* key) {
  if (EVP_PKEY_get_base_id(key) == EVP_PKEY_RSA) return FromEncoding(RsaEncoding(key));
  const int curve = CurveOf(key);
  if (curve == 0) throw Failure("Only RSA, P-256 and SM2 keys can be used.");
  return FromEncoding(EccEncoding(key, curve));
}

std::string PemOf(EVP_PKEY* publicKey) {
  const Bio memory(BIO_new(BIO_s_mem()));
  if (!memory || PEM_write_bio_PUBKEY(memory.get(), publicKey) != 1) {
    throw Failure("The public key can't be written: " + OpenSslError() + ".");
  }
  return TextOf(memory.get());
}
