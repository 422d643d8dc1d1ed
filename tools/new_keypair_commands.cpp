// keygen, import: new keypairs.
#include "keypair/keypair.h"
#include "sm2/sm2.h"
#include "tools/certificates.h"
#include "tools/change.h"
#include "tools/describe.h"
#include "tools/key_files.h"
#include "tools/options.h"
#include "tools/output.h"
#include "tools/progress.h"
#include "tools/session.h"

#include <limits.h>
#include <string.h>
#include <algorithm>

namespace {
struct NewKeypairOptions {
  std::string algorithm;
  std::string file;
  std::string label;
  unsigned int type = 1;
  bool newPin = false;
  SecretSource pin;
  SecretSource passphrase;
};
}  // namespace

namespace {
struct Algorithm {
  const char* name;
  unsigned int algorithm;
  int bits;
  int curve;
};
}  // namespace

// The module knows four curves more, but can't open a stored keypair on them again. The weak one
// stands last: a slip is taken for one of the others.
static constexpr Algorithm ALGORITHMS[] = {
    {"rsa-2048", ALGORITHM_RSA, 2048, 0},   {"rsa-3072", ALGORITHM_RSA, 3072, 0},
    {"rsa-4096", ALGORITHM_RSA, 4096, 0},   {"p-256", ALGORITHM_ECC, 256, CURVE_P256},
    {"sm2", ALGORITHM_ECC, 256, CURVE_SM2}, {"rsa-1024", ALGORITHM_RSA, 1024, 0}};

static std::vector<std::string> AlgorithmNames() {
  std::vector<std::string> names;
  for (const Algorithm& a : ALGORITHMS) names.push_back(a.name);
  return names;
}

static std::string WithoutHyphens(std::string name) {
  std::erase(name, '-');
  return Lower(name);
}

// FindAlgorithm takes "RSA2048", too.
static const Algorithm* FindAlgorithm(const std::string& name) {
  for (const Algorithm& a : ALGORITHMS) {
    if (WithoutHyphens(name) == WithoutHyphens(a.name)) return &a;
  }
  return nullptr;
}

static std::string CheckAlgorithm(const std::string& name) {
  if (FindAlgorithm(name) != nullptr) return "";
  const std::string meant = Nearest(name, AlgorithmNames());
  return name + " is none of " + Join(AlgorithmNames()) +
         (meant.empty() ? "" : "; did you mean " + meant + "?");
}

// What a new keypair may meet is looked at before the PIN is asked for and a key made.
static void RequireRoom(Device* device, const NewKeypairOptions& options) {
  if (device->keypairCount >= device->maxKeypairs) {
    throw Failure("Device " + NameOf(device) + " is full: it holds " +
                      std::to_string(device->maxKeypairs) + " keypairs, the most that fit.",
                  "'softdevice delete-keypair' makes room.");
  }
  for (Keypair* keypair : KeypairsIn(device)) {
    if (keypair->type != options.type || options.label != keypair->label) continue;
    throw Failure(EXIT_EXISTS,
                  "Device " + NameOf(device) + " has a keypair " + options.label + " of type " +
                      std::to_string(options.type) + " already.",
                  "Choose another --label or --type.");
  }
}

static void RemarkWeak(int bits, bool rsa) {
  if (rsa && bits < RSA_WEAK_BITS) {
    Remark("RSA-" + std::to_string(bits) +
           " is weak; 2048 bits are the least that is "
           "recommended.");
  }
}

static void Generate(const Target& target, NewKeypairOptions options) {
  const Algorithm& algorithm = *FindAlgorithm(options.algorithm);
  if (options.label.empty()) options.label = algorithm.name;
  Session session(target);
  RequireRoom(session.device.get(), options);
  if (algorithm.curve == CURVE_SM2 && g_sm2 == nullptr) {
    throw Failure("The module started without SM2: its crypto library has no SM2 curve.");
  }
  RemarkWeak(algorithm.bits, algorithm.curve == 0);
  UnlockForFirst(session, options.pin, options.newPin);
  Device* device = session.device.get();
  RequireRoom(device, options);
  const ECCKeypairParams ecc = {.curve = algorithm.curve, .temporary = 0};
  Keypair* raw = nullptr;
  int result = VAKRO_FAILED;
  {
    const Progress progress("Making the " + std::string(algorithm.name) + " key");
    result = DeviceGenerateKeypair(device, algorithm.algorithm, algorithm.bits,
                                   algorithm.curve != 0 ? &ecc : nullptr, options.type,
                                   options.label.c_str(), &raw);
  }
  RequireChange(device, result, "store keypair " + options.label);
  const KeypairHandle keypair(raw);
  Confirm("Made " + KindName(raw) + " keypair " + options.label + ", type " +
              std::to_string(options.type) + ".",
          FactsOf(raw));
}

// The keypair's own certificate goes first, the others keep their order.
static void SortCertificates(std::vector<Certificate>& certs, EVP_PKEY* key) {
  const auto isOwn = [key](const Certificate& cert) {
    return EVP_PKEY_eq(X509_get0_pubkey(cert.get()), key) == 1;
  };
  std::stable_partition(certs.begin(), certs.end(), isOwn);
  if (certs.empty() || isOwn(certs.front())) return;
  Remark("None of the file's certificates is of this key; they are stored all the same.");
}

// PutIn puts a keypair behind those of a record that is verified and has room.
static Keypair* PutIn(Device* device, const Secret& encoding, const NewKeypairOptions& options) {
  OwnedKeypair keypair(
      DecodeKeypair(encoding.data(), static_cast<int>(encoding.size()), options.type));
  if (!keypair) throw Failure("The module does not take this key.");
  memcpy(keypair->label, options.label.c_str(), options.label.size() + 1);
  if (AppendKeypair(device, keypair.release()) != VAKRO_OK) {
    throw Failure("The private key could not be encrypted: out of memory?");
  }
  return device->keypairs[device->keypairCount - 1];
}

static void Import(const Target& target, const NewKeypairOptions& options) {
  ProtectInput(options.file);
  KeyFile file = ReadKeyFile(options.file, options.passphrase);
  const Secret encoding = KeypairEncoding(RequirePrivateKey(file, options.file));
  EVP_PKEY* key = file.privateKey.get();
  SortCertificates(file.certs, key);
  if (file.certs.size() > MAX_CERTS) {
    throw Failure("The file holds " + std::to_string(file.certs.size()) +
                      " certificates; a keypair holds 10.",
                  "Take some of them out of the file.");
  }
  RemarkWeak(EVP_PKEY_get_bits(key), EVP_PKEY_get_base_id(key) == EVP_PKEY_RSA);
  Session session(target);
  RequireRoom(session.device.get(), options);
  UnlockForFirst(session, options.pin, options.newPin);
  std::string kind;
  Fields facts;
  ChangeDevice(session, "store keypair " + options.label, [&](const DeviceChange& change) {
    RequireRoom(change.device, options);
    Keypair* keypair = PutIn(change.device, encoding, options);
    for (const Certificate& cert : file.certs) AppendCertificate(keypair, ToDer(cert.get()));
    kind = KindName(keypair);
    facts = FactsOf(keypair);
    facts.emplace_back("certificates", DeviceGetCertificateCount(keypair));
  });
  const std::string with =
      file.certs.empty() ? "" : ", with " + Count(file.certs.size(), "certificate");
  Confirm("Imported " + kind + " keypair " + options.label + ", type " +
              std::to_string(options.type) + with + ".",
          facts);
}

// --- Options -------------------------------------------------------------------------------------

static void AddNewKeypairOptions(CLI::App& command, Target& target, NewKeypairOptions& options) {
  Add(command, {.name = "--type",
                .into = &options.type,
                .help = "Any number from 1, its meaning yours; type and label name a keypair",
                .value = "N",
                .showsDefault = true,
                .range = {1, INT_MAX}});
  Add(command, {.name = "--new-pin",
                .into = &options.newPin,
                .help = "The PIN is a new one, for a device that was made without"});
  AddDeviceOptions(command, target);
  AddSecretOptions(command, options.pin, "pin", "PIN");
}

void AddNewKeypairCommands(CLI::App& app, Target& target) {
  const auto options = std::make_shared<NewKeypairOptions>();

  CLI::App& keygen = AddCommand(app, "keygen", "Make a keypair",
                                [&target, options] { Generate(target, *options); });
  Add(keygen, {.name = "algorithm",
               .into = &options->algorithm,
               .help = "One of " + Join(AlgorithmNames()),
               .isRequired = true,
               .check = CheckAlgorithm});
  AddNewKeypairOptions(keygen, target, *options);
  AddLabelOption(keygen, options->label, "Label of the keypair [the algorithm's name]", false);
  NoteJson(keygen, "{index, label, type, algorithm, bits, fingerprint}");

  CLI::App& importing =
      AddCommand(app, "import", "Store a private key, and its certificates, from a file",
                 [&target, options] { Import(target, *options); });
  AddNote(importing,
          "Takes RSA, P-256 and SM2 keys, PEM or DER: PKCS#8 (also encrypted), PKCS#1, SEC1, "
          "PKCS#12.");
  AddArgument(importing, "file", &options->file, "Key file; - is standard input");
  AddNewKeypairOptions(importing, target, *options);
  AddLabelOption(importing, options->label, "Label of the keypair", true);
  AddSecretOptions(importing, options->passphrase, "passphrase", "passphrase of the key file");
  NoteJson(importing, "as 'keygen', and certificates");
}
