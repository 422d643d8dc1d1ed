// DER in place.
#include "pkcs11/der.h"

bool TakeElement(Span& rest, DerElement& element) {
  if (rest.size() < 2 || (rest[0] & 0x1F) == 0x1F) return false;
  size_t header = 2;
  size_t length = rest[1];
  if (length >= 0x80) {
    const size_t words = length & 0x7F;
    if (words < 1 || words > 4 || rest.size() - 2 < words) return false;
    length = 0;
    for (size_t i = 0; i < words; i++) length = length << 8 | rest[2 + i];
    header += words;
  }
  if (length > rest.size() - header) return false;
  element = {rest[0], rest.first(header + length), rest.subspan(header, length)};
  rest = rest.subspan(header + length);
  return true;
}

bool TakeTagged(Span& rest, unsigned char tag, DerElement& element) {
  Span after = rest;
  if (!TakeElement(after, element) || element.tag != tag) return false;
  rest = after;
  return true;
}

bool AppendElement(Buffer& to, unsigned char tag, Span content) {
  unsigned char header[6] = {tag};
  size_t used = 2;
  const size_t length = content.size();
  if (length < 0x80) {
    header[1] = static_cast<unsigned char>(length);
  } else {
    size_t words = 1;
    while (words < 4 && length >> (8 * words) != 0) words++;
    header[1] = static_cast<unsigned char>(0x80 | words);
    for (size_t i = words; i-- > 0;) header[used++] = static_cast<unsigned char>(length >> (8 * i));
  }
  return to.Append(Span(header, used)) && to.Append(content);
}

bool ParseCertificate(Span certificate, CertificateParts& parts) {
  DerElement outer, tbs, element;
  if (!TakeTagged(certificate, DER_SEQUENCE, outer) || !certificate.empty()) return false;
  Span rest = outer.content;
  if (!TakeTagged(rest, DER_SEQUENCE, tbs)) return false;
  rest = tbs.content;
  TakeTagged(rest, 0xA0, element);  // the version, absent in version 1
  if (!TakeTagged(rest, DER_INTEGER, element)) return false;
  parts.serialNumber = element.whole;
  if (!TakeTagged(rest, DER_SEQUENCE, element)) return false;  // the algorithm of the signature
  if (!TakeTagged(rest, DER_SEQUENCE, element)) return false;
  parts.issuer = element.whole;
  if (!TakeTagged(rest, DER_SEQUENCE, element)) return false;  // the validity
  if (!TakeTagged(rest, DER_SEQUENCE, element)) return false;
  parts.subject = element.whole;
  if (!TakeTagged(rest, DER_SEQUENCE, element)) return false;
  parts.publicKeyInfo = element.whole;
  rest = element.content;
  if (!TakeTagged(rest, DER_SEQUENCE, element) || !TakeTagged(rest, DER_BIT_STRING, element) ||
      element.content.empty())
    return false;
  parts.publicKey = element.content.subspan(1);  // behind the count of unused bits
  return true;
}
