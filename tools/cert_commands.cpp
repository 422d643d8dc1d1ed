// cert add, list, export, delete.
#include "tools/change.h"
#include "tools/choice.h"
#include "tools/describe.h"
#include "tools/keys.h"
#include "tools/options.h"
#include "tools/output.h"
#include "tools/terminal.h"

#include <algorithm>

namespace {
struct CertOptions {
  std::string file;
  std::string which;  // number or fingerprint; empty where the user leaves it out
  OutputOptions output;
  bool der = false;
  bool yes = false;
  SecretSource pin;
};
}  // namespace

static int FindDer(Keypair* keypair, const Bytes& der) {
  for (int i = 0; i < DeviceGetCertificateCount(keypair); i++) {
    if (CertificateAt(keypair, i) == der) return i;
  }
  return -1;
}

static bool Fits(Keypair* keypair, int index, const std::string& which) {
  return which.empty() || which == std::to_string(index + 1) ||
         which == "#" + std::to_string(index + 1) ||
         IsFingerprint(which, FingerprintOf(CertificateAt(keypair, index)));
}

static int FindCertificate(Keypair* keypair, const std::string& which) {
  const int count = DeviceGetCertificateCount(keypair);
  if (count == 0) {
    throw Failure(EXIT_NOT_FOUND, "Keypair " + NameOf(keypair) + " has no certificates.");
  }
  std::vector<int> fitting;
  for (int i = 0; i < count; i++) {
    if (Fits(keypair, i, which)) fitting.push_back(i);
  }
  if (fitting.size() == 1) return fitting.front();
  throw Failure(fitting.empty() ? EXIT_NOT_FOUND : EXIT_USAGE,
                "Keypair " + NameOf(keypair) + " has " +
                    Count(static_cast<size_t>(count), "certificate") +
                    (which.empty() ? "." : ", and not one " + which + "."),
                "Give a number from 1 to " + std::to_string(count) +
                    " or a fingerprint; 'softdevice cert list' shows them.");
}

static std::string NameOf(const Bytes& der) {
  const Certificate cert = CertificateFrom(der);
  return cert ? NameText(X509_get_subject_name(cert.get())) : "(no X.509 certificate)";
}

// --- add -----------------------------------------------------------------------------------------

// Wanted are the certificates of a file, as DER, without those that the keypair has.
static std::vector<Bytes> Wanted(Keypair* keypair, const KeyFile& file) {
  std::vector<Bytes> wanted;
  for (const Certificate& cert : file.certs) {
    const Bytes der = ToDer(cert.get());
    const bool twice = std::find(wanted.begin(), wanted.end(), der) != wanted.end();
    if (FindDer(keypair, der) < 0 && !twice) wanted.push_back(der);
  }
  return wanted;
}

static void RequireRoom(Keypair* keypair, size_t wanted) {
  const auto count = static_cast<size_t>(DeviceGetCertificateCount(keypair));
  if (count + wanted <= MAX_CERTS) return;
  throw Failure("Keypair " + NameOf(keypair) + " has " + Count(count, "certificate") + " and " +
                    std::to_string(wanted) + " would be added; 10 are the most.",
                "'softdevice cert delete' makes room.");
}

static void RemarkForeign(const PublicPart& key, const Bytes& der) {
  const Certificate cert = CertificateFrom(der);
  if (EVP_PKEY_eq(X509_get0_pubkey(cert.get()), key.key.get()) == 1) return;
  Remark("The certificate of " + NameOf(der) + " is of another key: of the issuer?");
}

static void Add(const Target& target, const CertOptions& options) {
  ProtectInput(options.file);
  const KeyFile file = ReadKeyFile(options.file, {});
  if (file.certs.empty()) {
    throw Failure(options.file + " holds no certificate.", "PEM, DER and PKCS#7 (.p7b) are read.");
  }
  KeypairSession session(target);
  const PublicPart key = PublicPartOf(session.keypair.get());
  RequireRoom(session.keypair.get(), Wanted(session.keypair.get(), file).size());
  Unlock(session, options.pin);
  std::vector<Bytes> added;
  Facts facts;
  ChangeDevice(session, "add certificates", [&](const DeviceChange& change) {
    Keypair* keypair = SameKeypairIn(change.device, session.keypair.get());
    added = Wanted(keypair, file);
    RequireRoom(keypair, added.size());
    for (const Bytes& der : added) AppendCertificate(keypair, der);
    facts = CertificatesOf(keypair);
  });
  std::vector<std::string> names;
  for (const Bytes& der : added) {
    RemarkForeign(key, der);
    names.push_back("Added " + NameOf(der));
  }
  const size_t known = file.certs.size() - added.size();
  if (known > 0) names.push_back("Already there: " + Count(known, "certificate"));
  Confirm(Join(names, "; ") + ".", Fields{{"added", added.size()}, {"certificates", facts}});
}

// --- list, export, delete ------------------------------------------------------------------------

static std::string TextOf(Keypair* keypair, int index) {
  const Bytes der = CertificateAt(keypair, index);
  const Certificate cert = CertificateFrom(der);
  const std::string number = "#" + std::to_string(index + 1) + "  ";
  const std::string fingerprint = "\n    fingerprint  " + FingerprintOf(der);
  if (!cert) return number + "no X.509 certificate, " + Count(der.size(), "byte") + fingerprint;
  const EvpKey key = PublicKeyOf(keypair);
  const bool own = key && EVP_PKEY_eq(X509_get0_pubkey(cert.get()), key.get()) == 1;
  return number + Bold(Printable(NameText(X509_get_subject_name(cert.get())))) +
         (own ? "" : " (of another key)") + "\n    issuer       " +
         Printable(NameText(X509_get_issuer_name(cert.get()))) + "\n    serial       " +
         SerialText(cert.get()) + "\n    expires      " + ExpiryText(cert.get()) + fingerprint;
}

static void List(const Target& target) {
  const KeypairSession session(target, true);
  Keypair* keypair = session.keypair.get();
  const int count = DeviceGetCertificateCount(keypair);
  std::vector<std::string> texts;
  texts.reserve(static_cast<size_t>(count));
  for (int i = 0; i < count; i++) {
    texts.push_back(TextOf(keypair, i));
  }
  Show(texts.empty() ? "No certificates." : Join(texts, "\n"),
       Fields{{"certificates", CertificatesOf(keypair)}});
}

static void Export(const Target& target, const CertOptions& options) {
  const OutputFile output(options.output, options.der ? Output::BINARY : Output::TEXT, target, {});
  const KeypairSession session(target);
  Keypair* keypair = session.keypair.get();
  const Bytes der = CertificateAt(keypair, FindCertificate(keypair, options.which));
  if (options.der) return output.Write(der);
  output.Write(CertificatePem(der));
}

static void Delete(const Target& target, const CertOptions& options) {
  KeypairSession session(target);
  Keypair* keypair = session.keypair.get();
  const Bytes der = CertificateAt(keypair, FindCertificate(keypair, options.which));
  Unlock(session, options.pin);
  RequireYes(options.yes,
             "Certificate " + NameOf(der) + " (" + ShortFingerprint(FingerprintOf(der)) +
                 ") of keypair " + NameOf(session.keypair.get()) + ", device " +
                 NameOf(session.device.get()) + ", will be deleted.",
             "deleted");
  Fields facts;
  ChangeDevice(session, "delete certificate " + NameOf(der), [&](const DeviceChange& change) {
    Keypair* stored = SameKeypairIn(change.device, session.keypair.get());
    const int index = FindDer(stored, der);
    if (index < 0) throw Failure(EXIT_NOT_FOUND, "The certificate is gone by now.");
    facts = CertificateFacts(stored, index);
    FreeCert(stored->certs[index]);
    std::copy(stored->certs + index + 1, stored->certs + stored->certCount, stored->certs + index);
    stored->certCount--;
  });
  Confirm("Deleted certificate " + NameOf(der) + ".", facts);
}

static void AddWhich(CLI::App& command, CertOptions& options) {
  Add(command, {.name = "which",
                .into = &options.which,
                .help = "Number, as 'cert list' shows it, or fingerprint; may be left out when "
                        "there is one"});
}

static const char* const CERT_JSON =
    "{index, fingerprint, bytes, subject, issuer, serial, not_before, not_after, days_left, "
    "own_key}";

void AddCertCommands(CLI::App& app, Target& target) {
  const auto options = std::make_shared<CertOptions>();
  CLI::App& cert = AddFamily(app, "cert", "Certificates of a keypair");

  CLI::App& add = AddCommand(cert, "add", "Store the certificates of a file",
                             [&target, options] { Add(target, *options); });
  AddArgument(add, "file", &options->file, "PEM, DER or PKCS#7; - is standard input");
  AddKeypairOptions(add, target);
  AddSecretOptions(add, options->pin, "pin", "PIN");
  NoteJson(add, "{added, certificates: [as 'cert list']}");

  CLI::App& list = AddCommand(cert, "list", "Show subject, issuer and expiry; needs no PIN",
                              [&target] { List(target); });
  AddKeypairOptions(list, target);
  NoteJson(list, std::string("{certificates: [") + CERT_JSON + "]}");

  CLI::App& exporting = AddCommand(cert, "export", "Write a certificate as PEM; needs no PIN",
                                   [&target, options] { Export(target, *options); });
  AddWhich(exporting, *options);
  Add(exporting, {.name = "--der", .into = &options->der, .help = "Write DER instead"});
  AddOutputOptions(exporting, options->output, "File to write");
  AddKeypairOptions(exporting, target);

  CLI::App& remove = AddCommand(cert, "delete", "Delete a certificate",
                                [&target, options] { Delete(target, *options); });
  AddWhich(remove, *options);
  AddYesOption(remove, options->yes);
  AddKeypairOptions(remove, target);
  AddSecretOptions(remove, options->pin, "pin", "PIN");
  NoteJson(remove, CERT_JSON);
}
