// X.509 on OpenSSL, with the signature made by the device.
#include "tools/certificates.h"

#include <openssl/pem.h>

using SharedBytes = std::unique_ptr<unsigned char[], Release<[](void* p) { OPENSSL_free(p); }>>;

Bytes ToDer(X509* cert) {
  unsigned char* raw = nullptr;
  const int length = i2d_X509(cert, &raw);
  if (length <= 0) throw Failure("The certificate can't be written: " + OpenSslError() + ".");
  const SharedBytes der(raw);
  return Bytes(raw, raw + length);
}

void WritePem(const std::string& path, const Bytes& der) {
  const Bio memory(BIO_new(BIO_s_mem()));
  if (!memory || PEM_write_bio(memory.get(), PEM_STRING_X509, "", der.data(),
                               static_cast<long>(der.size())) <= 0) {
    throw std::bad_alloc();
  }
  WriteText(path, TextOf(memory.get()));
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
  return Printable(TextOf(memory.get()));
}

std::string TimeText(const ASN1_TIME* time) {
  const Bio memory(BIO_new(BIO_s_mem()));
  if (!memory || ASN1_TIME_print_ex(memory.get(), time, ASN1_DTFLGS_ISO8601) != 1) {
    return "(unreadable)";
  }
  return TextOf(memory.get());
}

static void AddEntry(X509_NAME* name, const std::string& type, const std::string& value) {
  const auto* bytes = reinterpret_cast<const unsigned char*>(value.data());
  if (type.empty() || value.empty() ||
      X509_NAME_add_entry_by_txt(name, type.c_str(), MBSTRING_UTF8, bytes,
                                 static_cast<int>(value.size()), -1, 0) != 1) {
    throw Failure("The subject's part '" + type + "=" + value + "' is not understood.",
                  "Write it like /C=CN/O=Example/CN=Alice.");
  }
}

Name ParseName(const std::string& text) {
  Name name(X509_NAME_new());
  if (!text.starts_with('/')) {
    throw Failure("The subject must begin with a slash, as in /CN=Alice.");
  }
  std::string parts[2];  // type, value
  size_t part = 0;
  for (size_t i = 1; i <= text.size(); i++) {
    if (i == text.size() || text[i] == '/') {
      AddEntry(name.get(), parts[0], parts[1]);
      parts[0].clear();
      parts[1].clear();
      part = 0;
    } else if (text[i] == '=' && part == 0) {
      part = 1;
    } else {
      if (text[i] == '\\' && i + 1 < text.size()) i++;
      parts[part] += text[i];
    }
  }
  return name;
}

static void SetAlgorithm(X509_ALGOR* algorithm, Kind kind) {
  // RFC 4055 wants NULL parameters for RSA, RFC 5758 none for ECDSA, GM/T 0015 none for SM2.
  const int nid = kind == Kind::RSA_PKCS1 ? NID_sha256WithRSAEncryption
                  : kind == Kind::ECDSA   ? NID_ecdsa_with_SHA256
                                          : NID_SM2_with_SM3;
  const int parameter = kind == Kind::RSA_PKCS1 ? V_ASN1_NULL : V_ASN1_UNDEF;
  if (X509_ALGOR_set0(algorithm, OBJ_nid2obj(nid), parameter, nullptr) != 1) throw std::bad_alloc();
}

// Sign signs the to-be-signed part in `encoded` and sets the signature bits.
static void Sign(const Signer& signer, ByteSpan encoded, ASN1_BIT_STRING* bits) {
  const Bytes signature =
      SignMessage(signer.keypair, signer.key, signer.id, MemoryMessage(encoded));
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
  SetAlgorithm(Writable(algorithm), signer.key.kind);
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
  SetAlgorithm(Writable(algorithm), signer.key.kind);
  SetAlgorithm(Writable(X509_get0_tbs_sigalg(cert)), signer.key.kind);
  unsigned char* raw = nullptr;
  const int length = i2d_re_X509_tbs(cert, &raw);
  if (length <= 0) throw Failure("The certificate can't be encoded: " + OpenSslError() + ".");
  const SharedBytes encoded(raw);
  Sign(signer, {raw, static_cast<size_t>(length)}, Writable(bits));
}
