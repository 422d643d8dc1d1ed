// What the device file holds that the record does not know of, and the other way round: other
// processes change the file, and records grow old.
#include "store/inside.h"

bool BeginCheckedChange(const Device* device, FileChange* change) {
  return BeginFileChange(device, Reading::CHECKED, change) == ReadResult::GOOD &&
         StoredKeypairs(*change) != nullptr;
}

// --- Keypairs ------------------------------------------------------------------------------------

bool HoldsKeypair(const FileChange& change, unsigned int type, const char* label) {
  VakroJson* keypairs = StoredKeypairs(change);
  const int count = vakro_json_getarraysize(keypairs);
  for (int i = 0; i < count; i++)
    if (IsItemNamed(vakro_json_getarrayitem(keypairs, i), type, label)) return true;
  return false;
}

int CountKeypairs(const FileChange& change) {
  VakroJson* keypairs = StoredKeypairs(change);
  const int count = vakro_json_getarraysize(keypairs);
  int readable = 0;
  for (int i = 0; i < count; i++)
    if (IsKeypairItem(vakro_json_getarrayitem(keypairs, i))) readable++;
  return readable;
}

// IsCurrentItemOf says whether a stored item is this keypair's and holds the blob of the record.
static bool IsCurrentItemOf(VakroJson* item, const Keypair* keypair) {
  return IsItemOf(item, keypair) && HasBlobOf(item, keypair);
}

static bool IsCurrentInRecord(VakroJson* item, const Device* device) {
  for (int i = 0; i < device->keypairCount; i++)
    if (IsCurrentItemOf(item, device->keypairs[i])) return true;
  return false;
}

static bool IsInRecord(VakroJson* item, const Device* device) {
  for (int i = 0; i < device->keypairCount; i++)
    if (IsItemOf(item, device->keypairs[i])) return true;
  return false;
}

// FindCurrentItem returns the first stored item that is this keypair's with this blob, or NULL.
static VakroJson* FindCurrentItem(const FileChange& change, const Keypair* keypair) {
  VakroJson* keypairs = StoredKeypairs(change);
  const int count = vakro_json_getarraysize(keypairs);
  for (int i = 0; i < count; i++) {
    VakroJson* item = vakro_json_getarrayitem(keypairs, i);
    if (IsCurrentItemOf(item, keypair)) return item;
  }
  return nullptr;
}

static const unsigned char* DigestOf(const FileChange& change) {
  return change.image.bytes.get() + (change.image.size - DIGEST_SIZE);
}

void NoteWritten(const FileChange& change, Device* device, bool isWritten) {
  static_assert(sizeof(device->unwrittenOver) == DIGEST_SIZE);
  if (isWritten)
    memset(device->unwrittenOver, 0, DIGEST_SIZE);
  else
    memcpy(device->unwrittenOver, DigestOf(change), DIGEST_SIZE);
}

bool HoldsSameKeypairs(const FileChange& change, const Device* device) {
  // Nobody else has written it since this record could not.
  if (memcmp(device->unwrittenOver, DigestOf(change), DIGEST_SIZE) == 0) return true;
  VakroJson* keypairs = StoredKeypairs(change);
  const int count = vakro_json_getarraysize(keypairs);
  for (int i = 0; i < count; i++) {
    VakroJson* item = vakro_json_getarrayitem(keypairs, i);
    if (item == nullptr || (MayBeKeypair(item) && !IsCurrentInRecord(item, device))) return false;
  }
  for (int i = 0; i < device->keypairCount; i++)
    if (FindCurrentItem(change, device->keypairs[i]) == nullptr) return false;
  return true;
}

FilePin WhosePin(const FileChange& change, const Device* device) {
  VakroJson* keypairs = StoredKeypairs(change);
  const int count = vakro_json_getarraysize(keypairs);
  FilePin pin = FilePin::OURS;  // a file without keypairs takes any
  bool isOurs = false;
  for (int i = 0; i < count; i++) {
    VakroJson* item = vakro_json_getarrayitem(keypairs, i);
    if (IsCurrentInRecord(item, device)) {
      isOurs = true;
    } else if (item == nullptr || IsInRecord(item, device)) {
      return FilePin::ANOTHERS;
    } else if (IsKeypairItem(item)) {
      pin = FilePin::UNTOLD;
    }
  }
  return isOurs ? FilePin::OURS : pin;
}

OwnedKeypair LoadFirstKeypair(const FileChange& change) {
  VakroJson* keypairs = StoredKeypairs(change);
  const int count = vakro_json_getarraysize(keypairs);
  for (int i = 0; i < count; i++) {
    VakroJson* item = vakro_json_getarrayitem(keypairs, i);
    if (IsKeypairItem(item)) return OwnedKeypair(Json2Keypair(item));
  }
  return nullptr;
}

// --- Certificates --------------------------------------------------------------------------------

CertList::~CertList() {
  for (int i = 0; i < count; i++) FreeCert(certs[i]);
}

void ExchangeCerts(Keypair* keypair, CertList* list) {
  std::swap(keypair->certs, list->certs);
  std::swap(keypair->certCount, list->count);
}

bool IsSameCert(const Cert* a, const Cert* b) {
  return a->length == b->length && memcmp(a->data, b->data, static_cast<size_t>(a->length)) == 0;
}

static bool ListHolds(Cert* const* certs, int count, const Cert* cert) {
  for (int i = 0; i < count; i++)
    if (IsSameCert(certs[i], cert)) return true;
  return false;
}

// HoldSame says whether neither list has a certificate that the other lacks. The order, and how
// often one stands in a list, is the record's business.
static bool HoldSame(const Keypair* keypair, const CertList& list) {
  for (int i = 0; i < keypair->certCount; i++)
    if (!ListHolds(list.certs, list.count, keypair->certs[i])) return false;
  for (int i = 0; i < list.count; i++)
    if (!ListHolds(keypair->certs, keypair->certCount, list.certs[i])) return false;
  return true;
}

bool ReadStoredCerts(const FileChange& change, const Keypair* keypair, CertList* list,
                     bool* areOthers) {
  *areOthers = false;
  if (HasTwin(keypair)) return true;  // of two items neither is surely its own
  VakroJson* item = FindCurrentItem(change, keypair);
  if (item == nullptr) return true;
  VakroJson* certs = vakro_json_getarrayitem(item, KEYPAIR_CERTS);
  const int count = IsArray(certs) ? vakro_json_getarraysize(certs) : 0;
  for (int i = 0; i < count && list->count < MAX_CERTS; i++) {
    Cert* cert = nullptr;
    const ReadResult found = ReadCert(vakro_json_getarrayitem(certs, i), &cert);
    if (found == ReadResult::UNKNOWN) return false;
    if (found == ReadResult::GOOD) list->certs[list->count++] = cert;
  }
  *areOthers = !HoldSame(keypair, *list);
  return true;
}
