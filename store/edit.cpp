// A fresh record of a device file under a change, and the rewrite of what has become of that
// record: what the record does not hold, from data objects to keypairs that the reader passes over,
// stays.
#include "store/inside.h"

// HasAllCerts says whether a keypair was loaded with every certificate of its item. One for which
// there was no memory would be lost in the rewrite.
static bool HasAllCerts(VakroJson* item, const Keypair* keypair) {
  VakroJson* certs = vakro_json_getarrayitem(item, KEYPAIR_CERTS);
  const int count = vakro_json_getarraysize(certs);
  int readable = 0;
  for (int i = 0; i < count; i++) {
    Cert* cert = nullptr;
    const ReadResult found = ReadCert(vakro_json_getarrayitem(certs, i), &cert);
    const OwnedCert owned(cert);
    if (found == ReadResult::UNKNOWN) return false;
    if (found == ReadResult::GOOD) readable++;
  }
  return readable == keypair->certCount;
}

ReadResult LoadRecord(const FileChange& change, EditedRecord* edited) {
  Device* loaded = nullptr;
  const ReadResult found = LoadTree(change.root.get(), be2int(change.image.bytes.get()), &loaded);
  if (found != ReadResult::GOOD) return found;
  OwnedDevice device(loaded);
  VakroJson* keypairs = StoredKeypairs(change);
  const int count = vakro_json_getarraysize(keypairs);
  int known = 0;
  for (int i = 0; i < count && known < device->maxKeypairs; i++)
    if (IsKeypairItem(vakro_json_getarrayitem(keypairs, i))) edited->positions[known++] = i;
  if (known != device->keypairCount)
    return ReadResult::UNKNOWN;  // one was dropped for want of memory
  for (int i = 0; i < known; i++)
    if (!HasAllCerts(vakro_json_getarrayitem(keypairs, edited->positions[i]), device->keypairs[i]))
      return ReadResult::UNKNOWN;
  memcpy(edited->keypairs, device->keypairs, sizeof(edited->keypairs));
  edited->count = known;
  edited->device = device.release();
  return ReadResult::GOOD;
}

static bool IsInDevice(const Device* device, const Keypair* keypair) {
  for (int i = 0; i < device->keypairCount; i++)
    if (device->keypairs[i] == keypair) return true;
  return false;
}

static int IndexAt(const EditedRecord& edited, int position) {
  for (int i = 0; i < edited.count; i++)
    if (edited.positions[i] == position) return i;
  return -1;
}

static bool WasLoaded(const EditedRecord& edited, const Keypair* keypair) {
  for (int i = 0; i < edited.count; i++)
    if (edited.keypairs[i] == keypair) return true;
  return false;
}

static bool SameItems(VakroJson* a, VakroJson* b) {
  return KeypairJsonEqual(a, b) == 1 &&
         CertJsonEqual(vakro_json_getarrayitem(a, KEYPAIR_CERTS),
                       vakro_json_getarrayitem(b, KEYPAIR_CERTS)) == 1;
}

// AddKeypairItem appends what is to stand for a keypair: its stored item, as it is, unless the
// keypair is another by now.
static bool AddKeypairItem(VakroJson* list, VakroJson* stored, const Keypair* keypair) {
  const OwnedKeypair before(Json2Keypair(stored));
  if (!before) return false;
  const Json was(Keypair2Json(before.get()));  // NULL for what is read and not written: a type of 0
  const Json is(Keypair2Json(keypair));
  if (!is && was) return false;
  const bool isSame = !is || (was && SameItems(was.get(), is.get()));
  return vakro_json_addarrayitem(list, isSame ? stored : is.get()) == 1;
}

static Json EditedKeypairs(const FileChange& change, const EditedRecord& edited) {
  Json list(vakro_json_newarray());
  if (!list) return nullptr;
  VakroJson* keypairs = StoredKeypairs(change);
  const int count = vakro_json_getarraysize(keypairs);
  for (int i = 0; i < count; i++) {
    VakroJson* stored = vakro_json_getarrayitem(keypairs, i);
    const int index = IndexAt(edited, i);
    if (stored == nullptr) return nullptr;
    if (index < 0) {
      if (vakro_json_addarrayitem(list.get(), stored) != 1) return nullptr;
    } else if (IsInDevice(edited.device, edited.keypairs[index])) {
      if (!AddKeypairItem(list.get(), stored, edited.keypairs[index])) return nullptr;
    }
  }
  for (int i = 0; i < edited.device->keypairCount; i++) {
    const Keypair* keypair = edited.device->keypairs[i];
    if (!WasLoaded(edited, keypair) && !AddItem(list.get(), Json(Keypair2Json(keypair))))
      return nullptr;
  }
  return list;
}

// LeavesKeypairBehind says whether the PIN was changed although the file holds a keypair that is
// not in the record.
static bool LeavesKeypairBehind(const FileChange& change, const EditedRecord& edited) {
  VakroJson* keypairs = StoredKeypairs(change);
  const int count = vakro_json_getarraysize(keypairs);
  bool isPassedOver = false, isAnew = false;
  for (int i = 0; i < count; i++) {
    VakroJson* item = vakro_json_getarrayitem(keypairs, i);
    const int index = IndexAt(edited, i);
    if (index < 0)
      isPassedOver |= MayBeKeypair(item);
    else if (IsInDevice(edited.device, edited.keypairs[index]))
      isAnew |= !HasBlobOf(item, edited.keypairs[index]);
  }
  return isPassedOver && isAnew;
}

int WriteEdited(FileChange* change, const EditedRecord& edited, const VakroJson* datas) {
  if (LeavesKeypairBehind(*change, edited)) return 0;
  VakroJson* root = change->root.get();
  const Json keypairs = EditedKeypairs(*change, edited);
  Json tree(vakro_json_newarray());
  if (!keypairs || !tree || !AddName(tree.get(), edited.device->serialNumber) ||
      !AddName(tree.get(), edited.device->label) || !AddItem(tree.get(), keypairs))
    return 0;
  const int count = vakro_json_getarraysize(root);
  if (datas != nullptr && vakro_json_addarrayitem(tree.get(), datas) != 1) return 0;
  for (int i = datas == nullptr ? DEVICE_DATAS : DEVICE_DATAS + 1; i < count; i++) {
    const VakroJson* item = vakro_json_getarrayitem(root, i);
    if (item == nullptr || vakro_json_addarrayitem(tree.get(), item) != 1) return 0;
  }
  return RewriteFile(change, edited.device, std::move(tree));
}
