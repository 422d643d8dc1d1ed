// The updates of keypairs and certificates in the device file, each of one item. The records
// themselves are changed by the callers, after a success.
#include "store/inside.h"

VakroJson* StoredKeypairs(const FileChange& change) {
  VakroJson* root = change.root.get();
  if (!IsDeviceRoot(root)) return nullptr;
  VakroJson* keypairs = vakro_json_getarrayitem(root, DEVICE_KEYPAIRS);
  return IsArray(keypairs) ? keypairs : nullptr;
}

// Begin is the first step of every update here: the file as it stands. Its digest is checked by the
// exported calls, which begin their changes themselves.
static bool Begin(const Device* device, FileChange* change) {
  return BeginFileChange(device, Reading::UNCHECKED, change) == ReadResult::GOOD &&
         StoredKeypairs(*change) != nullptr;
}

// WriteBack rewrites the device file with `keypairs` in place of the stored ones.
static int WriteBack(FileChange* change, Device* device, Json keypairs) {
  if (!keypairs) return 0;
  Json root(UpdateJsonKeypairsToDevice(change->root.get(), keypairs.get()));
  return root ? RewriteFile(change, device, std::move(root)) : 0;
}

// FindKeypair returns the index of the first stored item that equals `item`, or -1.
static int FindKeypair(VakroJson* keypairs, VakroJson* item) {
  const int count = vakro_json_getarraysize(keypairs);
  for (int i = 0; i < count; i++)
    if (KeypairJsonEqual(vakro_json_getarrayitem(keypairs, i), item)) return i;
  return -1;
}

// --- Keypairs ------------------------------------------------------------------------------------

int AddKeypairToChange(FileChange* change, Device* device, const Keypair* keypair) {
  VakroJson* keypairs = StoredKeypairs(*change);
  const Json item(Keypair2Json(keypair));
  if (!item) return 0;
  const bool isStored = FindKeypair(keypairs, item.get()) >= 0;
  if (!isStored && !AddItem(keypairs, item)) return 0;
  return RewriteFile(change, device, std::move(change->root));
}

int AddhKeypairToFile(Device* device, Keypair* keypair) {
  FileChange change;
  return Begin(device, &change) ? AddKeypairToChange(&change, device, keypair) : 0;
}

int DeleteKeypairFromFile(Keypair* keypair) {
  FileChange change;
  if (keypair == nullptr || !Begin(keypair->device, &change) || HasDatas(change.root.get()))
    return 0;
  const Json item(Keypair2Json(keypair));
  if (!item) return 0;
  VakroJson* keypairs = StoredKeypairs(change);
  const int index = FindKeypair(keypairs, item.get());
  if (index < 0) return RewriteFile(&change, keypair->device, std::move(change.root));
  return WriteBack(&change, keypair->device, Json(VakroJsonDeleteArrayItem(keypairs, index)));
}

int DeleteKeypairFromChange(FileChange* change, Keypair* keypair) {
  if (HasDatas(change->root.get())) return 0;
  const Json item(Keypair2Json(keypair));
  Json left(vakro_json_newarray());
  VakroJson* keypairs = StoredKeypairs(*change);
  if (!item || !left) return 0;
  // Its twin has an item of its own, which stays.
  const int only = HasTwin(keypair) ? FindKeypair(keypairs, item.get()) : -1;
  const int count = vakro_json_getarraysize(keypairs);
  for (int i = 0; i < count; i++) {
    VakroJson* stored = vakro_json_getarrayitem(keypairs, i);
    if (stored == nullptr) return 0;
    const bool goes = only >= 0 ? i == only : IsItemOf(stored, keypair);
    if (!goes && vakro_json_addarrayitem(left.get(), stored) != 1) return 0;
  }
  return WriteBack(change, keypair->device, std::move(left));
}

int UpdateKeypairToFile(Keypair* keypair) {
  FileChange change;
  if (keypair == nullptr || !Begin(keypair->device, &change) || HasDatas(change.root.get()))
    return 0;
  const Json item(Keypair2Json(keypair));
  if (!item) return 0;
  const Json keypairs(UpdateJsonKeypairToKeypairs(StoredKeypairs(change), item.get()));
  if (!keypairs) return 0;
  const Json root(UpdateJsonKeypairsToDevice(change.root.get(), keypairs.get()));
  if (!root) return 0;
  unsigned int length = 0;
  const UtilText text = EncodeTree(root.get(), &length);
  if (!text || length > MAX_TEXT_SIZE) return 0;
  auto* const bytes = reinterpret_cast<unsigned char*>(text.get());
  if (WriteDeviceDataToFile(keypair->device, bytes, length) == 1) return 1;
  PutBack(change, keypair->device);  // without a backup the image in memory is the only good copy
  return 0;
}

// --- Certificates --------------------------------------------------------------------------------

// ReplaceItem rewrites the device file with `item` in place of the stored item it equals.
static int ReplaceItem(FileChange* change, Device* device, const Json& item) {
  if (!item) return 0;
  return WriteBack(change, device,
                   Json(UpdateJsonKeypairToKeypairs(StoredKeypairs(*change), item.get())));
}

int AddCertToChange(FileChange* change, Keypair* keypair, const Cert* cert) {
  const Json item(Keypair2Json(keypair));
  const Json text(Cert2Json(cert));
  if (!item || !text) return 0;
  VakroJson* certs = vakro_json_getarrayitem(item.get(), KEYPAIR_CERTS);
  if (AddJsonCertToCerts(certs, text.get()) != 1) return 0;
  return ReplaceItem(change, keypair->device, item);
}

int AddCertToFile(Keypair* keypair, Cert* cert) {
  FileChange change;
  if (keypair == nullptr || !Begin(keypair->device, &change)) return 0;
  return AddCertToChange(&change, keypair, cert);
}

int DeleteCertFromChange(FileChange* change, Keypair* keypair, const Cert* cert) {
  const Json item(Keypair2Json(keypair));
  const Json text(Cert2Json(cert));
  if (!item || !text) return 0;
  const Json without(DeleteJsonCertToKeypair(item.get(), text.get()));
  return ReplaceItem(change, keypair->device, without);
}

int DeleteCertFromFile(Keypair* keypair, Cert* cert) {
  FileChange change;
  if (keypair == nullptr || !Begin(keypair->device, &change)) return 0;
  return DeleteCertFromChange(&change, keypair, cert);
}
