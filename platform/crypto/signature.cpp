// ECC signatures: DER SEQUENCE { r INTEGER, s INTEGER }, both positive.
#include "platform/crypto/crypto.h"

#include <openssl/bn.h>
#include <openssl/ec.h>

#include <string.h>

using Signature = std::unique_ptr<ECDSA_SIG, Release<ECDSA_SIG_free>>;
using BigNum = std::unique_ptr<BIGNUM, Release<BN_free>>;

static constexpr int DER_OVERHEAD = 20;  // the headers of a SEQUENCE of two INTEGERs, two zeros

// Writes the signature; empty when it can't be written.
static Bytes Write(const ECDSA_SIG* signature, int* length) {
  const int content =
      BN_num_bytes(ECDSA_SIG_get0_r(signature)) + BN_num_bytes(ECDSA_SIG_get0_s(signature));
  Bytes der = NewArray<unsigned char>(static_cast<size_t>(content + DER_OVERHEAD));
  unsigned char* at = der.get();
  if (der) *length = i2d_ECDSA_SIG(signature, &at);
  if (!der || *length <= 0) return nullptr;
  return der;
}

int VakroPKICryptoEncodeECCSignature(const unsigned char* r, int rLen, const unsigned char* s,
                                     int sLen, unsigned char** out, int* outLen) {
  if (!AreBytes(r, rLen) || !AreBytes(s, sLen) || out == nullptr || outLen == nullptr) return 0;
  BigNum rNumber(BN_bin2bn(r, rLen, nullptr));
  BigNum sNumber(BN_bin2bn(s, sLen, nullptr));
  const Signature signature(ECDSA_SIG_new());
  if (!rNumber || !sNumber || !signature) return 0;
  if (BN_is_zero(rNumber.get()) || BN_is_zero(sNumber.get())) return 0;
  ECDSA_SIG_set0(signature.get(), rNumber.release(), sNumber.release());  // fails for NULL only
  int length = 0;
  Bytes der = Write(signature.get(), &length);
  if (!der) return 0;
  return HandOut(der, static_cast<size_t>(length), out, outLen);
}

// A signature has one encoding only: what OpenSSL's reader lets pass must be, to its end, what the
// writer would write. The writer refuses negative numbers.
static Signature Read(const unsigned char* sig, int sigLen) {
  const unsigned char* at = sig;
  Signature signature(d2i_ECDSA_SIG(nullptr, &at, sigLen));
  if (!signature) return nullptr;
  int length = 0;
  const Bytes again = Write(signature.get(), &length);
  if (!again || length != sigLen) return nullptr;
  if (memcmp(again.get(), sig, static_cast<size_t>(sigLen)) != 0) return nullptr;
  return signature;
}

int VakroPKICryptoDecodeECCSignature(const unsigned char* sig, int sigLen, unsigned char** r,
                                     int* rLen, unsigned char** s, int* sLen) {
  if (sig == nullptr || sigLen <= 0) return 0;
  if (r == nullptr || rLen == nullptr || s == nullptr || sLen == nullptr) return 0;
  const Signature signature = Read(sig, sigLen);
  if (!signature) return 0;
  const BIGNUM* const rNumber = ECDSA_SIG_get0_r(signature.get());
  const BIGNUM* const sNumber = ECDSA_SIG_get0_s(signature.get());
  if (BN_is_zero(rNumber) || BN_is_zero(sNumber)) return 0;
  Bytes rBytes = NewArray<unsigned char>(static_cast<size_t>(BN_num_bytes(rNumber)));
  Bytes sBytes = NewArray<unsigned char>(static_cast<size_t>(BN_num_bytes(sNumber)));
  if (!rBytes || !sBytes) return 0;
  const int rLength = BN_bn2bin(rNumber, rBytes.get());
  const int sLength = BN_bn2bin(sNumber, sBytes.get());
  HandOut(rBytes, static_cast<size_t>(rLength), r, rLen);
  return HandOut(sBytes, static_cast<size_t>(sLength), s, sLen);
}
