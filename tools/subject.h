// What a certificate says of its holder: the subject, the alternative names, the uses of the key.
// The two parsers fail in words on what they don't understand.
#ifndef VAKRO_TOOLS_SUBJECT_H
#define VAKRO_TOOLS_SUBJECT_H

#include "core/openssl_owners.h"
#include "tools/tool.h"

#include <openssl/x509v3.h>

using Name = std::unique_ptr<X509_NAME, Release<X509_NAME_free>>;
using AlternativeNames = std::unique_ptr<GENERAL_NAMES, Release<GENERAL_NAMES_free>>;

// ParseName reads "/C=CN/O=Example/CN=Alice"; a backslash takes the next character as it is.
Name ParseName(const std::string& text);

// ParseAlternativeNames reads "DNS:example.org,IP:192.0.2.1": DNS, IP, email, URI and RID.
AlternativeNames ParseAlternativeNames(const std::string& text);

// These check names like "digitalSignature,keyCertSign": "" or what is wrong.
std::string CheckKeyUsage(const std::string& text);
std::string CheckExtendedKeyUsage(const std::string& text);

#endif
