// The writer: keypairs and certificates as items of the layout that reader.cpp reads. Data objects
// are datas.cpp's.
#include "store/inside.h"

static bool AddNonZero(VakroJson* array, unsigned int field) {
  return field != 0 && AddNumber(array, static_cast<int>(field));
}

static bool AddHex(VakroJson* array, const unsigned char* bytes, int length) {
  if (length == 0) return false;
  char* raw = nullptr;
  int rawLength = 0;
  if (vakro_hexencode(1, bytes, length, &raw, &rawLength) != 1) return false;
  const UtilText text(raw);
  return AddString(array, {raw, static_cast<size_t>(rawLength)});
}

VakroJson* Cert2Json(const Cert* cert) {
  if (cert == nullptr) return nullptr;
  char* raw = nullptr;
  int length = 0;
  if (vakro_base64encode(1, cert->data, cert->length, &raw, &length) != 1) return nullptr;
  const UtilText text(raw);
  return vakro_json_newstring(raw, static_cast<unsigned int>(length));
}

static bool AddCerts(VakroJson* array, const Keypair* keypair) {
  if (keypair->certCount < 0 || keypair->certCount > MAX_CERTS) return false;
  const Json list(vakro_json_newarray());
  if (!list) return false;
  for (int i = 0; i < keypair->certCount; i++)
    if (!AddItem(list.get(), Json(Cert2Json(keypair->certs[i])))) return false;
  return AddItem(array, list);
}

VakroJson* Keypair2Json(const Keypair* keypair) {
  if (keypair == nullptr) return nullptr;
  Json owner(vakro_json_newarray());
  VakroJson* item = owner.get();
  if (item == nullptr) return nullptr;
  if (!AddName(item, keypair->label)) return nullptr;
  if (!AddNonZero(item, keypair->type)) return nullptr;
  if (!AddNonZero(item, keypair->algorithm)) return nullptr;
  if (!AddNonZero(item, keypair->bits)) return nullptr;
  if (!AddHex(item, keypair->salt, keypair->saltLen)) return nullptr;
  if (!AddHex(item, keypair->iv, keypair->ivLen)) return nullptr;
  if (!AddHex(item, keypair->publicKey, keypair->publicKeyLen)) return nullptr;
  if (!AddHex(item, keypair->encryptedPrivateKey, keypair->encryptedPrivateKeyLen)) return nullptr;
  if (!AddCerts(item, keypair)) return nullptr;
  return owner.release();
}
