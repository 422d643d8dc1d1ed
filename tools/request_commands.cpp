// csr, self-sign: a PKCS#10 request and a self-signed certificate, signed by the device.
#include "tools/certificates.h"
#include "tools/session.h"

#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509v3.h>
#include <CLI/CLI.hpp>

#include <stdio.h>

struct RequestOptions {
  std::string subject;
  std::string san;
  std::string id = SM2_DEFAULT_ID;
  std::string output = "-";
  int days = 365;
  bool store = false;
  SecretSource pin;
};

using Extension = std::unique_ptr<X509_EXTENSION, Release<X509_EXTENSION_free>>;

static void FreeExtensions(STACK_OF(X509_EXTENSION) * list) {
  sk_X509_EXTENSION_pop_free(list, X509_EXTENSION_free);
}
using Extensions = std::unique_ptr<STACK_OF(X509_EXTENSION), Release<FreeExtensions>>;

static void RequireBuilt(bool ok) {
  if (!ok) throw Failure("It could not be put together: " + OpenSslError() + ".");
}

static Extension MakeExtension(X509V3_CTX* context, int nid, const std::string& value) {
  Extension extension(X509V3_EXT_conf_nid(nullptr, context, nid, value.c_str()));
  if (extension) return extension;
  throw Failure("The extension '" + value + "' is not understood: " + OpenSslError() + ".",
                "Write alternative names like DNS:example.org,IP:192.0.2.1,email:a@example.org.");
}

static Request BuildRequest(EVP_PKEY* key, const RequestOptions& options) {
  const Name subject = ParseName(options.subject);
  Request request(X509_REQ_new());
  RequireBuilt(request && X509_REQ_set_version(request.get(), X509_REQ_VERSION_1) == 1 &&
               X509_REQ_set_subject_name(request.get(), subject.get()) == 1 &&
               X509_REQ_set_pubkey(request.get(), key) == 1);
  if (options.san.empty()) return request;
  const Extensions list(sk_X509_EXTENSION_new_null());
  Extension san = MakeExtension(nullptr, NID_subject_alt_name, options.san);
  RequireBuilt(list && sk_X509_EXTENSION_push(list.get(), san.get()) > 0);
  san.release();
  RequireBuilt(X509_REQ_add_extensions(request.get(), list.get()) == 1);
  return request;
}

static void MakeRequest(const Target& target, const RequestOptions& options) {
  const KeypairSession session(target);
  const PublicPart key = PublicPartOf(session.keypair.get());
  const Request request = BuildRequest(key.key.get(), options);
  Unlock(session.device(), options.pin);
  SignRequest(request.get(), {session.keypair.get(), key, options.id});
  const Bio memory(BIO_new(BIO_s_mem()));
  RequireBuilt(memory && PEM_write_bio_X509_REQ(memory.get(), request.get()) == 1);
  WriteText(options.output, TextOf(memory.get()));
}

static void SetSerialNumber(X509* cert) {
  unsigned char bytes[16];
  RequireBuilt(RAND_bytes(bytes, sizeof bytes) == 1);
  bytes[0] = static_cast<unsigned char>((bytes[0] & 0x7f) | 0x40);  // positive, and of full length
  const BigNum number(BN_bin2bn(bytes, sizeof bytes, nullptr));
  RequireBuilt(number && BN_to_ASN1_INTEGER(number.get(), X509_get_serialNumber(cert)) != nullptr);
}

static void AddExtension(X509* cert, int nid, const std::string& value) {
  X509V3_CTX context = {};
  X509V3_set_ctx(&context, cert, cert, nullptr, nullptr, 0);
  const Extension extension = MakeExtension(&context, nid, value);
  RequireBuilt(X509_add_ext(cert, extension.get(), -1) == 1);
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
  AddExtension(cert.get(), NID_basic_constraints, "critical,CA:FALSE");
  AddExtension(cert.get(), NID_subject_key_identifier, "hash");
  if (!options.san.empty()) AddExtension(cert.get(), NID_subject_alt_name, options.san);
  return cert;
}

static void SelfSign(const Target& target, const RequestOptions& options) {
  const KeypairSession session(target);
  Keypair* keypair = session.keypair.get();
  const PublicPart key = PublicPartOf(keypair);
  const Certificate cert = BuildCertificate(key.key.get(), options);
  Unlock(session.device(), options.pin);
  SignCertificate(cert.get(), {keypair, key, options.id});
  const Bytes der = ToDer(cert.get());
  WritePem(options.output, der);  // first: what is stored is stored for good
  if (options.store) {
    RequireChange(DeviceAddCertificate(keypair, der.data(), static_cast<int>(der.size())),
                  "store the certificate");
  }
}

static void AddCommon(CLI::App* command, Target& target, RequestOptions& options) {
  command
      ->add_option("--subject", options.subject, "Name to certify, like /C=CN/O=Example/CN=Alice")
      ->type_name("NAME")
      ->required();
  command->add_option("--san", options.san, "Alternative names, like DNS:example.org,IP:192.0.2.1")
      ->type_name("NAMES");
  command->add_option("--id", options.id, "User id that an SM2 signature covers")
      ->capture_default_str()
      ->type_name("ID");
  command->add_option("-o,--output", options.output, "PEM file to write [standard output]")
      ->type_name("FILE");
  AddKeypairOptions(*command, target);
  AddSecretOptions(*command, options.pin, "pin", "PIN");
}

void AddRequestCommands(CLI::App& app, Target& target) {
  const auto options = std::make_shared<RequestOptions>();

  CLI::App* csr = app.add_subcommand("csr", "Write a certificate request (PKCS#10)");
  AddCommon(csr, target, *options);
  csr->callback([&target, options] { MakeRequest(target, *options); });

  CLI::App* selfSign = app.add_subcommand("self-sign", "Write a self-signed certificate");
  AddCommon(selfSign, target, *options);
  selfSign->add_option("--days", options->days, "Days until it expires")
      ->type_name("N")
      ->capture_default_str()
      ->check(CLI::Range(1, 36500).description(""));
  selfSign->add_flag("--store", options->store, "Also add it to the keypair");
  selfSign->callback([&target, options] { SelfSign(target, *options); });
}
