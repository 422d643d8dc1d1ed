// Devices, keypairs and certificates as facts, for --json and for the tables.
#ifndef VAKRO_TOOLS_DESCRIBE_H
#define VAKRO_TOOLS_DESCRIBE_H

#include "tools/certificates.h"
#include "tools/report.h"

Fields FactsOf(Device* device);    // serial, label, file, has_pin
Fields FactsOf(Keypair* keypair);  // index, label, type, algorithm, bits, fingerprint

// What a keypair's public key tells. To decode it takes most of the time of a list.
struct KeyTraits {
  std::string kind;
  std::string fingerprint;  // "" for a broken one
  std::string problem;      // why the keypair can't be used, whatever the PIN; "" for any other
};
KeyTraits TraitsOf(Keypair* keypair);
Fields FactsOf(Keypair* keypair, const KeyTraits& traits);

Fields CertificateFacts(Keypair* keypair, int index);
Facts CertificatesOf(Keypair* keypair);

// ShortFingerprint is as much of a fingerprint as people compare, and as --keypair takes.
std::string ShortFingerprint(const std::string& fingerprint);

Bytes CertificateAt(Keypair* keypair, int index);  // DER; empty without memory
std::string ExpiryText(const X509* cert);          // "2027-01-01 00:00:00Z, 364 days left"

#endif
