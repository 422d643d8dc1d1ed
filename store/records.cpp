// The updates of keypairs and certificates in the device file: read the stored tree, change the one
// item, write the tree back. The records themselves are changed by the callers, after a success.
#include "store/store.h"

// The device file as one update found it; `keypairs` is borrowed from `root`.
struct StoredFile {
  UtilBytes image;
  unsigned int length = 0;
  Json root;
  VakroJson* keypairs = nullptr;
};

// ReadStored reads and decodes the device file. The digest is not checked and the backup not looked
// at: the rewrite refuses to give up a valid backup for a damaged file.
static bool ReadStored(const Device* device, StoredFile* stored) {
  unsigned char* bytes = nullptr;
  if (device == nullptr || ReadWholeFile(device->filePath, &bytes, &stored->length) != 1)
    return false;
  stored->image.reset(bytes);
  if (stored->length < HEADER_SIZE) return false;
  const std::string_view text = ImageText(bytes);
  if (text.size() > stored->length - HEADER_SIZE) return false;
  stored->root.reset(vakro_json_decode(text.data(), static_cast<unsigned int>(text.size())));
  VakroJson* root = stored->root.get();
  if (!IsArray(root) || vakro_json_getarraysize(root) < DEVICE_ITEMS) return false;
  stored->keypairs = vakro_json_getarrayitem(root, DEVICE_KEYPAIRS);
  return IsArray(stored->keypairs);
}

static bool HoldsDatas(const StoredFile& stored) {
  return vakro_json_getarraysize(stored.root.get()) > DEVICE_ITEMS;
}

// WriteBack rewrites the device file with `keypairs` in place of the stored ones. What was read is
// given back before the rewrite: its memory serves the copies that the rewrite makes.
static int WriteBack(Device* device, StoredFile stored, Json keypairs) {
  if (!keypairs) return 0;
  Json root(UpdateJsonKeypairsToDevice(stored.root.get(), keypairs.get()));
  keypairs.reset();
  stored = {};
  return root ? RewriteDeviceFile(device, root.release()) : 0;
}

// FindKeypair returns the index of the first stored item that equals `item`, or -1.
static int FindKeypair(VakroJson* keypairs, VakroJson* item) {
  const int count = vakro_json_getarraysize(keypairs);
  for (int i = 0; i < count; i++)
    if (KeypairJsonEqual(vakro_json_getarrayitem(keypairs, i), item)) return i;
  return -1;
}

// IsAnotherPins says whether a stored item is of a keypair of the record, but enciphered otherwise.
// A file may hold a key twice; then the record does, too.
static bool IsAnotherPins(VakroJson* item, const Device* device) {
  bool known = false;
  for (int k = 0; k < device->keypairCount; k++) {
    const Keypair* keypair = device->keypairs[k];
    if (!IsItemOf(item, keypair)) continue;
    if (HexEquals(vakro_json_getarrayitem(item, KEYPAIR_ENCRYPTED_PRIVATE_KEY),
                  keypair->encryptedPrivateKey, keypair->encryptedPrivateKeyLen))
      return false;
    known = true;
  }
  return known;
}

// SamePin is false when another process has changed the PIN since the record was read.
static bool SamePin(const Device* device, VakroJson* keypairs) {
  const int count = vakro_json_getarraysize(keypairs);
  for (int i = 0; i < count; i++)
    if (IsAnotherPins(vakro_json_getarrayitem(keypairs, i), device)) return false;
  return true;
}

int AddhKeypairToFile(Device* device, Keypair* keypair) {
  if (device == nullptr) return 0;
  const FolderLock lock(device->filePath);
  StoredFile stored;
  if (!ReadStored(device, &stored) || !SamePin(device, stored.keypairs)) return 0;
  const Json item(Keypair2Json(keypair));
  if (!item) return 0;
  const bool isStored = FindKeypair(stored.keypairs, item.get()) >= 0;
  if (!isStored && !AddItem(stored.keypairs, item)) return 0;
  return RewriteDeviceFile(device, stored.root.release());
}

int DeleteKeypairFromFile(Keypair* keypair) {
  if (keypair == nullptr || keypair->device == nullptr) return 0;
  const FolderLock lock(keypair->device->filePath);
  StoredFile stored;
  if (!ReadStored(keypair->device, &stored) || HoldsDatas(stored)) return 0;
  const Json item(Keypair2Json(keypair));
  if (!item) return 0;
  const int index = FindKeypair(stored.keypairs, item.get());
  if (index < 0) return RewriteDeviceFile(keypair->device, stored.root.release());
  Json left(VakroJsonDeleteArrayItem(stored.keypairs, index));
  return WriteBack(keypair->device, std::move(stored), std::move(left));
}

// ReplaceItem rewrites the device file with `item` in place of the stored item it equals.
static int ReplaceItem(Device* device, StoredFile stored, const Json& item) {
  if (!item) return 0;
  Json keypairs(UpdateJsonKeypairToKeypairs(stored.keypairs, item.get()));
  return WriteBack(device, std::move(stored), std::move(keypairs));
}

int AddCertToFile(Keypair* keypair, Cert* cert) {
  if (keypair == nullptr || keypair->device == nullptr) return 0;
  const FolderLock lock(keypair->device->filePath);
  StoredFile stored;
  if (!ReadStored(keypair->device, &stored)) return 0;
  const Json item(Keypair2Json(keypair));
  const Json text(Cert2Json(cert));
  if (!item || !text) return 0;
  VakroJson* certs = vakro_json_getarrayitem(item.get(), KEYPAIR_CERTS);
  if (AddJsonCertToCerts(certs, text.get()) != 1) return 0;
  return ReplaceItem(keypair->device, std::move(stored), item);
}

int DeleteCertFromFile(Keypair* keypair, Cert* cert) {
  if (keypair == nullptr || keypair->device == nullptr) return 0;
  const FolderLock lock(keypair->device->filePath);
  StoredFile stored;
  if (!ReadStored(keypair->device, &stored)) return 0;
  const Json item(Keypair2Json(keypair));
  const Json text(Cert2Json(cert));
  if (!item || !text) return 0;
  const Json without(DeleteJsonCertToKeypair(item.get(), text.get()));
  return ReplaceItem(keypair->device, std::move(stored), without);
}

int UpdateKeypairToFile(Keypair* keypair) {
  if (keypair == nullptr || keypair->device == nullptr) return 0;
  Device* device = keypair->device;
  const FolderLock lock(device->filePath);
  StoredFile stored;
  if (!ReadStored(device, &stored) || HoldsDatas(stored)) return 0;
  const Json item(Keypair2Json(keypair));
  if (!item) return 0;
  const Json keypairs(UpdateJsonKeypairToKeypairs(stored.keypairs, item.get()));
  if (!keypairs) return 0;
  const Json root(UpdateJsonKeypairsToDevice(stored.root.get(), keypairs.get()));
  if (!root) return 0;
  unsigned int length = 0;
  const UtilText text = EncodeTree(root.get(), &length);
  if (!text) return 0;
  if (WriteDeviceDataToFile(device, reinterpret_cast<unsigned char*>(text.get()), length) == 1)
    return 1;
  // Without a backup the old image in memory is the only good copy.
  WriteWholeFile(device->filePath, stored.image.get(), stored.length, nullptr);
  return 0;
}
