// Public keys in the forms that attributes have, and curves.
#include "pkcs11/object_key.h"

#include "core/openssl_owners.h"
#include "keypair/keypair.h"
#include "pkcs11/digest.h"

namespace {
struct Curve {
  int curve;
  int bits;
  unsigned char size;  // of the OID
  unsigned char oid[12];
};
}  // namespace

static constexpr Curve CURVES[] = {
    {CURVE_P192, 192, 10, {0x06, 0x08, 0x2a, 0x86, 0x48, 0xce, 0x3d, 0x03, 0x01, 0x01}},
    {CURVE_P224, 224, 7, {0x06, 0x05, 0x2b, 0x81, 0x04, 0x00, 0x21}},
    {CURVE_P256, 256, 10, {0x06, 0x08, 0x2a, 0x86, 0x48, 0xce, 0x3d, 0x03, 0x01, 0x07}},
    {CURVE_P384, 384, 7, {0x06, 0x05, 0x2b, 0x81, 0x04, 0x00, 0x22}},
    {CURVE_P521, 521, 7, {0x06, 0x05, 0x2b, 0x81, 0x04, 0x00, 0x23}},
    {CURVE_SM2, 256, 10, {0x06, 0x08, 0x2a, 0x81, 0x1c, 0xcf, 0x55, 0x01, 0x82, 0x2d}},
};

int CurveOf(Span oid) {
  for (const Curve& curve : CURVES)
    if (IsSame(oid, {curve.oid, curve.size})) return curve.curve;
  return 0;
}

static const Curve* FindCurve(int id) {
  for (const Curve& curve : CURVES)
    if (curve.curve == id) return &curve;
  return nullptr;
}

static size_t FieldSize(const Curve& curve) { return static_cast<size_t>((curve.bits + 7) / 8); }

static constexpr unsigned char RSA_ALGORITHM[] = {0x30, 0x0d, 0x06, 0x09, 0x2a, 0x86, 0x48, 0x86,
                                                  0xf7, 0x0d, 0x01, 0x01, 0x01, 0x05, 0x00};
static constexpr unsigned char EC_ALGORITHM[] = {0x06, 0x07, 0x2a, 0x86, 0x48,
                                                 0xce, 0x3d, 0x02, 0x01};

static bool MakePublicKeyInfo(Span algorithm, Span key, Buffer& info) {
  Buffer bits, both;
  static constexpr unsigned char NO_UNUSED_BITS[1] = {};
  return bits.Append(NO_UNUSED_BITS) && bits.Append(key) && both.Append(algorithm) &&
         AppendElement(both, DER_BIT_STRING, bits) && AppendElement(info, DER_SEQUENCE, both);
}

static bool FillRsa(ObjectKey& key, Span encoding) {
  unsigned char *rawModulus = nullptr, *rawExponent = nullptr;
  int modulusLen = 0, exponentLen = 0;
  if (VakroPKICryptoDecodeRSAPubKey(encoding.data(), static_cast<int>(encoding.size()), &rawModulus,
                                    &modulusLen, &rawExponent, &exponentLen) != 1)
    return false;
  const LibBytes modulus(rawModulus), exponent(rawExponent);
  key.kind = KeyKind::KEY_RSA;
  if (!key.modulus.Append({rawModulus, static_cast<size_t>(modulusLen)}) ||
      !key.exponent.Append({rawExponent, static_cast<size_t>(exponentLen)}) ||
      !MakePublicKeyInfo(RSA_ALGORITHM, encoding.subspan(KEY_HEADER_SIZE), key.publicKeyInfo))
    return false;
  for (unsigned int top = key.modulus[0]; top != 0; top >>= 1) key.bits++;
  key.bits += 8 * (modulusLen - 1);
  return Sha1(key.modulus, key.id);
}

// A coordinate may come with fewer bytes than the field has; they go to the right end.
static bool AppendCoordinate(Buffer& to, const unsigned char* bytes, int length, size_t size) {
  auto left = static_cast<size_t>(length);
  while (left > size && *bytes == 0) bytes++, left--;
  if (left > size || !to.Reserve(size)) return false;
  memset(to.end(), 0, size - left);
  to.count += size - left;
  return to.Append({bytes, left});
}

static bool FillEc(ObjectKey& key, Span encoding) {
  unsigned char *rawX = nullptr, *rawY = nullptr;
  int xLen = 0, yLen = 0;
  if (VakroPKICryptoDecodeECCPubKey(encoding.data(), static_cast<int>(encoding.size()), &key.curve,
                                    &rawX, &xLen, &rawY, &yLen) != 1)
    return false;
  const LibBytes x(rawX), y(rawY);
  const Curve* const curve = FindCurve(key.curve);
  if (curve == nullptr) return false;
  const Span oid(curve->oid, curve->size);
  key.kind = key.curve == CURVE_SM2 ? KeyKind::KEY_SM2 : KeyKind::KEY_EC;
  key.bits = curve->bits;
  const size_t size = FieldSize(*curve);
  Buffer point, algorithm, both;
  static constexpr unsigned char UNCOMPRESSED[] = {4};
  if (!point.Append(UNCOMPRESSED) || !AppendCoordinate(point, rawX, xLen, size) ||
      !AppendCoordinate(point, rawY, yLen, size))
    return false;
  return Sha1(point, key.id) && both.Append(EC_ALGORITHM) && both.Append(oid) &&
         AppendElement(algorithm, DER_SEQUENCE, both) &&
         MakePublicKeyInfo(algorithm, point, key.publicKeyInfo) && key.curveOid.Append(oid) &&
         AppendElement(key.point, DER_OCTET_STRING, point);
}

ObjectKey* NewObjectKey(Span encoding, Keypair* keypair) {
  auto* const key = New<ObjectKey>();
  if (key == nullptr) {
    if (keypair != nullptr) DeviceFreeKeypair(keypair);
    return nullptr;
  }
  key->keypair = keypair;
  const bool isOne = encoding.size() > KEY_HEADER_SIZE && encoding.size() <= INT_MAX;
  const unsigned int algorithm = isOne ? be2int(encoding.data() + MAGIC_SIZE) : 0;
  if ((algorithm == ALGORITHM_RSA && FillRsa(*key, encoding)) ||
      (algorithm == ALGORITHM_ECC && FillEc(*key, encoding))) {
    const bool imported =
        DeviceImportPublicKey(nullptr, encoding.data(), static_cast<int>(encoding.size()),
                              &key->publicKey) == VAKRO_OK;
    // The module makes keys on curves that it can't use.
    const bool isUsable = key->kind != KeyKind::KEY_EC || key->curve == CURVE_P256;
    if ((imported || !isUsable) && key->encoding.Append(encoding)) return key;
  }
  ReleaseKey(key);
  return nullptr;
}

void HoldKey(Key* key) { key->references.fetch_add(1, std::memory_order_relaxed); }

void ReleaseKey(Key* key) {
  if (key == nullptr || key->references.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
  if (key->keypair != nullptr) DeviceFreeKeypair(key->keypair);
  if (key->publicKey != nullptr) DeviceFreePublicKey(key->publicKey);
  Delete(static_cast<ObjectKey*>(key));
}

bool EncodeRsaPublicKey(Span modulus, Span exponent, Buffer& encoding) {
  while (!modulus.empty() && modulus[0] == 0) modulus = modulus.subspan(1);
  while (!exponent.empty() && exponent[0] == 0) exponent = exponent.subspan(1);
  if (modulus.empty() || exponent.empty() || modulus.size() > 8192 || exponent.size() > 8192)
    return false;
  BigNum n(BN_bin2bn(modulus.data(), static_cast<int>(modulus.size()), nullptr));
  BigNum e(BN_bin2bn(exponent.data(), static_cast<int>(exponent.size()), nullptr));
  const RsaKey rsa(RSA_new());
  if (!n || !e || !rsa || RSA_set0_key(rsa.get(), n.get(), e.get(), nullptr) != 1) return false;
  (void)n.release();
  (void)e.release();
  unsigned char* made = nullptr;
  int length = 0;
  if (ToRSAPublicKeyEncode(rsa.get(), &made, &length) != 1) return false;
  const LibBytes owned(made);
  return encoding.Assign({made, static_cast<size_t>(length)});
}

bool EncodeEcPublicKey(int curve, Span point, Buffer& encoding) {
  const Curve* const known = FindCurve(curve);
  if (known == nullptr) return false;
  const int size = static_cast<int>(FieldSize(*known));
  const size_t pointSize = 1 + 2 * FieldSize(*known);
  // Told apart by the size: a point without a header may begin like one.
  DerElement element;
  if (point.size() != pointSize && TakeTagged(point, DER_OCTET_STRING, element) && point.empty())
    point = element.content;
  if (point.size() != pointSize || point[0] != 4) return false;
  unsigned char* made = nullptr;
  int length = 0;
  if (VakroPKICryptoEncodeECCPubKey(curve, point.data() + 1, size, point.data() + 1 + size, size,
                                    &made, &length) != 1)
    return false;
  const LibBytes owned(made);
  return encoding.Assign({made, static_cast<size_t>(length)});
}

bool KeyIdOf(const CertificateParts& parts, unsigned char (&id)[20]) {
  Span rest = parts.publicKeyInfo, key = parts.publicKey;
  DerElement outer, algorithm, numbers, modulus;
  const bool isRsa = TakeElement(rest, outer) &&
                     (rest = outer.content, TakeElement(rest, algorithm)) &&
                     IsSame(algorithm.whole, RSA_ALGORITHM);
  if (isRsa && TakeTagged(key, DER_SEQUENCE, numbers) &&
      (key = numbers.content, TakeTagged(key, DER_INTEGER, modulus))) {
    Span bytes = modulus.content;
    while (!bytes.empty() && bytes[0] == 0) bytes = bytes.subspan(1);
    return Sha1(bytes, id);
  }
  return Sha1(parts.publicKey, id);
}
