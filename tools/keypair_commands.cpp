// public-key, relabel, delete-keypair: what is done with a keypair as a whole.
#include "keypair/keypair.h"
#include "tools/change.h"
#include "tools/describe.h"
#include "tools/keys.h"
#include "tools/options.h"
#include "tools/output.h"
#include "tools/session.h"
#include "tools/terminal.h"

#include <string.h>

namespace {
struct KeypairOptions {
  OutputOptions output;
  std::string label;
  bool yes = false;
  bool der = false;
  SecretSource pin;
};
}  // namespace

static void WritePublicKey(const Target& target, const KeypairOptions& options) {
  const OutputFile output(options.output, options.der ? Output::BINARY : Output::TEXT, target, {});
  const KeypairSession session(target);
  const EvpKey key = PublicKeyOf(session.keypair.get());
  if (!key) throw Failure("The public key of the keypair is broken.");
  if (options.der) return output.Write(DerOf(key.get()));
  output.Write(PemOf(key.get()));
}

// --- relabel, delete-keypair ---------------------------------------------------------------------

static void RefuseTaken(const Keypair* keypair, const std::string& label) {
  for (const Keypair* other : KeypairsIn(keypair->device)) {
    if (other == keypair || other->type != keypair->type || label != other->label) continue;
    throw Failure(EXIT_EXISTS, "The device has a keypair " + label + " of type " +
                                   std::to_string(keypair->type) + " already.");
  }
}

static void Relabel(const Target& target, const KeypairOptions& options) {
  KeypairSession session(target);
  Keypair* keypair = session.keypair.get();
  const std::string before = NameOf(keypair);
  RefuseTaken(keypair, options.label);
  Unlock(session, options.pin);
  Fields facts;
  ChangeDevice(session, "relabel keypair " + before, [&](const DeviceChange& change) {
    Keypair* stored = SameKeypairIn(change.device, session.keypair.get());
    memcpy(stored->label, options.label.c_str(), options.label.size() + 1);
    facts = FactsOf(stored);
  });
  Confirm("Keypair " + before + " is now called " + options.label + ".", facts);
}

static std::string WhatGoes(Device* device, Keypair* keypair) {
  const int certs = DeviceGetCertificateCount(keypair);
  return "Keypair " + NameOf(keypair) + " (" + KindName(keypair) + ") of device " + NameOf(device) +
         (certs > 0 ? " and its " + Count(static_cast<size_t>(certs), "certificate") : "") +
         " will be gone for good.";
}

static void RequireLabel(Device* device, Keypair* keypair, bool yes) {
  if (yes) return;
  const SecretText answer = Ask(WhatGoes(device, keypair) + " Type its label to go on: ", false,
                                "--yes goes on without asking.");
  if (strcmp(answer.data(), keypair->label) != 0) throw Failure("Nothing was deleted.");
}

// What was not named when it was asked for is not deleted with the keypair.
static void RequireSameCertificates(Keypair* shown, Keypair* stored) {
  const int count = DeviceGetCertificateCount(shown);
  bool same = DeviceGetCertificateCount(stored) == count;
  for (int i = 0; same && i < count; i++)
    same = CertificateAt(shown, i) == CertificateAt(stored, i);
  if (same) return;
  throw Failure("The certificates of keypair " + NameOf(shown) +
                " have been changed meanwhile; nothing was deleted.");
}

// A keypair that does not open keeps the whole device shut; it can be deleted by the PIN that opens
// another.
static void Delete(const Target& target, const KeypairOptions& options) {
  KeypairSession session(target);
  const SecretText pin = ReadSecret(options.pin, "PIN of device " + NameOf(session.device.get()));
  session.Reload();
  ProvePin(session.device.get(), pin);
  RequireLabel(session.device.get(), session.keypair.get(), options.yes);
  Keypair* keypair = session.keypair.get();
  const std::string name = NameOf(keypair);
  const Fields facts = FactsOf(keypair);
  bool isLast = false;
  ChangeDevice(session, "delete keypair " + name, [&](const DeviceChange& change) {
    ProvePin(change.device, pin);
    RequireSameCertificates(keypair, SameKeypairIn(change.device, keypair));
    while (Keypair* stored = FindKeypair(change.device, keypair)) {
      const OwnedKeypair deleted(stored);
      DeleteKeypairFromDevice(change.device, stored);
    }
    isLast = change.device->keypairCount == 0;
  });
  Confirm("Deleted keypair " + name + " from device " + NameOf(session.device.get()) + ".", facts);
  if (isLast) {
    Remark(
        "It was the last: the device has no PIN any more, and takes a new one with its next "
        "keypair.");
  }
}

// --- Options -------------------------------------------------------------------------------------

static const char* const KEYPAIR_JSON = "{index, label, type, algorithm, bits, fingerprint}";

void AddKeypairCommands(CLI::App& app, Target& target) {
  const auto options = std::make_shared<KeypairOptions>();

  CLI::App& publicKey = AddCommand(app, "public-key", "Write a public key as PEM; needs no PIN",
                                   [&target, options] { WritePublicKey(target, *options); });
  AddOutputOptions(publicKey, options->output, "File to write");
  Add(publicKey, {.name = "--der", .into = &options->der, .help = "Write DER instead"});
  AddKeypairOptions(publicKey, target);

  CLI::App& relabel = AddCommand(app, "relabel", "Give a keypair another label",
                                 [&target, options] { Relabel(target, *options); });
  AddNewLabel(relabel, options->label);
  AddKeypairOptions(relabel, target);
  AddSecretOptions(relabel, options->pin, "pin", "PIN");
  NoteJson(relabel, KEYPAIR_JSON);

  CLI::App& remove = AddCommand(app, "delete-keypair", "Delete a keypair for good",
                                [&target, options] { Delete(target, *options); });
  AddYesOption(remove, options->yes);
  AddKeypairOptions(remove, target);
  AddSecretOptions(remove, options->pin, "pin", "PIN");
  NoteJson(remove, KEYPAIR_JSON);
}
