// csr, self-sign: a PKCS#10 request and a self-signed certificate, signed by the device.
#include "tools/certificates.h"
#include "tools/change.h"
#include "tools/options.h"
#include "tools/output.h"
#include "tools/session.h"
#include "tools/subject.h"

#include <openssl/pem.h>
#include <openssl/rand.h>
namespace {
struct RequestOptions {
  std::string subject;
  std::string san;
  std::string keyUsage;
  std::string extendedKeyUsage;
  bool ca = false;
  int pathLength = -1;
  Scheme scheme;
  OutputOptions output;
  int days = 365;
  bool der = false;
  bool store = false;
  SecretSource pin;
};
}  // namespace

using Extension = std::unique_ptr<X509_EXTENSION, Release<X509_EXTENSION_free>>;

static void FreeExtensions(STACK_OF(X509_EXTENSION) * list) {
  sk_X509_EXTENSION_pop_free(list, X509_EXTENSION_free);
}
using Extensions = std::unique_ptr<STACK_OF(X509_EXTENSION), Release<FreeExtensions>>;

static void RequireBuilt(bool ok) {
  if (!ok) throw Failure("It could not be put together: " + OpenSslError() + ".");
}

// --- Extensions ----------------------------------------------------------------------------------

static void Push(const Extensions& list, Extension extension) {
  RequireBuilt(extension && sk_X509_EXTENSION_push(list.get(), extension.get()) > 0);
  static_cast<void>(extension.release());  // the list has it now
}

static void PushText(const Extensions& list, X509V3_CTX* context, int nid,
                     const std::string& value) {
  Push(list, Extension(X509V3_EXT_conf_nid(nullptr, context, nid, value.c_str())));
}

// A CA without named uses signs certificates and their revocation lists.
static std::string KeyUsageOf(const RequestOptions& options) {
  return options.keyUsage.empty() && options.ca ? "keyCertSign,cRLSign" : options.keyUsage;
}

// Wanted are the extensions that the options ask for; `always` those of a certificate, too.
static Extensions Wanted(const RequestOptions& options, X509V3_CTX* context, bool always) {
  Extensions list(sk_X509_EXTENSION_new_null());
  RequireBuilt(list != nullptr);
  if (always || options.ca) {
    const std::string path =
        options.pathLength < 0 ? "" : ",pathlen:" + std::to_string(options.pathLength);
    PushText(list, context, NID_basic_constraints,
             options.ca ? "critical,CA:TRUE" + path : "critical,CA:FALSE");
  }
  if (always) PushText(list, context, NID_subject_key_identifier, "hash");
  const std::string usage = KeyUsageOf(options);
  if (!usage.empty()) PushText(list, context, NID_key_usage, "critical," + usage);
  if (!options.extendedKeyUsage.empty()) {
    PushText(list, context, NID_ext_key_usage, options.extendedKeyUsage);
  }
  if (!options.san.empty()) {
    const AlternativeNames names = ParseAlternativeNames(options.san);
    Push(list, Extension(X509V3_EXT_i2d(NID_subject_alt_name, 0, names.get())));
  }
  return list;
}

// --- csr -----------------------------------------------------------------------------------------

static Request BuildRequest(EVP_PKEY* key, const RequestOptions& options) {
  const Name subject = ParseName(options.subject);
  Request request(X509_REQ_new());
  RequireBuilt(request && X509_REQ_set_version(request.get(), X509_REQ_VERSION_1) == 1 &&
               X509_REQ_set_subject_name(request.get(), subject.get()) == 1 &&
               X509_REQ_set_pubkey(request.get(), key) == 1);
  X509V3_CTX context = {};
  X509V3_set_ctx(&context, nullptr, nullptr, request.get(), nullptr, 0);
  const Extensions list = Wanted(options, &context, false);
  if (sk_X509_EXTENSION_num(list.get()) > 0) {
    RequireBuilt(X509_REQ_add_extensions(request.get(), list.get()) == 1);
  }
  return request;
}

static Bytes ToDer(X509_REQ* request) {
  unsigned char* raw = nullptr;
  const int length = i2d_X509_REQ(request, &raw);
  RequireBuilt(length > 0);
  const OpensslBytes der(raw);
  return Bytes(raw, raw + length);
}

static std::string PemOf(X509_REQ* request) {
  const Bio memory(BIO_new(BIO_s_mem()));
  RequireBuilt(memory && PEM_write_bio_X509_REQ(memory.get(), request) == 1);
  return TextOf(memory.get());
}

static OutputFile OutputOf(const Target& target, const RequestOptions& options) {
  return OutputFile(options.output, options.der ? Output::BINARY : Output::TEXT, target,
                    {options.pin.file});
}

static void CheckOptions(const RequestOptions& options) {
  if (options.pathLength >= 0 && !options.ca) {
    throw Failure(EXIT_USAGE, "--path-length is for a CA: add --ca.");
  }
}

static void MakeRequest(const Target& target, const RequestOptions& options) {
  CheckOptions(options);
  const OutputFile output = OutputOf(target, options);
  KeypairSession session(target);
  const PublicPart key = PublicPartOf(session.keypair.get());
  RequireFitting(options.scheme, key.kind);
  const Request request = BuildRequest(key.key.get(), options);
  Unlock(session, options.pin);
  SignRequest(request.get(), {session.keypair.get(), key, options.scheme});
  if (options.der) {
    output.Write(ToDer(request.get()));
  } else {
    output.Write(PemOf(request.get()));
  }
  Remark("Made a request for a certificate of keypair " + NameOf(session.keypair.get()) + ".");
}

// --- self-sign -----------------------------------------------------------------------------------

static void SetSerialNumber(X509* cert) {
  unsigned char bytes[16];
  RequireBuilt(RAND_bytes(bytes, sizeof bytes) == 1);
  bytes[0] = static_cast<unsigned char>((bytes[0] & 0x7f) | 0x40);  // positive, and of full length
  const BigNum number(BN_bin2bn(bytes, sizeof bytes, nullptr));
  RequireBuilt(number && BN_to_ASN1_INTEGER(number.get(), X509_get_serialNumber(cert)) != nullptr);
}

static Certificate BuildCertificate(EVP_PKEY* key, const RequestOptions& options) {
  const Name subject = ParseName(options.subject);
  Certificate cert(X509_new());
  RequireBuilt(cert && X509_set_version(cert.get(), X509_VERSION_3) == 1);
  SetSerialNumber(cert.get());
  RequireBuilt(X509_set_subject_name(cert.get(), subject.get()) == 1 &&
               X509_set_issuer_name(cert.get(), subject.get()) == 1 &&
               X509_gmtime_adj(X509_getm_notBefore(cert.get()), 0) != nullptr &&
               X509_time_adj_ex(X509_getm_notAfter(cert.get()), options.days, 0, nullptr) !=
                   nullptr &&
               X509_set_pubkey(cert.get(), key) == 1);
  X509V3_CTX context = {};
  X509V3_set_ctx(&context, cert.get(), cert.get(), nullptr, nullptr, 0);
  const Extensions list = Wanted(options, &context, true);
  for (int i = 0; i < sk_X509_EXTENSION_num(list.get()); i++) {
    RequireBuilt(X509_add_ext(cert.get(), sk_X509_EXTENSION_value(list.get(), i), -1) == 1);
  }
  return cert;
}

static void RequireRoom(Keypair* keypair) {
  if (DeviceGetCertificateCount(keypair) < MAX_CERTS) return;
  throw Failure("Keypair " + NameOf(keypair) + " has 10 certificates, the most that fit.",
                "'softdevice cert delete' makes room.");
}

static void SelfSign(const Target& target, const RequestOptions& options) {
  CheckOptions(options);
  const OutputFile output = OutputOf(target, options);
  KeypairSession session(target);
  const PublicPart key = PublicPartOf(session.keypair.get());
  RequireFitting(options.scheme, key.kind);
  if (options.store) RequireRoom(session.keypair.get());
  const Certificate cert = BuildCertificate(key.key.get(), options);
  Unlock(session, options.pin);
  Keypair* keypair = session.keypair.get();
  if (options.store) RequireRoom(keypair);
  SignCertificate(cert.get(), {keypair, key, options.scheme});
  const Bytes der = ToDer(cert.get());
  // First: what is stored is stored for good.
  if (options.der) {
    output.Write(der);
  } else {
    output.Write(CertificatePem(der));
  }
  const std::string made = "Made a certificate of keypair " + NameOf(keypair) + ", valid for " +
                           Count(static_cast<size_t>(options.days), "day");
  if (!options.store) return Remark(made + "; the device has no copy (--store).");
  NoteChange("the certificate is written to " +
             (output.isStandard() ? "standard output" : output.path));
  ChangeDevice(session, "store the certificate on the device", [&](const DeviceChange& change) {
    Keypair* stored = SameKeypairIn(change.device, keypair);
    RequireRoom(stored);
    AppendCertificate(stored, der);
  });
  Remark(made + "; it is stored on the device too.");
}

// --- Options -------------------------------------------------------------------------------------

static void AddCommon(CLI::App& command, Target& target, RequestOptions& options) {
  Add(command, {.name = "--subject",
                .into = &options.subject,
                .help = "Name to certify, like /C=CN/O=Example/CN=Alice",
                .value = "NAME",
                .isRequired = true});
  Add(command, {.name = "--san",
                .into = &options.san,
                .help = "Alternative names, like DNS:example.org,IP:192.0.2.1",
                .value = "NAMES"});
  Add(command, {.name = "--key-usage",
                .into = &options.keyUsage,
                .help = "Uses of the key, like digitalSignature,keyEncipherment",
                .value = "USES",
                .check = CheckKeyUsage});
  Add(command, {.name = "--extended-key-usage",
                .into = &options.extendedKeyUsage,
                .help = "Purposes, like serverAuth,clientAuth, or object identifiers",
                .value = "USES",
                .check = CheckExtendedKeyUsage});
  Add(command, {.name = "--ca", .into = &options.ca, .help = "For a certificate authority"});
  Add(command, {.name = "--path-length",
                .into = &options.pathLength,
                .help = "Authorities that may stand below it",
                .value = "N",
                .range = {0, 100}});
  AddHashOption(command, options.scheme.hash);
  AddIdOption(command, options.scheme.id);
  Add(command, {.name = "--der", .into = &options.der, .help = "Write DER instead of PEM"});
  AddOutputOptions(command, options.output, "File to write");
  AddKeypairOptions(command, target);
  AddSecretOptions(command, options.pin, "pin", "PIN");
}

void AddRequestCommands(CLI::App& app, Target& target) {
  const auto options = std::make_shared<RequestOptions>();

  CLI::App& csr = AddCommand(app, "csr", "Write a certificate request (PKCS#10)",
                             [&target, options] { MakeRequest(target, *options); });
  AddCommon(csr, target, *options);

  CLI::App& selfSign = AddCommand(app, "self-sign", "Write a self-signed certificate",
                                  [&target, options] { SelfSign(target, *options); });
  AddCommon(selfSign, target, *options);
  Add(selfSign, {.name = "--days",
                 .into = &options->days,
                 .help = "Days until it expires",
                 .value = "N",
                 .showsDefault = true,
                 .range = {1, 36500}});
  Add(selfSign, {.name = "--store", .into = &options->store, .help = "Also add it to the keypair"});
}
