// The certificates of a keypair. The device file is changed first, the list after it.
#include "core/answer.h"
#include "core/error_mark.h"
#include "core/lock.h"
#include "core/secret.h"
#include "keypair/keypair.h"
#include "store/store.h"

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

int DeviceAddCertificate(Keypair* keypair, const unsigned char* bytes, int length) {
  const ErrorMark mark;
  if (keypair == nullptr) return VAKRO_NULL_HANDLE;
  if (bytes == nullptr || length < 1) return VAKRO_FAILED;
  OwnedCert cert(NewCert(bytes, length));
  if (!cert) return VAKRO_FAILED;
  const ModuleLock lock;
  if (!lock.held || keypair->certCount >= MAX_CERTS) return VAKRO_FAILED;
  if (GetPrivateKey(keypair) == nullptr) return VAKRO_NOT_VERIFIED;
  if (keypair->device == nullptr || AddCertToFile(keypair, cert.get()) != 1) return VAKRO_FAILED;
  keypair->certs[keypair->certCount] = cert.release();
  keypair->certCount++;
  return VAKRO_OK;
}

int DeviceDeleteCertificate(Keypair* keypair, int index) {
  const ErrorMark mark;
  if (keypair == nullptr) return VAKRO_NULL_HANDLE;
  const ModuleLock lock;
  // A missing key is reported before anything else, even a lock that failed.
  if (GetPrivateKey(keypair) == nullptr) return VAKRO_NOT_VERIFIED;
  if (!lock.held || index < 0 || index >= keypair->certCount) return VAKRO_FAILED;
  Cert* const cert = keypair->certs[index];
  if (keypair->device == nullptr || DeleteCertFromFile(keypair, cert) != 1) return VAKRO_FAILED;
  keypair->certCount--;
  for (int i = index; i < keypair->certCount; i++) keypair->certs[i] = keypair->certs[i + 1];
  keypair->certs[keypair->certCount] = nullptr;
  FreeCert(cert);
  return VAKRO_OK;
}
