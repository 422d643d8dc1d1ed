// keygen, importing, public-key, delete-keypair.
#include "tools/certificates.h"
#include "tools/data_list.h"
#include "tools/key_files.h"
#include "tools/session.h"

#include <CLI/CLI.hpp>

#include <stdio.h>

struct KeypairOptions {
  std::string algorithm;
  std::string file;
  std::string output = "-";
  std::string label;
  unsigned int type = 1;
  bool yes = false;
  SecretSource pin;
  SecretSource passphrase;
};

struct Algorithm {
  const char* name;
  unsigned int algorithm;
  int bits;
  int curve;
};

// The module knows four curves more, but can't open a stored keypair on them again.
static constexpr Algorithm ALGORITHMS[] = {{"rsa-1024", ALGORITHM_RSA, 1024, 0},
                                           {"rsa-2048", ALGORITHM_RSA, 2048, 0},
                                           {"rsa-4096", ALGORITHM_RSA, 4096, 0},
                                           {"p-256", ALGORITHM_ECC, 256, CURVE_P256},
                                           {"sm2", ALGORITHM_ECC, 256, CURVE_SM2}};

static std::string AlgorithmNames() {
  std::string names;
  for (const Algorithm& a : ALGORITHMS) names += (names.empty() ? "" : ", ") + std::string(a.name);
  return names;
}

static const Algorithm* FindAlgorithm(const std::string& name) {
  for (const Algorithm& a : ALGORITHMS) {
    if (name == a.name) return &a;
  }
  return nullptr;
}

static std::string CheckAlgorithm(const std::string& name) {
  return FindAlgorithm(name) != nullptr ? "" : name + " is none of " + AlgorithmNames();
}

static void Generate(const Target& target, KeypairOptions options) {
  const Algorithm& algorithm = *FindAlgorithm(options.algorithm);
  if (options.label.empty()) options.label = options.algorithm;
  const Session session(target);
  if (algorithm.curve == CURVE_SM2 && g_sm2 == nullptr) {
    throw Failure("The module started without SM2: its crypto library has no SM2 curve.");
  }
  Unlock(session.device.get(), options.pin);
  const ECCKeypairParams ecc = {.curve = algorithm.curve, .temporary = 0};
  Keypair* raw = nullptr;
  RequireChange(DeviceGenerateKeypair(session.device.get(), algorithm.algorithm, algorithm.bits,
                                      algorithm.curve != 0 ? &ecc : nullptr, options.type,
                                      options.label.c_str(), &raw),
                "make keypair " + options.label + " of type " + std::to_string(options.type));
  const KeypairHandle keypair(raw);
  printf("Made %s keypair %s, type %u.\n", KindName(raw).c_str(), options.label.c_str(),
         options.type);
}

// The keypair's own certificate goes first, the others keep their order.
static int AddCertificates(Keypair* keypair, std::vector<Certificate>& certs, EVP_PKEY* key) {
  std::stable_partition(certs.begin(), certs.end(), [key](const Certificate& cert) {
    return X509_check_private_key(cert.get(), key) == 1;
  });
  int added = 0;
  for (const Certificate& cert : certs) {
    const Bytes der = ToDer(cert.get());
    if (DeviceAddCertificate(keypair, der.data(), static_cast<int>(der.size())) != VAKRO_OK) break;
    added++;
  }
  return added;
}

static void Import(const Target& target, const KeypairOptions& options) {
  KeyFile file = ReadKeyFile(options.file, options.passphrase);
  if (!file.privateKey) {
    throw Failure(options.file + " holds no private key that can be read.",
                  "PEM and DER are read: PKCS#8, PKCS#1, SEC1 and PKCS#12.");
  }
  const Secret encoding = KeypairEncoding(file.privateKey.get());
  const Session session(target);
  Unlock(session.device.get(), options.pin);
  Keypair* raw = nullptr;
  RequireChange(
      DeviceImportKeypair(session.device.get(), encoding.data(), static_cast<int>(encoding.size()),
                          options.type, options.label.c_str(), &raw),
      "store keypair " + options.label + " of type " + std::to_string(options.type));
  const KeypairHandle keypair(raw);
  printf("Imported %s keypair %s, type %u.\n", KindName(raw).c_str(), options.label.c_str(),
         options.type);
  if (file.certs.empty()) return;
  const int count = static_cast<int>(file.certs.size());
  const int added = AddCertificates(raw, file.certs, file.privateKey.get());
  printf("Added %d of the file's %d certificates.\n", added, count);
  if (added < count) throw Failure("Not all certificates could be stored; a keypair holds 10.");
}

static void WritePublicKey(const Target& target, const KeypairOptions& options) {
  const KeypairSession session(target);
  WriteText(options.output, PemOf(PublicPartOf(session.keypair.get()).key.get()));
}

static void RequireNoDataList(Device* device) {
  const int objects = StoredObjects(device);
  if (objects == -1) return;
  if (objects == -2) {
    throw Failure("The device file can't be read, or its list of data objects is damaged.");
  }
  const std::string why =
      "A device file with a list of data objects, even an empty one, does not let "
      "a keypair go.";
  if (objects == 0) throw Failure(why, "The list is empty: 'softdevice data tidy' drops it.");
  throw Failure(why, "Device " + LabelOf(device) + " holds " + std::to_string(objects) +
                         " data object(s): delete them with 'softdevice data delete', then run "
                         "'softdevice data tidy'.");
}

static void Delete(const Target& target, const KeypairOptions& options) {
  const KeypairSession session(target);
  Device* device = session.device();
  const std::string label = LabelOf(session.keypair.get());
  RequireNoDataList(device);
  Unlock(device, options.pin);
  const std::string question =
      "Keypair " + label + " will be gone for good. Type its label to go on: ";
  if (!options.yes && AskOnTerminal(question, "--yes goes on without asking.") != label) {
    throw Failure("Nothing was deleted.");
  }
  RequireChange(DeviceDeleteKeypair(session.keypair.get()), "delete keypair " + label);
  printf("Deleted keypair %s from device %s.\n", label.c_str(), LabelOf(device).c_str());
}

static std::string RefuseBadLabel(const std::string& label) {
  if (label.empty() || label.size() >= NAME_SIZE) return "must have 1 to 63 bytes";
  return Printable(label) == label ? "" : "must not hold control characters";
}

static CLI::Option* AddNewKeypairOptions(CLI::App* command, KeypairOptions& options) {
  command
      ->add_option("--type", options.type,
                   "Any number from 1, its meaning yours; type and label name a keypair")
      ->capture_default_str()
      ->type_name("N")
      ->check(CLI::Range(1u, 2147483647u).description(""));
  AddSecretOptions(*command, options.pin, "pin", "PIN");
  return command->add_option("--label", options.label, "Label of the keypair")
      ->type_name("LABEL")
      ->check(RefuseBadLabel);
}

void AddKeypairCommands(CLI::App& app, Target& target) {
  const auto options = std::make_shared<KeypairOptions>();

  CLI::App* keygen = app.add_subcommand("keygen", "Make a keypair");
  keygen->footer("The PIN given with the first keypair of a device becomes the device's PIN.");
  keygen->add_option("algorithm", options->algorithm, "One of " + AlgorithmNames())
      ->required()
      ->check(CheckAlgorithm);
  AddNewKeypairOptions(keygen, *options)
      ->description("Label of the keypair [the algorithm's name]");
  AddDeviceOptions(*keygen, target);
  keygen->callback([&target, options] { Generate(target, *options); });

  CLI::App* importing =
      app.add_subcommand("import", "Store a private key, and its certificates, from a file");
  importing->footer(
      "Takes RSA, P-256 and SM2 keys, PEM or DER: PKCS#8 (also encrypted), PKCS#1, SEC1, PKCS#12.\n"
      "The PIN given with the first keypair of a device becomes the device's PIN.");
  importing->add_option("file", options->file, "Key file; - is standard input")->required();
  AddNewKeypairOptions(importing, *options)->required();
  AddDeviceOptions(*importing, target);
  AddSecretOptions(*importing, options->passphrase, "passphrase", "passphrase of the key file");
  importing->callback([&target, options] { Import(target, *options); });

  CLI::App* publicKey = app.add_subcommand("public-key", "Write a public key as PEM; needs no PIN");
  publicKey->add_option("-o,--output", options->output, "File to write [standard output]")
      ->type_name("FILE");
  AddKeypairOptions(*publicKey, target);
  publicKey->callback([&target, options] { WritePublicKey(target, *options); });

  CLI::App* remove = app.add_subcommand("delete-keypair", "Delete a keypair for good");
  remove->add_flag("--yes", options->yes, "Do not ask whether it is meant");
  AddKeypairOptions(*remove, target);
  AddSecretOptions(*remove, options->pin, "pin", "PIN");
  remove->callback([&target, options] { Delete(target, *options); });
}
