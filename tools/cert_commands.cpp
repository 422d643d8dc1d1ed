// cert add, list, export, delete.
#include "tools/certificates.h"
#include "tools/session.h"

#include <openssl/pem.h>
#include <CLI/CLI.hpp>

#include <stdio.h>

struct CertOptions {
  std::string file;
  std::string output = "-";
  int number = 0;  // from 1; 0 where the user leaves it out
  bool der = false;
  SecretSource pin;
};

static Bytes CertificateAt(Keypair* keypair, int index) {
  int length = 0;
  if (DeviceGetCertificate(keypair, index, nullptr, 0, &length) != VAKRO_OK) return {};
  Bytes der(static_cast<size_t>(length));
  if (DeviceGetCertificate(keypair, index, der.data(), length, &length) != VAKRO_OK) return {};
  return der;
}

static bool Holds(Keypair* keypair, const Bytes& der) {
  for (int i = 0; i < DeviceGetCertificateCount(keypair); i++) {
    if (CertificateAt(keypair, i) == der) return true;
  }
  return false;
}

static int IndexOf(Keypair* keypair, int number) {
  const int count = DeviceGetCertificateCount(keypair);
  if (count == 0) throw Failure("Keypair " + LabelOf(keypair) + " has no certificates.");
  if (number == 0 && count == 1) return 0;
  if (number >= 1 && number <= count) return number - 1;
  throw Failure(
      "Keypair " + LabelOf(keypair) + " has " + std::to_string(count) + " certificates.",
      "Give a number from 1 to " + std::to_string(count) + "; 'softdevice cert list' shows them.");
}

static void Add(const Target& target, const CertOptions& options) {
  const KeyFile file = ReadKeyFile(options.file, {});
  if (file.certs.empty()) {
    throw Failure(options.file + " holds no certificate.", "PEM and DER are read.");
  }
  const KeypairSession session(target);
  Keypair* keypair = session.keypair.get();
  const PublicPart key = PublicPartOf(keypair);
  Unlock(session.device(), options.pin);
  for (const Certificate& cert : file.certs) {
    const Bytes der = ToDer(cert.get());
    const std::string name = NameText(X509_get_subject_name(cert.get()));
    if (Holds(keypair, der)) {
      printf("Already there: %s\n", name.c_str());
      continue;
    }
    RequireChange(DeviceAddCertificate(keypair, der.data(), static_cast<int>(der.size())),
                  "add certificate " + name);
    const bool own = EVP_PKEY_eq(X509_get0_pubkey(cert.get()), key.key.get()) == 1;
    printf("Added %s%s\n", name.c_str(),
           own ? "" : " (of another key: a certificate of the issuer?)");
  }
}

static void ListOne(Keypair* keypair, int index) {
  const Bytes der = CertificateAt(keypair, index);
  const Certificate cert = CertificateFrom(der);
  if (!cert) {
    printf("%3d  no X.509 certificate, %zu bytes\n", index + 1, der.size());
    return;
  }
  printf("%3d  subject  %s\n", index + 1, NameText(X509_get_subject_name(cert.get())).c_str());
  printf("     issuer   %s\n", NameText(X509_get_issuer_name(cert.get())).c_str());
  const ASN1_TIME* end = X509_get0_notAfter(cert.get());
  printf("     expires  %s%s\n", TimeText(end).c_str(),
         X509_cmp_current_time(end) < 0 ? " (expired)" : "");
}

static void List(const Target& target) {
  const KeypairSession session(target);
  const int count = DeviceGetCertificateCount(session.keypair.get());
  if (count == 0) printf("No certificates.\n");
  for (int i = 0; i < count; i++) ListOne(session.keypair.get(), i);
}

static void Export(const Target& target, const CertOptions& options) {
  const KeypairSession session(target);
  const Bytes der =
      CertificateAt(session.keypair.get(), IndexOf(session.keypair.get(), options.number));
  if (options.der) return WriteOutput(options.output, der, Output::BINARY);
  WritePem(options.output, der);
}

static void Delete(const Target& target, const CertOptions& options) {
  const KeypairSession session(target);
  const int index = IndexOf(session.keypair.get(), options.number);
  Unlock(session.device(), options.pin);
  RequireChange(DeviceDeleteCertificate(session.keypair.get(), index),
                "delete certificate " + std::to_string(index + 1));
  printf("Deleted certificate %d.\n", index + 1);
}

static void AddNumber(CLI::App* command, CertOptions& options) {
  command
      ->add_option("number", options.number,
                   "Number as 'cert list' shows it; may be left out when there is one")
      ->check(CLI::Range(1, MAX_CERTS).description(""));
}

void AddCertCommands(CLI::App& app, Target& target) {
  const auto options = std::make_shared<CertOptions>();
  CLI::App* cert = app.add_subcommand("cert", "Certificates of a keypair");
  cert->require_subcommand(1);

  CLI::App* add = cert->add_subcommand("add", "Store the certificates of a file");
  add->add_option("file", options->file, "PEM or DER; - is standard input")->required();
  AddKeypairOptions(*add, target);
  AddSecretOptions(*add, options->pin, "pin", "PIN");
  add->callback([&target, options] { Add(target, *options); });

  CLI::App* list = cert->add_subcommand("list", "Show subject, issuer and expiry; needs no PIN");
  AddKeypairOptions(*list, target);
  list->callback([&target] { List(target); });

  CLI::App* exporting = cert->add_subcommand("export", "Write a certificate as PEM; needs no PIN");
  AddNumber(exporting, *options);
  exporting->add_flag("--der", options->der, "Write DER instead");
  exporting->add_option("-o,--output", options->output, "File to write [standard output]")
      ->type_name("FILE");
  AddKeypairOptions(*exporting, target);
  exporting->callback([&target, options] { Export(target, *options); });

  CLI::App* remove = cert->add_subcommand("delete", "Delete a certificate");
  AddNumber(remove, *options);
  AddKeypairOptions(*remove, target);
  AddSecretOptions(*remove, options->pin, "pin", "PIN");
  remove->callback([&target, options] { Delete(target, *options); });
}
