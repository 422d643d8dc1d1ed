// Walking over DER (ITU-T X.690) in place, and putting headers before it.
#ifndef VAKRO_PKCS11_DER_H
#define VAKRO_PKCS11_DER_H

#include "pkcs11/memory.h"

inline constexpr unsigned char DER_INTEGER = 0x02;
inline constexpr unsigned char DER_BIT_STRING = 0x03;
inline constexpr unsigned char DER_OCTET_STRING = 0x04;
inline constexpr unsigned char DER_OID = 0x06;
inline constexpr unsigned char DER_SEQUENCE = 0x30;

struct DerElement {
  unsigned char tag = 0;
  Span whole;    // with its header
  Span content;  // without it
};

// TakeElement takes the first element off `rest`; false, with nothing taken, where there is none
// that is complete, or one with a tag or a length of a form that certificates and keys don't use.
bool TakeElement(Span& rest, DerElement& element);

// TakeTagged is TakeElement for an element that must have this tag.
bool TakeTagged(Span& rest, unsigned char tag, DerElement& element);

// AppendElement appends a header and the content.
bool AppendElement(Buffer& to, unsigned char tag, Span content);

// The parts of an X.509 certificate that attributes and searches ask for; they point into it.
struct CertificateParts {
  Span serialNumber;   // INTEGER, whole
  Span issuer;         // Name, whole
  Span subject;        // Name, whole
  Span publicKeyInfo;  // SubjectPublicKeyInfo, whole
  Span publicKey;      // what the BIT STRING in it holds
};

// ParseCertificate finds the parts; false for bytes that are no certificate, or have more behind.
bool ParseCertificate(Span certificate, CertificateParts& parts);

#endif
