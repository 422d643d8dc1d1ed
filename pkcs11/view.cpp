// All objects of a device.
#include "pkcs11/view.h"

#include "core/openssl_owners.h"
#include "device/anchor.h"
#include "keypair/keypair.h"
#include "pkcs11/log.h"
#include "pkcs11/table.h"
#include "store/store.h"

static Span PublicKeyOf(const Keypair* keypair) {
  return {keypair->publicKey, static_cast<size_t>(keypair->publicKeyLen)};
}

// Whether the public key in the file belongs to the private key, of which the cipher vouches. Where
// the private key is not open, or of a curve that the module can't use, there is nothing to
// compare. 1, 0, or -1 when memory is out.
static int BelongTogether(const Keypair* keypair, const ObjectKey& key) {
  EVP_PKEY* const own = keypair->privateKey;
  if (own == nullptr || key.publicKey == nullptr) return 1;
  EVP_PKEY* const stored = key.publicKey->key;
  if (EVP_PKEY_get_id(own) != EVP_PKEY_get_id(stored)) return 0;
  if (keypair->algorithm == ALGORITHM_RSA) {
    const RSA *a = EVP_PKEY_get0_RSA(own), *b = EVP_PKEY_get0_RSA(stored);
    const bool same = a != nullptr && b != nullptr && BN_cmp(RSA_get0_n(a), RSA_get0_n(b)) == 0 &&
                      BN_cmp(RSA_get0_e(a), RSA_get0_e(b)) == 0;
    return same ? 1 : 0;
  }
  const EC_KEY *a = EVP_PKEY_get0_EC_KEY(own), *b = EVP_PKEY_get0_EC_KEY(stored);
  if (a == nullptr || b == nullptr || keypair->curve != key.curve) return 0;
  const int differ = EC_POINT_cmp(EC_KEY_get0_group(a), EC_KEY_get0_public_key(a),
                                  EC_KEY_get0_public_key(b), nullptr);
  return differ < 0 ? -1 : 1 - differ;
}

bool AddKeypairObjects(Device* device, int index, View& view) {
  Keypair* const keypair = DeviceGetKeypair(device, index);
  if (keypair == nullptr) return false;
  ObjectKey* const key = NewObjectKey(PublicKeyOf(keypair), keypair);
  KeyUse use;
  use.Reset(key);
  if (key == nullptr) {
    LogReason("keypair '%s' is not offered: its public key can't be read", keypair->label);
    view.isComplete = false;
    return true;
  }
  const int together = BelongTogether(keypair, *key);
  if (together < 0) return false;
  if (together == 0) {
    LogReason("keypair '%s' is not offered: the public key in the file is not its private key's",
              keypair->label);
    return true;
  }
  if (IsAnchor(keypair) != 0 && view.anchor == nullptr) {
    HoldKey(key);
    view.anchor = key;
    return true;
  }
  return AddTokenObject(view, NewKeyObject(CKO_PRIVATE_KEY, key), Place::KEYPAIR) &&
         AddTokenObject(view, NewKeyObject(CKO_PUBLIC_KEY, key), Place::KEYPAIR);
}

static bool AddCertificates(Keypair* keypair, View& view) {
  for (int i = 0; i < keypair->certCount; i++) {
    const Cert* const cert = keypair->certs[i];
    const Span bytes(cert->data, static_cast<size_t>(cert->length));
    CertificateParts parts;
    if (!ParseCertificate(bytes, parts)) continue;  // the list takes any bytes
    Object* const object = NewCertificateObject(bytes);
    if (object == nullptr) return false;
    object->keypair = keypair;
    memcpy(object->label, keypair->label, NAME_SIZE);
    if (!AddTokenObject(view, object, Place::KEYPAIR)) return false;
  }
  return true;
}

static bool AddDatas(Data** datas, unsigned int count, View& view) {
  for (unsigned int i = 0; i < count; i++) {
    const Span value(datas[i]->value, static_cast<size_t>(datas[i]->length));
    if (!AddTokenObject(view, NewDataObject(datas[i]->id, value), Place::DATA)) return false;
  }
  return true;
}

// Private data is enciphered to the anchor.
static void GiveAnchor(View& view) {
  for (Object* object : view.objects) {
    if (object->cls != CKO_DATA || view.anchor == nullptr || !object->IsPrivate()) continue;
    HoldKey(view.anchor);
    object->key = view.anchor;
  }
}

static void GiveHandles(const View* former, View& view) {
  for (Object* object : view.objects) {
    const Object* const same = former != nullptr ? FindNamed(*former, object->name) : nullptr;
    object->handle = same != nullptr ? same->handle : NewObjectHandle();
  }
}

namespace {
struct Datas {
  Data** list = nullptr;
  unsigned int count = 0;
  const bool known;
  explicit Datas(Device* device) : known(GetAllDatasFromFile(device, &list, &count) == 1) {}
  Datas(const Datas&) = delete;
  Datas& operator=(const Datas&) = delete;
  ~Datas() { FreeDatas(list, static_cast<int>(count)); }
};
}  // namespace

bool SeesLess(const View& now, const View& before) {
  return (before.hasAllDatas && !now.hasAllDatas) || (before.isComplete && !now.isComplete);
}

int LoadTokenView(Device* device, const View* former, View& view) {
  for (int i = 0; i < device->keypairCount; i++)
    if (!AddKeypairObjects(device, i, view)) return 0;
  for (int i = 0; i < device->keypairCount; i++) {
    Keypair* const keypair = device->keypairs[i];
    if (IsAnchor(keypair) == 0 && !AddCertificates(keypair, view)) return 0;
  }
  const Datas datas(device);
  view.hasAllDatas = datas.known;
  if (!datas.known) LogReason("the data objects of %s can't be read", device->filePath);
  if (!AddDatas(datas.list, datas.count, view)) return 0;
  const Keypair* const anchor = FindAnchor(device);
  Span table;
  if (anchor != nullptr && FindTable(anchor, &table) >= 0 && !ReadTable(table, view)) return 0;
  GiveAnchor(view);
  GiveHandles(former, view);
  return 1;
}
