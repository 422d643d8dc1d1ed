// check: what is wrong with device files, and what a scan would do with them. Changes nothing, but
// with --repair.
#include "device/change.h"
#include "store/lock.h"
#include "store/store.h"
#include "tools/certificates.h"
#include "tools/describe.h"
#include "tools/inspection.h"
#include "tools/keys.h"
#include "tools/options.h"
#include "tools/repair.h"
#include "tools/rights.h"
#include "tools/session.h"

#include "keypair/keypair.h"

#include <algorithm>

namespace {
struct CheckOptions {
  std::vector<std::string> files;
  bool repair = false;
  bool withPin = false;
  SecretSource pin;
};
}  // namespace

// --- Without the PIN -----------------------------------------------------------------------------

static void AddExposure(const Exposure& exposure, Findings& findings) {
  if (exposure.what.empty()) return;
  const std::string remedy = exposure.remedy.empty() ? "" : " (" + exposure.remedy + ")";
  findings.push_back({Weight::WEAK, "", exposure.what + remedy});
}

static void CheckRights(const std::string& path, Findings& findings) {
  AddExposure(WhoMayWrite(path), findings);
  AddExposure(WhoMayRead(path), findings);
}

static std::string PlaceOf(Keypair* keypair) {
  return "keypair #" + std::to_string(IndexOf(keypair)) + " (" + keypair->label + ")";
}

static void CheckCertificates(Keypair* keypair, Findings& findings) {
  const EvpKey key = PublicKeyOf(keypair);
  for (int i = 0; i < keypair->certCount; i++) {
    const Certificate cert = CertificateFrom(CertificateAt(keypair, i));
    const std::string which = "certificate " + std::to_string(i + 1);
    if (!cert) {
      findings.push_back({Weight::NOTE, PlaceOf(keypair), which + " is no X.509 certificate"});
    } else if (key && EVP_PKEY_eq(X509_get0_pubkey(cert.get()), key.get()) != 1) {
      findings.push_back({Weight::NOTE, PlaceOf(keypair),
                          which + " is of another key (of the issuer?): " +
                              NameText(X509_get_subject_name(cert.get()))});
    }
  }
}

static void CheckKeypair(Keypair* keypair, Findings& findings) {
  const std::string unusable = TraitsOf(keypair).problem;
  if (!unusable.empty()) {
    findings.push_back({Weight::SKIPPED, PlaceOf(keypair), unusable});
  } else if (keypair->algorithm == ALGORITHM_RSA &&
             EVP_PKEY_get_bits(PublicKeyOf(keypair).get()) < RSA_WEAK_BITS) {
    findings.push_back({Weight::WEAK, PlaceOf(keypair), KindName(keypair) + " is weak"});
  }
  CheckCertificates(keypair, findings);
}

// --- With the PIN --------------------------------------------------------------------------------

// The blob decides: what does not open is damaged or another device's, and what opens must be the
// private key of the public key beside it.
static void CheckPrivateKey(Keypair* keypair, const SecretText& pin, Findings& findings) {
  int curve = 0;
  const EvpKey key(DecryptKeyPair(keypair->algorithm, keypair, pin.data(), &curve));
  const EvpKey stored = PublicKeyOf(keypair);
  if (!key) {
    findings.push_back({Weight::SKIPPED, PlaceOf(keypair),
                        "its private key does not open with the PIN that opens others, and keeps "
                        "the whole device shut"});
  } else if (stored && !SamePublicKey(key.get(), stored.get())) {
    findings.push_back({Weight::SKIPPED, PlaceOf(keypair),
                        "its public key is not that of its private key: someone has changed the "
                        "file"});
  }
}

static void CheckKeypairs(Device* device, const CheckOptions& options, Findings& findings) {
  for (Keypair* keypair : KeypairsIn(device)) CheckKeypair(keypair, findings);
  if (!options.withPin || device->keypairCount == 0) return;
  const SecretText pin = ReadSecret(options.pin, "PIN of device " + NameOf(device));
  ProvePin(device, pin);
  for (int i = 0; i < device->keypairCount; i++) {
    CheckPrivateKey(device->keypairs[i], pin, findings);
  }
}

// --- The verdict ---------------------------------------------------------------------------------

static bool Exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

static bool IsBackup(const std::string& path) { return path.ends_with(BACKUP_SUFFIX); }

// What a scan makes of a file, and of its backup.
static std::string Verdict(const std::string& path, const Inspection& inspection) {
  if (IsBackup(path)) return "a backup: see the device file";
  const std::string backup = path + BACKUP_SUFFIX;
  const bool hasBackup = Exists(backup);
  const bool backupGood = hasBackup && IsDeviceFile(backup) && Inspect(backup).loads;
  if (inspection.loads) {
    return hasBackup ? "loaded; the backup beside it would be removed as stale" : "loaded";
  }
  if (inspection.digestHolds) return "passed over";
  return backupGood  ? "restored from the backup beside it"
         : hasBackup ? "passed over; the backup beside it is no good either"
                     : "passed over";
}

static OwnedDevice RecordOf(const std::string& path) {
  unsigned char* raw = nullptr;
  unsigned int size = 0;
  if (VerifyDeviceFile(path.c_str(), &raw, &size) != 1) return nullptr;
  const UtilBytes image(raw);
  return OwnedDevice(GetDeviceHandleFromData(raw, size));
}

namespace {
// What a file was at one moment.
struct Look {
  Inspection inspection;
  std::string verdict;
  OwnedDevice device;
};
}  // namespace

// In the midst of a rewrite a file looks damaged: the lock makes a writer wait. Who may not write
// the file can't have it, and looks all the same.
static Look LookAt(const std::string& path) {
  FileLock lock;
  lock.Take(path.c_str(), (path + BACKUP_SUFFIX).c_str());
  Look look{Inspect(path), "", nullptr};
  look.verdict = Verdict(path, look.inspection);
  if (look.inspection.loads) look.device = RecordOf(path);
  return look;
}

namespace {
struct Checked {
  std::string text;
  Fields facts;
  bool isSound = true;
};
}  // namespace

static Checked Check(const std::string& path, const CheckOptions& options) {
  auto [inspection, verdict, device] = LookAt(path);
  Findings& findings = inspection.findings;
  CheckRights(path, findings);
  if (device) CheckKeypairs(device.get(), options, findings);
  std::stable_sort(findings.begin(), findings.end(),
                   [](const Finding& a, const Finding& b) { return a.weight > b.weight; });
  Checked checked{Bold(Printable(path)) + "  " + verdict, {}, true};
  Facts facts;
  Table table;
  for (const Finding& finding : findings) {
    table.rows.push_back({WeightName(finding.weight),
                          (finding.where.empty() ? "" : finding.where + ": ") + finding.what});
    facts.emplace_back(Fields{
        {"weight", WeightName(finding.weight)}, {"where", finding.where}, {"what", finding.what}});
    checked.isSound = checked.isSound && finding.weight == Weight::NOTE;
  }
  if (!findings.empty()) checked.text += "\n" + table.Text("    ");
  checked.facts = {
      {"file", path}, {"loads", inspection.loads}, {"scan", verdict}, {"findings", facts}};
  return checked;
}

static std::vector<std::string> FilesOf(const std::string& folder) {
  char *rawFiles = nullptr, *rawBackups = nullptr;
  unsigned int filesLen = 0, backupsLen = 0;
  if (GetAllCertificateKeyFileName(folder.c_str(), &rawFiles, &filesLen, &rawBackups,
                                   &backupsLen) != 1) {
    FailToOpen(folder);
  }
  const UtilText files(rawFiles), backups(rawBackups);
  std::vector<std::string> paths;
  for (const char* n = rawFiles; n < rawFiles + filesLen; n += strlen(n) + 1) {
    paths.push_back(folder + n);
  }
  for (const char* n = rawBackups; n < rawBackups + backupsLen; n += strlen(n) + 1) {
    const std::string path = folder + n;
    const std::string device = path.substr(0, path.size() - strlen(BACKUP_SUFFIX));
    if (!Exists(device)) paths.push_back(path);
  }
  std::sort(paths.begin(), paths.end());
  return paths;
}

static void CheckAll(const Target& target, const CheckOptions& options) {
  const Module module(target);
  const std::vector<std::string> paths =
      options.files.empty() ? FilesOf(FolderOf(target)) : options.files;
  std::vector<std::string> texts;
  Facts facts;
  bool isSound = true;
  if (options.files.empty()) {
    Findings folder;
    AddExposure(WhoMayMove(FolderOf(target)), folder);
    CheckRights(FolderOf(target), folder);
    for (const Finding& finding : folder) Warn(finding.what + ".");
    isSound = folder.empty();
  }
  for (const std::string& path : paths) {
    if (options.repair) Repair(path);
    const Checked checked = Check(path, options);
    texts.push_back(checked.text);
    facts.emplace_back(checked.facts);
    isSound = isSound && checked.isSound;
  }
  if (texts.empty()) texts.push_back("No files in " + Printable(FolderOf(target)));
  Show(Join(texts, "\n"), Fields{{"sound", isSound}, {"files", facts}});
  if (!isSound) throw Failure("Not everything is sound.");
}

void AddCheckCommand(CLI::App& app, Target& target) {
  const auto options = std::make_shared<CheckOptions>();
  CLI::App& check = AddCommand(
      app, "check", "Say what is wrong with device files, and what a scan would do with them",
      [&target, options] {
        options->withPin = options->withPin || !options->pin.isTerminal();
        CheckAll(target, *options);
      });
  Add(check,
      {.name = "files", .into = &options->files, .help = "Device files [all of the key folder]"});
  Add(check, {.name = "--repair",
              .into = &options->repair,
              .help = "Do what is safe, after a copy, and say what was done"});
  Add(check, {.name = "--with-pin",
              .into = &options->withPin,
              .help = "Ask for the PIN and look at the private keys, too"});
  AddSecretOptions(check, options->pin, "pin", "PIN");
  NoteJson(check,
           "{sound, files: [{file, loads, scan, findings: [{weight, where, what}]}]}; weight is "
           "refused, passed over, weak or note");
}
