// Keypairs from templates.
#include "pkcs11/key_making.h"

#include "core/lock.h"
#include "core/openssl_owners.h"
#include "core/secret.h"
#include "keypair/keypair.h"
#include "pkcs11/log.h"
#include "pkcs11/template.h"
#include "sm2/sm2.h"

static constexpr CK_ULONG MIN_RSA_BITS = 1024, MAX_RSA_BITS = 4096;

// The curve of a template that this library can make keys on; 0 for any other.
static int UsableCurve(Span parameters) {
  const int curve = CurveOf(parameters);
  return curve == CURVE_P256 || (curve == CURVE_SM2 && g_sm2 != nullptr) ? curve : 0;
}

static KeyKind KindOf(int curve) { return curve == CURVE_SM2 ? KeyKind::KEY_SM2 : KeyKind::KEY_EC; }

// Odd, above 1, 8 bytes at most; empty for the usual one. OpenSSL searches for ever for a key with
// an even one.
static bool IsExponent(Span bytes) {
  unsigned long value = bytes.empty() ? 65537 : 0;
  for (const unsigned char byte : bytes) value = value << 8 | byte;
  return bytes.size() <= 8 && (value & 1) != 0 && value > 1;
}

CK_RV ReadRequest(const Mechanism& mechanism, const Template& wanted, KeyRequest& request) {
  request.kind = mechanism.key;
  const Span parameters = wanted.Get(CKA_EC_PARAMS);
  if (mechanism.key == KeyKind::KEY_RSA) {
    const CK_RV sized = wanted.Require(CKA_MODULUS_BITS, &request.bits);
    if (sized != CKR_OK) return sized;
    if (request.bits < MIN_RSA_BITS || request.bits > MAX_RSA_BITS) return CKR_KEY_SIZE_RANGE;
    request.exponent = wanted.Get(CKA_PUBLIC_EXPONENT);
    return IsExponent(request.exponent) ? CKR_OK : CKR_ATTRIBUTE_VALUE_INVALID;
  }
  // A key for SM2 may also be asked for as an EC key on its curve.
  if (mechanism.key == KeyKind::KEY_SM2 && parameters.empty()) return CKR_OK;
  if (parameters.empty()) return CKR_TEMPLATE_INCOMPLETE;
  const int curve = UsableCurve(parameters);
  if (curve == 0) return CKR_CURVE_NOT_SUPPORTED;
  if (mechanism.key == KeyKind::KEY_SM2 && curve != CURVE_SM2) return CKR_CURVE_NOT_SUPPORTED;
  request.kind = KindOf(curve);
  return CKR_OK;
}

CK_RV MakeKeypair(const KeyRequest& request, OwnedKeypair& made) {
  Keypair* raw = nullptr;
  int result = 0;
  if (request.kind == KeyKind::KEY_RSA) {
    RSAKeypairParams parameters = {};
    if (!request.exponent.empty()) {
      parameters.exponent = request.exponent.data();
      parameters.exponentLen = static_cast<int>(request.exponent.size());
    }
    result = GenerateTempRSAKeypair(static_cast<unsigned int>(request.bits), &parameters, 1, &raw);
  } else {
    const int curve = request.kind == KeyKind::KEY_SM2 ? CURVE_SM2 : CURVE_P256;
    result = GenerateTempECCKeypair(curve, 256, 1, &raw);
  }
  if (result != 1) return CKR_FUNCTION_FAILED;
  made.reset(raw);
  return CKR_OK;
}

// --- Import --------------------------------------------------------------------------------------

static constexpr size_t MAX_NUMBER_SIZE = 1024;  // zeros in front are no part of a number

static CK_RV NumberFrom(const Template& wanted, CK_ATTRIBUTE_TYPE type, BigNum& number) {
  const Span bytes = wanted.Get(type);
  if (bytes.empty()) return CKR_TEMPLATE_INCOMPLETE;
  if (bytes.size() > MAX_NUMBER_SIZE) return CKR_ATTRIBUTE_VALUE_INVALID;
  number.reset(BN_bin2bn(bytes.data(), static_cast<int>(bytes.size()), nullptr));
  return number ? CKR_OK : CKR_HOST_MEMORY;
}

static CK_RV DecodeEncoding(unsigned int algorithm, const unsigned char* encoding, int length,
                            OwnedKeypair& made) {
  OwnedKeypair keypair(NewKeypair());
  if (!keypair) return CKR_HOST_MEMORY;
  keypair->algorithm = algorithm;
  keypair->isTemp = 1;
  keypair->privateKey = DecodePair(algorithm, encoding, length, &keypair->curve);
  if (keypair->privateKey == nullptr) return CKR_ATTRIBUTE_VALUE_INVALID;
  made = std::move(keypair);
  return CKR_OK;
}

static CK_RV ImportRsa(const Template& wanted, OwnedKeypair& made) {
  static constexpr CK_ATTRIBUTE_TYPE TYPES[] = {
      CKA_MODULUS, CKA_PUBLIC_EXPONENT, CKA_PRIVATE_EXPONENT, CKA_PRIME_1,
      CKA_PRIME_2, CKA_EXPONENT_1,      CKA_EXPONENT_2,       CKA_COEFFICIENT};
  BigNum part[8];
  for (size_t i = 0; i < 8; i++) {
    const CK_RV read = NumberFrom(wanted, TYPES[i], part[i]);
    if (read == CKR_TEMPLATE_INCOMPLETE) LogReason("an RSA key to import has all eight numbers");
    if (read != CKR_OK) return read;
  }
  const int bits = BN_num_bits(part[0].get());
  if (bits < static_cast<int>(MIN_RSA_BITS) || bits > static_cast<int>(MAX_RSA_BITS))
    return CKR_KEY_SIZE_RANGE;
  const RsaKey rsa(RSA_new());
  if (!rsa) return CKR_HOST_MEMORY;
  if (RSA_set0_key(rsa.get(), part[0].get(), part[1].get(), part[2].get()) != 1)
    return CKR_HOST_MEMORY;
  for (size_t i = 0; i < 3; i++) (void)part[i].release();
  if (RSA_set0_factors(rsa.get(), part[3].get(), part[4].get()) != 1) return CKR_HOST_MEMORY;
  for (size_t i = 3; i < 5; i++) (void)part[i].release();
  if (RSA_set0_crt_params(rsa.get(), part[5].get(), part[6].get(), part[7].get()) != 1)
    return CKR_HOST_MEMORY;
  for (size_t i = 5; i < 8; i++) (void)part[i].release();
  if (RSA_check_key(rsa.get()) != 1) {
    LogReason("the numbers are no RSA key");
    return CKR_ATTRIBUTE_VALUE_INVALID;
  }
  unsigned char* encoding = nullptr;
  int length = 0;
  if (EncodeRSAKeypair(rsa.get(), &encoding, &length) != 1) return CKR_HOST_MEMORY;
  const SecretLibBytes owned(encoding, static_cast<size_t>(length));
  const CK_RV decoded = DecodeEncoding(ALGORITHM_RSA, encoding, length, made);
  if (decoded != CKR_OK) return decoded;
  made->bits = static_cast<unsigned int>(bits);
  unsigned char* publicKey = nullptr;  // a failure may leave anything there
  if (ToRSAPublicKeyEncode(rsa.get(), &publicKey, &length) != 1) return CKR_HOST_MEMORY;
  made->publicKey = publicKey;
  made->publicKeyLen = length;
  return CKR_OK;
}

// The point d * G, whatever point the template names.
static CK_RV PointOf(int curve, const BIGNUM* d, unsigned char (&point)[SM2_POINT_SIZE]) {
  const EcGroup group(
      EC_GROUP_new_by_curve_name(curve == CURVE_SM2 ? NID_sm2 : NID_X9_62_prime256v1));
  if (!group) return CKR_HOST_MEMORY;
  if (BN_is_zero(d) || BN_cmp(d, EC_GROUP_get0_order(group.get())) >= 0)
    return CKR_ATTRIBUTE_VALUE_INVALID;
  const EcPoint product(EC_POINT_new(group.get()));
  if (!product || EC_POINT_mul(group.get(), product.get(), d, nullptr, nullptr, nullptr) != 1 ||
      EC_POINT_point2oct(group.get(), product.get(), POINT_CONVERSION_UNCOMPRESSED, point,
                         sizeof(point), nullptr) != sizeof(point))
    return CKR_HOST_MEMORY;
  return CKR_OK;
}

static CK_RV ImportEc(const Template& wanted, OwnedKeypair& made) {
  const Span parameters = wanted.Get(CKA_EC_PARAMS);
  const int curve = parameters.empty() ? static_cast<int>(CURVE_SM2) : UsableCurve(parameters);
  if (curve == 0) return CKR_CURVE_NOT_SUPPORTED;
  BigNum d;
  const CK_RV read = NumberFrom(wanted, CKA_VALUE, d);
  if (read != CKR_OK) return read;
  unsigned char point[SM2_POINT_SIZE];
  const CK_RV multiplied = PointOf(curve, d.get(), point);
  if (multiplied != CKR_OK) return multiplied;
  Wiped<SM2_FIELD_SIZE> scalar;
  if (BN_bn2binpad(d.get(), scalar.bytes, SM2_FIELD_SIZE) != SM2_FIELD_SIZE) return CKR_HOST_MEMORY;
  unsigned char* encoding = nullptr;
  int length = 0;
  if (VakroPKICryptoEncodeECCKeyPair(curve, point + 1, SM2_FIELD_SIZE, point + 1 + SM2_FIELD_SIZE,
                                     SM2_FIELD_SIZE, scalar.bytes, SM2_FIELD_SIZE, &encoding,
                                     &length) != 1)
    return CKR_HOST_MEMORY;
  const SecretLibBytes owned(encoding, static_cast<size_t>(length));
  const CK_RV decoded = DecodeEncoding(ALGORITHM_ECC, encoding, length, made);
  if (decoded != CKR_OK) return decoded;
  made->bits = 256;
  unsigned char* publicKey = nullptr;  // a failure may leave anything there
  if (VakroPKICryptoEncodeECCPubKey(curve, point + 1, SM2_FIELD_SIZE, point + 1 + SM2_FIELD_SIZE,
                                    SM2_FIELD_SIZE, &publicKey, &length) != 1)
    return CKR_HOST_MEMORY;
  made->publicKey = publicKey;
  made->publicKeyLen = length;
  return CKR_OK;
}

static CK_RV KeyTypeIn(const Template& wanted, bool& isRsa) {
  CK_ULONG type = 0;
  const CK_RV given = wanted.Require(CKA_KEY_TYPE, &type);
  if (given != CKR_OK) return given;
  isRsa = type == CKK_RSA;
  return isRsa || type == CKK_EC || type == SM2KeyType() ? CKR_OK : CKR_ATTRIBUTE_VALUE_INVALID;
}

CK_RV ImportKeypair(const Template& wanted, OwnedKeypair& made) {
  bool isRsa = false;
  const CK_RV typed = KeyTypeIn(wanted, isRsa);
  if (typed != CKR_OK) return typed;
  return isRsa ? ImportRsa(wanted, made) : ImportEc(wanted, made);
}

CK_RV ReadPublicKey(const Template& wanted, Buffer& encoding) {
  bool isRsa = false;
  const CK_RV typed = KeyTypeIn(wanted, isRsa);
  if (typed != CKR_OK) return typed;
  if (isRsa) {
    const Span modulus = wanted.Get(CKA_MODULUS);
    const Span exponent = wanted.Get(CKA_PUBLIC_EXPONENT);
    if (modulus.empty() || exponent.empty()) return CKR_TEMPLATE_INCOMPLETE;
    return EncodeRsaPublicKey(modulus, exponent, encoding) ? CKR_OK : CKR_ATTRIBUTE_VALUE_INVALID;
  }
  const Span parameters = wanted.Get(CKA_EC_PARAMS);
  const Span point = wanted.Get(CKA_EC_POINT);
  if (parameters.empty() || point.empty()) return CKR_TEMPLATE_INCOMPLETE;
  const int curve = CurveOf(parameters);
  if (curve == 0) return CKR_CURVE_NOT_SUPPORTED;
  return EncodeEcPublicKey(curve, point, encoding) ? CKR_OK : CKR_ATTRIBUTE_VALUE_INVALID;
}
