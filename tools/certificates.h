// X.509 certificates and requests: reading, showing, and signing them with a keypair of a device.
#ifndef VAKRO_TOOLS_CERTIFICATES_H
#define VAKRO_TOOLS_CERTIFICATES_H

#include "tools/key_files.h"
#include "tools/signing.h"

using Request = std::unique_ptr<X509_REQ, Release<X509_REQ_free>>;

Bytes ToDer(X509* cert);
std::string CertificatePem(const Bytes& der);
Certificate CertificateFrom(ByteSpan der);  // NULL when the bytes are no certificate

std::string NameText(const X509_NAME* name);
std::string TimeText(const ASN1_TIME* time);
std::string SerialText(X509* cert);  // hex

// What a keypair signs with: PIN verified, public part, and scheme.
struct Signer {
  Keypair* keypair;
  const PublicPart& key;
  const Scheme& scheme;
};

// These set the algorithm identifiers, sign the to-be-signed part and put the signature in place.
void SignRequest(X509_REQ* request, const Signer& signer);
void SignCertificate(X509* cert, const Signer& signer);

#endif
