// X.509 certificates and requests: reading, showing, and signing them with a keypair of a device.
#ifndef VAKRO_TOOLS_CERTIFICATES_H
#define VAKRO_TOOLS_CERTIFICATES_H

#include "tools/key_files.h"
#include "tools/signing.h"

using Request = std::unique_ptr<X509_REQ, Release<X509_REQ_free>>;
using Name = std::unique_ptr<X509_NAME, Release<X509_NAME_free>>;

Bytes ToDer(X509* cert);
void WritePem(const std::string& path, const Bytes& der);  // of a certificate
Certificate CertificateFrom(ByteSpan der);                 // NULL when the bytes are no certificate

std::string NameText(const X509_NAME* name);  // printable
std::string TimeText(const ASN1_TIME* time);

// ParseName reads "/C=CN/O=Example/CN=Alice"; a backslash takes the next character as it is.
Name ParseName(const std::string& text);

// What a keypair signs with: PIN verified, public part, and user id (SM2).
struct Signer {
  Keypair* keypair;
  const PublicPart& key;
  const std::string& id;
};

// These set the algorithm identifiers, sign the to-be-signed part and put the signature in place.
void SignRequest(X509_REQ* request, const Signer& signer);
void SignCertificate(X509* cert, const Signer& signer);

#endif
