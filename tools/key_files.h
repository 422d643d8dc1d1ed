// Files that hold keys and certificates, in the forms that people have.
#ifndef VAKRO_TOOLS_KEY_FILES_H
#define VAKRO_TOOLS_KEY_FILES_H

#include "tools/keys.h"

#include <openssl/x509.h>

using Certificate = std::unique_ptr<X509, Release<X509_free>>;

// What a file held: the first private key, the first public key, and all certificates in order.
struct KeyFile {
  EvpKey privateKey;
  int privateKeys = 0;
  EvpKey publicKey;
  std::vector<Certificate> certs;
  std::string block;  // what the first PEM block says it is, as in "PRIVATE KEY"; "" for no PEM
};

// ReadKeyFile reads PEM and DER: private keys (PKCS#8, also encrypted, PKCS#1, SEC1), PKCS#12, also
// without a MAC, PKCS#7, public keys and certificates. The passphrase is asked for where one is
// needed. Fails only when a file can't be read; what is found may be nothing.
KeyFile ReadKeyFile(const std::string& path, const SecretSource& source);

// RequirePrivateKey fails unless the file holds a private key that a device can take; remarks on a
// file that holds several.
EVP_PKEY* RequirePrivateKey(const KeyFile& file, const std::string& path);

// ReadPublicKey takes the public key of a file, or that of its first certificate.
PublicPart ReadPublicKey(const std::string& path);

// KeypairEncoding is what DeviceImportKeypair takes, of such a key. Fails unless its private and
// public part belong together.
Secret KeypairEncoding(EVP_PKEY* key);

#endif
