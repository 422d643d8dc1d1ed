// The certificates of a keypair. The device file is changed first, the list after it.
#include "core/answer.h"
#include "core/error_mark.h"
#include "core/lock.h"
#include "core/secret.h"
#include "keypair/keypair.h"
#include "store/change.h"

int DeviceGetCertificateCount(Keypair* keypair) {
  return keypair == nullptr ? VAKRO_NULL_HANDLE : keypair->certCount;
}

int DeviceGetCertificate(Keypair* keypair, int index, unsigned char* buffer, int size,
                         int* length) {
  if (keypair == nullptr) return VAKRO_NULL_HANDLE;
  if (index < 0 || index >= keypair->certCount) return VAKRO_FAILED;
  const Cert* cert = keypair->certs[index];
  return AnswerBytes(cert->data, cert->length, buffer, size, length);
}

namespace {
// A change of the certificates of one keypair. The record has the file's list while it is under
// way, if another process has changed that; unless it is kept the record gets its own back.
struct CertChange {
  Keypair* const keypair;
  FileChange file;
  CertList list;
  bool isOthers = false;
  bool isKept = false;

  explicit CertChange(Keypair* of) : keypair(of) {}
  CertChange(const CertChange&) = delete;
  CertChange& operator=(const CertChange&) = delete;
  ~CertChange() {
    if (isOthers && !isKept) ExchangeCerts(keypair, &list);
  }

  bool Begin() {
    if (keypair->device == nullptr || !BeginCheckedChange(keypair->device, &file)) return false;
    if (!ReadStoredCerts(file, keypair, &list, &isOthers)) return false;
    if (isOthers) ExchangeCerts(keypair, &list);
    return true;
  }
};
}  // namespace

int DeviceAddCertificate(Keypair* keypair, const unsigned char* bytes, int length) {
  const ErrorMark mark;
  if (keypair == nullptr) return VAKRO_NULL_HANDLE;
  if (bytes == nullptr || length < 1 || ReadShared(keypair->certCount) >= MAX_CERTS)
    return VAKRO_FAILED;
  OwnedCert cert(NewCert(bytes, length));
  if (!cert) return VAKRO_FAILED;
  const ModuleLock lock;
  if (!lock.held) return VAKRO_FAILED;
  if (GetPrivateKey(keypair) == nullptr) return VAKRO_NOT_VERIFIED;
  CertChange change(keypair);
  if (!change.Begin() || keypair->certCount >= MAX_CERTS) return VAKRO_FAILED;
  if (AddCertToChange(&change.file, keypair, cert.get()) != 1) return VAKRO_FAILED;
  change.isKept = true;
  keypair->certs[keypair->certCount] = cert.release();
  WriteShared(keypair->certCount, keypair->certCount + 1);
  return VAKRO_OK;
}

// IndexOf returns where the list has this certificate, by its bytes, or -1.
static int IndexOf(const Keypair* keypair, const Cert* cert) {
  for (int i = 0; i < keypair->certCount; i++)
    if (IsSameCert(keypair->certs[i], cert)) return i;
  return -1;
}

int DeviceDeleteCertificate(Keypair* keypair, int index) {
  const ErrorMark mark;
  if (keypair == nullptr) return VAKRO_NULL_HANDLE;
  const ModuleLock lock;
  // A missing key is reported before anything else, even a lock that failed.
  if (GetPrivateKey(keypair) == nullptr) return VAKRO_NOT_VERIFIED;
  if (!lock.held || index < 0 || index >= keypair->certCount) return VAKRO_FAILED;
  const Cert* const cert = keypair->certs[index];
  CertChange change(keypair);
  if (!change.Begin() || DeleteCertFromChange(&change.file, keypair, cert) != 1)
    return VAKRO_FAILED;
  change.isKept = true;
  // In the file's list it may stand elsewhere, or be gone already.
  const int at = change.isOthers ? IndexOf(keypair, cert) : index;
  if (at < 0) return VAKRO_OK;
  Cert* const deleted = keypair->certs[at];
  WriteShared(keypair->certCount, keypair->certCount - 1);
  for (int i = at; i < keypair->certCount; i++) keypair->certs[i] = keypair->certs[i + 1];
  keypair->certs[keypair->certCount] = nullptr;
  FreeCert(deleted);
  return VAKRO_OK;
}
