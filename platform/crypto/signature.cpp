// ECC signatures: DER SEQUENCE { r INTEGER, s INTEGER }, both positive.
//
// They are written by hand: i2d_ECDSA_SIG wants two numbers and a record of OpenSSL's for it, which
// costs 6 % of an SM2 signature. Reading is left to OpenSSL.
#include "platform/crypto/crypto.h"

#include <openssl/asn1.h>
#include <openssl/bn.h>
#include <openssl/ec.h>

#include <string.h>

#include <algorithm>
#include <span>

using Signature = std::unique_ptr<ECDSA_SIG, Release<ECDSA_SIG_free>>;
using Number = std::span<const unsigned char>;  // big-endian, without leading zeros

static Number WithoutZeros(const unsigned char* bytes, int length) {
  while (length > 0 && *bytes == 0) bytes++, length--;
  return {bytes, static_cast<size_t>(length)};
}

// A number whose first bit is set would be negative without a zero in front.
static int ContentSize(Number number) { return static_cast<int>(number.size()) + (number[0] >> 7); }

static int IntegerSize(Number number) {
  return ASN1_object_size(0, ContentSize(number), V_ASN1_INTEGER);
}

static unsigned char* PutInteger(unsigned char* at, Number number) {
  ASN1_put_object(&at, 0, ContentSize(number), V_ASN1_INTEGER, V_ASN1_UNIVERSAL);
  if (number[0] >> 7 != 0) *at++ = 0;
  return std::copy(number.begin(), number.end(), at);
}

// Writes the signature of two numbers that are not zero; empty when memory is out.
static Bytes Write(Number r, Number s, int* length) {
  const int content = IntegerSize(r) + IntegerSize(s);
  *length = ASN1_object_size(1, content, V_ASN1_SEQUENCE);
  Bytes der = NewArray<unsigned char>(static_cast<size_t>(*length));
  if (!der) return nullptr;
  unsigned char* at = der.get();
  ASN1_put_object(&at, 1, content, V_ASN1_SEQUENCE, V_ASN1_UNIVERSAL);
  PutInteger(PutInteger(at, r), s);
  return der;
}

int VakroPKICryptoEncodeECCSignature(const unsigned char* r, int rLen, const unsigned char* s,
                                     int sLen, unsigned char** out, int* outLen) {
  constexpr int LONGEST = 1 << 20;  // of a number, far beyond any curve
  if (!AreBytes(r, rLen) || !AreBytes(s, sLen) || out == nullptr || outLen == nullptr) return 0;
  const Number rNumber = WithoutZeros(r, rLen), sNumber = WithoutZeros(s, sLen);
  if (rNumber.empty() || sNumber.empty() || rLen > LONGEST || sLen > LONGEST) return 0;
  int length = 0;
  Bytes der = Write(rNumber, sNumber, &length);
  if (!der) return 0;
  return HandOut(der, static_cast<size_t>(length), out, outLen);
}

// A number of a signature as bytes; false for one that is not positive, or when memory is out.
static bool Take(const BIGNUM* number, Bytes* bytes, int* length) {
  *length = BN_num_bytes(number);
  if (*length == 0 || BN_is_negative(number)) return false;
  *bytes = NewArray<unsigned char>(static_cast<size_t>(*length));
  return *bytes && BN_bn2bin(number, bytes->get()) == *length;
}

// A signature has one encoding only: what OpenSSL's reader lets pass must be, to its end, what the
// writer writes.
int VakroPKICryptoDecodeECCSignature(const unsigned char* sig, int sigLen, unsigned char** r,
                                     int* rLen, unsigned char** s, int* sLen) {
  if (sig == nullptr || sigLen <= 0) return 0;
  if (r == nullptr || rLen == nullptr || s == nullptr || sLen == nullptr) return 0;
  const unsigned char* at = sig;
  const Signature signature(d2i_ECDSA_SIG(nullptr, &at, sigLen));
  if (!signature) return 0;
  Bytes rBytes, sBytes;
  int rLength = 0, sLength = 0, length = 0;
  if (!Take(ECDSA_SIG_get0_r(signature.get()), &rBytes, &rLength) ||
      !Take(ECDSA_SIG_get0_s(signature.get()), &sBytes, &sLength))
    return 0;
  const Bytes again = Write({rBytes.get(), static_cast<size_t>(rLength)},
                            {sBytes.get(), static_cast<size_t>(sLength)}, &length);
  if (!again || length != sigLen) return 0;
  if (memcmp(again.get(), sig, static_cast<size_t>(sigLen)) != 0) return 0;
  HandOut(rBytes, static_cast<size_t>(rLength), r, rLen);
  return HandOut(sBytes, static_cast<size_t>(sLength), s, sLen);
}
