// X.509 on OpenSSL, with the signature made by the device.
#include "tools/certificates.h"

#include <openssl/pem.h>

using SharedBytes = OpensslBytes;
using OpensslText = std::unique_ptr<char[], Release<FreeOpensslMemory>>;

Bytes ToDer(X509* cert) {
  unsigned char* raw = nullptr;
  const int length = i2d_X509(cert, &raw);
  if (length <= 0) throw Failure("The certificate can't be written: " + OpenSslError() + ".");
  const SharedBytes der(raw);
  return Bytes(raw, raw + length);
}

std::string CertificatePem(const Bytes& der) {
  const Bio memory(BIO_new(BIO_s_mem()));
  if (!memory || PEM_write_bio(memory.get(), PEM_STRING_X509, "", der.data(),
                               static_cast<long>(der.size())) <= 0) {
    throw std::bad_alloc();
  }
  return TextOf(memory.get());
}

Certificate CertificateFrom(ByteSpan der) {
  const unsigned char* end = der.data();
  Certificate cert(d2i_X509(nullptr, &end, static_cast<long>(der.size())));
  return cert && end == der.data() + der.size() ? std::move(cert) : nullptr;
}

std::string NameText(const X509_NAME* name) {
  const Bio memory(BIO_new(BIO_s_mem()));
  const unsigned long flags = XN_FLAG_ONELINE & ~static_cast<unsigned long>(ASN1_STRFLGS_ESC_MSB);
  if (!memory || X509_NAME_print_ex(memory.get(), name, 0, flags) < 0) return "(unreadable)";
  return TextOf(memory.get());
}

std::string TimeText(const ASN1_TIME* time) {
  const Bio memory(BIO_new(BIO_s_mem()));
  if (!memory || ASN1_TIME_print_ex(memory.get(), time, ASN1_DTFLGS_ISO8601) != 1) {
    return "(unreadable)";
  }
  return TextOf(memory.get());
}

std::string SerialText(X509* cert) {
  const BigNum number(ASN1_INTEGER_to_BN(X509_get0_serialNumber(cert), nullptr));
  const OpensslText text(number ? BN_bn2hex(number.get()) : nullptr);
  return text ? Lower(text.get()) : "(unreadable)";
}

static int AlgorithmOf(const Signer& signer) {
  const std::string& hash = signer.scheme.hash;
  switch (signer.key.kind) {
    case Kind::RSA_PKCS1:
      return hash == "sha512"   ? NID_sha512WithRSAEncryption
             : hash == "sha384" ? NID_sha384WithRSAEncryption
                                : NID_sha256WithRSAEncryption;
    case Kind::ECDSA:
      return hash == "sha512"   ? NID_ecdsa_with_SHA512
             : hash == "sha384" ? NID_ecdsa_with_SHA384
                                : NID_ecdsa_with_SHA256;
    default:
      return NID_SM2_with_SM3;
  }
}

static void SetAlgorithm(X509_ALGOR* algorithm, const Signer& signer) {
  // RFC 4055 wants NULL parameters for RSA, RFC 5758 none for ECDSA, GM/T 0015 none for SM2.
  const int parameter = signer.key.kind == Kind::RSA_PKCS1 ? V_ASN1_NULL : V_ASN1_UNDEF;
  if (X509_ALGOR_set0(algorithm, OBJ_nid2obj(AlgorithmOf(signer)), parameter, nullptr) != 1) {
    throw std::bad_alloc();
  }
}

// Sign signs the to-be-signed part in `encoded` and sets the signature bits.
static void Sign(const Signer& signer, ByteSpan encoded, ASN1_BIT_STRING* bits) {
  const Bytes signature =
      SignMessage(signer.keypair, signer.key, signer.scheme, MemoryMessage(encoded));
  if (ASN1_BIT_STRING_set(bits, const_cast<unsigned char*>(signature.data()),
                          static_cast<int>(signature.size())) != 1) {
    throw std::bad_alloc();
  }
  // No unused bits; else OpenSSL counts the trailing zero bits as such.
  bits->flags &= ~(ASN1_STRING_FLAG_BITS_LEFT | 0x07);
  bits->flags |= ASN1_STRING_FLAG_BITS_LEFT;
}

// OpenSSL signs with keys of its own only and offers no way to set the fields of a signature that
// is made elsewhere, but hands out pointers to them.
template <class T>
static T* Writable(const T* field) {
  return const_cast<T*>(field);
}

void SignRequest(X509_REQ* request, const Signer& signer) {
  const ASN1_BIT_STRING* bits = nullptr;
  const X509_ALGOR* algorithm = nullptr;
  X509_REQ_get0_signature(request, &bits, &algorithm);
  SetAlgorithm(Writable(algorithm), signer);
  unsigned char* raw = nullptr;
  const int length = i2d_re_X509_REQ_tbs(request, &raw);
  if (length <= 0) throw Failure("The request can't be encoded: " + OpenSslError() + ".");
  const SharedBytes encoded(raw);
  Sign(signer, {raw, static_cast<size_t>(length)}, Writable(bits));
}

void SignCertificate(X509* cert, const Signer& signer) {
  const ASN1_BIT_STRING* bits = nullptr;
  const X509_ALGOR* algorithm = nullptr;
  X509_get0_signature(&bits, &algorithm, cert);
  SetAlgorithm(Writable(algorithm), signer);
  SetAlgorithm(Writable(X509_get0_tbs_sigalg(cert)), signer);
  unsigned char* raw = nullptr;
  const int length = i2d_re_X509_tbs(cert, &raw);
  if (length <= 0) throw Failure("The certificate can't be encoded: " + OpenSslError() + ".");
  const SharedBytes encoded(raw);
  Sign(signer, {raw, static_cast<size_t>(length)}, Writable(bits));
}
