// The signature schemes.
#include "pkcs11/schemes.h"

#include "sm2/sm2.h"

#include <string.h>

using EcdsaSig = std::unique_ptr<ECDSA_SIG, Release<ECDSA_SIG_free>>;

static constexpr size_t MAX_DER_SIZE = 160;  // of the two numbers; on P-521 they take 139

static const RSA* RsaOf(const Key& key) { return EVP_PKEY_get0_RSA(key.publicKey->key); }

static size_t OrderSize(const Key& key) {
  return (static_cast<size_t>(EVP_PKEY_get_bits(key.publicKey->key)) + 7) / 8;
}

size_t SignatureSize(const Key& key) {
  return key.kind == KeyKind::KEY_RSA ? ModulusSize(key) : 2 * OrderSize(key);
}

static CK_RV KeyResult(int result) {
  switch (result) {
    case VAKRO_OK:
      return CKR_OK;
    case VAKRO_NOT_VERIFIED:
      return CKR_USER_NOT_LOGGED_IN;
    default:
      return CKR_FUNCTION_FAILED;
  }
}

// --- RSA -----------------------------------------------------------------------------------------

namespace {
// What the key is given, at most as long as the modulus.
struct Block {
  unsigned char bytes[MAX_MODULUS_SIZE];
  size_t length = 0;
  void Append(Bytes part) {
    if (!part.empty()) memcpy(bytes + length, part.data(), part.size());
    length += part.size();
  }
};
}  // namespace

// A DigestInfo, or what the program gives in its place.
static void FillPkcs(Block& block, const Hash* hash, Bytes input) {
  if (hash != nullptr) block.Append({hash->prefix, hash->prefixLen});
  block.Append(input);
}

bool FillRaw(const Key& key, Bytes input, unsigned char* block) {
  const size_t padding = ModulusSize(key) - input.size();
  memset(block, 0, padding);
  if (!input.empty()) memcpy(block + padding, input.data(), input.size());
  const BigNum number(BN_bin2bn(input.data(), static_cast<int>(input.size()), nullptr));
  return number && BN_cmp(number.get(), RSA_get0_n(RsaOf(key))) < 0;
}

static CK_RV SignBlock(const Key& key, unsigned int algorithm, Bytes block,
                       unsigned char* signature) {
  int length = 0;
  return KeyResult(DeviceSign(key.keypair, algorithm, nullptr, block.data(),
                              static_cast<int>(block.size()), signature,
                              static_cast<int>(ModulusSize(key)), &length));
}

static CK_RV SignRsa(const Operation& operation, Bytes input, unsigned char* signature) {
  const Key& key = *operation.key.key;
  Block block;
  switch (operation.mechanism->scheme) {
    case Scheme::RSA_PKCS:
      FillPkcs(block, operation.mechanism->hash, input);
      return SignBlock(key, ALGORITHM_RSA_PKCS1_SIGN, {block.bytes, block.length}, signature);
    case Scheme::RSA_RAW:
      if (!FillRaw(key, input, block.bytes)) return CKR_DATA_INVALID;
      break;
    default:
      if (RSA_padding_add_PKCS1_PSS_mgf1(const_cast<RSA*>(RsaOf(key)), block.bytes, input.data(),
                                         operation.hash->method(), operation.mask->method(),
                                         operation.saltLen) != 1)
        return CKR_FUNCTION_FAILED;
      break;
  }
  return SignBlock(key, ALGORITHM_RSA_RAW_SIGN, {block.bytes, ModulusSize(key)}, signature);
}

static bool VerifyBlock(const Key& key, unsigned int algorithm, Bytes block, Bytes signature) {
  return DeviceVerify(key.publicKey, algorithm, nullptr, block.data(),
                      static_cast<int>(block.size()), signature.data(),
                      static_cast<int>(signature.size())) == VAKRO_OK;
}

static bool VerifyPss(const Operation& operation, Bytes input, Bytes signature) {
  RSA* const rsa = const_cast<RSA*>(RsaOf(*operation.key.key));
  unsigned char block[MAX_MODULUS_SIZE];
  return RSA_public_decrypt(static_cast<int>(signature.size()), signature.data(), block, rsa,
                            RSA_NO_PADDING) == static_cast<int>(signature.size()) &&
         RSA_verify_PKCS1_PSS_mgf1(rsa, input.data(), operation.hash->method(),
                                   operation.mask->method(), block, operation.saltLen) == 1;
}

static bool VerifyRsa(const Operation& operation, Bytes input, Bytes signature) {
  const Key& key = *operation.key.key;
  Block block;
  switch (operation.mechanism->scheme) {
    case Scheme::RSA_PKCS:
      FillPkcs(block, operation.mechanism->hash, input);
      return VerifyBlock(key, ALGORITHM_RSA_PKCS1_SIGN, {block.bytes, block.length}, signature);
    case Scheme::RSA_RAW:
      return FillRaw(key, input, block.bytes) &&
             VerifyBlock(key, ALGORITHM_RSA_RAW_SIGN, {block.bytes, ModulusSize(key)}, signature);
    default:
      return VerifyPss(operation, input, signature);
  }
}

// --- Elliptic curves: the device has DER, programs have r || s -----------------------------------

static bool FromDer(Bytes der, unsigned char* numbers, size_t size) {
  const unsigned char* at = der.data();
  const EcdsaSig parsed(d2i_ECDSA_SIG(nullptr, &at, static_cast<long>(der.size())));
  const int half = static_cast<int>(size / 2);
  return parsed && BN_bn2binpad(ECDSA_SIG_get0_r(parsed.get()), numbers, half) == half &&
         BN_bn2binpad(ECDSA_SIG_get0_s(parsed.get()), numbers + half, half) == half;
}

// Returns the length, or 0 for a failure.
static int ToDer(Bytes numbers, unsigned char (&der)[MAX_DER_SIZE]) {
  const int half = static_cast<int>(numbers.size() / 2);
  const EcdsaSig signature(ECDSA_SIG_new());
  BigNum r(BN_bin2bn(numbers.data(), half, nullptr));
  BigNum s(BN_bin2bn(numbers.data() + half, half, nullptr));
  if (!signature || !r || !s || ECDSA_SIG_set0(signature.get(), r.get(), s.get()) != 1) return 0;
  (void)r.release();  // now the signature's
  (void)s.release();
  unsigned char* at = der;
  const int length = i2d_ECDSA_SIG(signature.get(), nullptr);
  if (length < 1 || static_cast<size_t>(length) > sizeof(der)) return 0;
  return i2d_ECDSA_SIG(signature.get(), &at);
}

static unsigned int CurveAlgorithm(const Key& key) {
  return key.kind == KeyKind::KEY_SM2 ? ALGORITHM_SM2_SIGN : ALGORITHM_ECDSA_SIGN;
}

static CK_RV SignOnCurve(const Key& key, Bytes input, unsigned char* signature) {
  unsigned char der[MAX_DER_SIZE];
  int length = 0;
  const CK_RV result =
      KeyResult(DeviceSign(key.keypair, CurveAlgorithm(key), nullptr, input.data(),
                           static_cast<int>(input.size()), der, sizeof(der), &length));
  if (result != CKR_OK) return result;
  return FromDer({der, static_cast<size_t>(length)}, signature, SignatureSize(key))
             ? CKR_OK
             : CKR_FUNCTION_FAILED;
}

// A program may shorten both numbers of a signature alike.
static CK_RV VerifyOnCurve(const Key& key, Bytes input, Bytes signature) {
  if (signature.empty() || signature.size() % 2 != 0 || signature.size() > SignatureSize(key))
    return CKR_SIGNATURE_LEN_RANGE;
  unsigned char der[MAX_DER_SIZE];
  const int length = ToDer(signature, der);
  if (length < 1) return CKR_FUNCTION_FAILED;
  return VerifyBlock(key, CurveAlgorithm(key), input, {der, static_cast<size_t>(length)})
             ? CKR_OK
             : CKR_SIGNATURE_INVALID;
}

// --- Both ----------------------------------------------------------------------------------------

// A digest that the program gives has to be whole.
static bool FitsScheme(const Operation& operation, Bytes input) {
  switch (operation.mechanism->scheme) {
    case Scheme::RSA_PSS:
      return input.size() == operation.hash->size;
    case Scheme::SM2_SIGN:
      return input.size() == SM2_FIELD_SIZE;
    case Scheme::ECDSA:
      return !input.empty();
    default:
      return true;
  }
}

CK_RV SignInput(const Operation& operation, Bytes input, unsigned char* signature) {
  if (!FitsScheme(operation, input)) return CKR_DATA_LEN_RANGE;
  return operation.key->kind == KeyKind::KEY_RSA
             ? SignRsa(operation, input, signature)
             : SignOnCurve(*operation.key.key, input, signature);
}

CK_RV VerifyInput(const Operation& operation, Bytes input, Bytes signature) {
  if (!FitsScheme(operation, input)) return CKR_DATA_LEN_RANGE;
  const Key& key = *operation.key.key;
  if (key.kind != KeyKind::KEY_RSA) return VerifyOnCurve(key, input, signature);
  if (signature.size() != ModulusSize(key)) return CKR_SIGNATURE_LEN_RANGE;
  return VerifyRsa(operation, input, signature) ? CKR_OK : CKR_SIGNATURE_INVALID;
}
