// list, show, rename-device: the commands about whole devices.
#include "device/anchor.h"
#include "tools/change.h"
#include "tools/data_objects.h"
#include "tools/describe.h"
#include "tools/inspection.h"
#include "tools/keys.h"
#include "tools/options.h"
#include "tools/rights.h"
#include "tools/session.h"

#include <string.h>
#include <algorithm>
#include <optional>

// --- list ----------------------------------------------------------------------------------------

static std::vector<Device*> Sorted(DeviceSet* set) {
  std::vector<Device*> devices(set->devices, set->devices + set->count);
  const auto key = [](Device* d) {
    return std::make_tuple(std::string(d->label), std::string(d->serialNumber), FileNameOf(d));
  };
  std::sort(devices.begin(), devices.end(), [&](Device* a, Device* b) { return key(a) < key(b); });
  return devices;
}

namespace {
struct Described {
  KeypairHandle keypair;
  KeyTraits traits;
};
}  // namespace

static std::vector<Described> KeypairsOf(Device* device) {
  std::vector<Described> keypairs;
  for (int i = 0; i < DeviceGetKeypairCount(device); i++) {
    KeypairHandle keypair(DeviceGetKeypair(device, i));
    if (!keypair) throw std::bad_alloc();
    if (IsAnchor(keypair.get()) == 1) continue;
    KeyTraits traits = TraitsOf(keypair.get());
    keypairs.push_back({std::move(keypair), std::move(traits)});
  }
  return keypairs;
}

static std::string NoKeypairs(Device* device) {
  return device->keypairCount > 0 ? "    no keypairs yet" : "    no keypairs yet, and no PIN";
}

static std::string Heading(Device* device) {
  return Bold(Printable(device->label)) + "  serial number " + Printable(device->serialNumber) +
         ", file " + Printable(device->filePath);
}

static std::vector<std::string> Row(const Described& described) {
  Keypair* keypair = described.keypair.get();
  const int certs = DeviceGetCertificateCount(keypair);
  return {"#" + std::to_string(IndexOf(keypair)),
          keypair->label,
          "type " + std::to_string(keypair->type),
          described.traits.kind,
          ShortFingerprint(described.traits.fingerprint),
          certs > 0 ? Count(static_cast<size_t>(certs), "certificate") : ""};
}

// A keypair as list and show have it for programs; what they say of its certificates differs.
static Fields FactsOf(const Described& described, Fact certificates) {
  Fields fields = FactsOf(described.keypair.get(), described.traits);
  const std::string& problem = described.traits.problem;
  fields.emplace_back("problem", problem.empty() ? Fact(nullptr) : Fact(problem));
  fields.emplace_back("certificates", std::move(certificates));
  return fields;
}

namespace {
// What one device has, for people and for programs.
struct Listing {
  std::string text;
  Fields facts;
  bool isWhole = true;

  void AddAlarm(const std::string& what) {
    text += "\n    " + Alarming(Printable(what));
    isWhole = false;
  }
};
}  // namespace

// AddProblems adds what of the device can't be used, and what is not even loaded.
static void AddProblems(Device* device, const std::vector<Described>& keypairs, Listing& listing) {
  for (const auto& [keypair, traits] : keypairs) {
    if (traits.problem.empty()) continue;
    listing.AddAlarm("#" + std::to_string(IndexOf(keypair.get())) +
                     " can't be used: " + traits.problem);
  }
  Facts facts;
  for (const Finding& finding : PassedOverKeypairs(device->filePath)) {
    listing.AddAlarm(finding.where + " is passed over: " + finding.what);
    facts.emplace_back(Fields{{"where", finding.where}, {"reason", finding.what}});
  }
  listing.facts.emplace_back("passed_over", facts);
}

// The device's data objects. A list that can't be read is told, and does not hide the rest.
static std::optional<std::vector<DataObject>> ObjectsOf(Device* device, Listing& listing) {
  try {
    return DataObjects(device);
  } catch (const Failure& failure) {
    listing.AddAlarm(failure.what());
    listing.facts.emplace_back("data_objects", nullptr);
    return std::nullopt;
  }
}

static Listing ListDevice(Device* device) {
  RefuseOpen(device->filePath, true);
  Listing listing{Heading(device), FactsOf(device), true};
  const std::vector<Described> keypairs = KeypairsOf(device);
  Table table;
  Facts facts;
  for (const Described& described : keypairs) {
    table.rows.push_back(Row(described));
    facts.emplace_back(FactsOf(described, DeviceGetCertificateCount(described.keypair.get())));
  }
  listing.text += "\n" + (keypairs.empty() ? NoKeypairs(device) : table.Text("    "));
  listing.facts.emplace_back("keypairs", facts);
  if (const auto objects = ObjectsOf(device, listing)) {
    if (!objects->empty()) listing.text += "\n    " + Count(objects->size(), "data object");
    listing.facts.emplace_back("data_objects", objects->size());
  }
  AddProblems(device, keypairs, listing);
  return listing;
}

static void List(const Target& target) {
  const Folder folder(target, true);
  std::vector<std::string> texts;
  Facts devices, files;
  bool isWhole = true;
  for (Device* device : Sorted(folder.devices.get())) {
    const Listing listing = ListDevice(device);
    texts.push_back(listing.text);
    devices.emplace_back(listing.facts);
    isWhole = isWhole && listing.isWhole;
  }
  const std::vector<Passed> passed = PassedOver(folder.devices.get());
  for (const Passed& file : passed) {
    files.emplace_back(Fields{{"file", file.path}, {"reason", file.reason}});
  }
  if (texts.empty()) texts.push_back("No devices in " + Printable(FolderOf(target)));
  Show(Join(texts, "\n"),
       Fields{{"folder", FolderOf(target)}, {"devices", devices}, {"passed_over", files}});
  for (const Passed& file : passed) Warn("passed over " + file.path + ": " + file.reason + ".");
  if (passed.empty() && isWhole) return;
  throw Failure("Not everything can be used.", "'softdevice check' looks closer.");
}

// --- show ----------------------------------------------------------------------------------------

static std::string CertificateText(Keypair* keypair, int index) {
  const Bytes der = CertificateAt(keypair, index);
  const Certificate cert = CertificateFrom(der);
  const std::string number = "        certificate " + std::to_string(index + 1) + "  ";
  if (!cert) return number + "no X.509 certificate, " + Count(der.size(), "byte");
  return number + Printable(NameText(X509_get_subject_name(cert.get()))) + "; " +
         ExpiryText(cert.get()) + "; " + ShortFingerprint(FingerprintOf(der));
}

static std::string KeypairText(const Described& described) {
  Keypair* keypair = described.keypair.get();
  const auto& [kind, fingerprint, problem] = described.traits;
  std::string text = "    #" + std::to_string(IndexOf(keypair)) + "  " +
                     Bold(Printable(keypair->label)) + "  type " + std::to_string(keypair->type) +
                     ", " + kind + "\n        fingerprint    " +
                     (fingerprint.empty() ? "none: the public key is broken" : fingerprint);
  for (int i = 0; i < DeviceGetCertificateCount(keypair); i++) {
    text += "\n" + CertificateText(keypair, i);
  }
  return text;
}

static void ShowDevice(const Target& target) {
  const Session session(target, true);
  Device* device = session.device.get();
  Listing listing{Heading(device), FactsOf(device), true};
  const std::vector<Described> keypairs = KeypairsOf(device);
  Facts facts, objects;
  for (const Described& described : keypairs) {
    listing.text += "\n" + KeypairText(described);
    facts.emplace_back(FactsOf(described, CertificatesOf(described.keypair.get())));
  }
  if (keypairs.empty()) listing.text += "\n" + NoKeypairs(device);
  listing.facts.emplace_back("keypairs", facts);
  if (const auto all = ObjectsOf(device, listing)) {
    for (const DataObject& object : *all) {
      listing.text += "\n    data object " + std::to_string(object.id) + ", " +
                      Count(static_cast<size_t>(object.length), "byte");
      objects.emplace_back(Fields{{"id", object.id}, {"bytes", object.length}});
    }
    listing.facts.emplace_back("data_objects", objects);
  }
  AddProblems(device, keypairs, listing);
  Show(listing.text, listing.facts);
}

// --- rename-device -----------------------------------------------------------------------

static void Rename(const Target& target, const std::string& label, const SecretSource& pin) {
  Session session(target);
  const std::string before = NameOf(session.device.get());
  if (session.device->keypairCount > 0) Unlock(session, pin);
  ChangeDevice(session, "rename the device", [&](const DeviceChange& change) {
    if (session.device->keypairCount == 0 && change.device->keypairCount > 0) {
      throw Failure("Device " + before + " has been given a PIN meanwhile; nothing was done.");
    }
    memcpy(change.device->label, label.c_str(), label.size() + 1);
  });
  Confirm("Device " + before + " is now called " + label + ".",
          Fields{{"serial", session.device->serialNumber}, {"label", label}});
}

void AddDeviceCommands(CLI::App& app, Target& target) {
  CLI::App& list = AddCommand(app, "list", "Show devices and keypairs; needs no PIN",
                              [&target] { List(target); });
  NoteJson(
      list,
      "{folder, devices: [{serial, label, file, has_pin, keypairs: [{index, label, type, "
      "algorithm, bits, fingerprint, problem, certificates}], data_objects, passed_over: [{where, "
      "reason}]}], passed_over: [{file, reason}]}");

  CLI::App& show = AddCommand(app, "show", "Show all of a device; needs no PIN",
                              [&target] { ShowDevice(target); });
  AddDeviceOptions(show, target);
  NoteJson(show,
           "as one device of 'list', but certificates: [{index, fingerprint, bytes, subject, "
           "issuer, serial, not_before, not_after, days_left, own_key}] and data_objects: [{id, "
           "bytes}]");

  const auto label = std::make_shared<std::string>();
  const auto pin = std::make_shared<SecretSource>();
  CLI::App& rename = AddCommand(app, "rename-device", "Give a device another label",
                                [&target, label, pin] { Rename(target, *label, *pin); });
  AddNewLabel(rename, *label);
  AddDeviceOptions(rename, target);
  AddSecretOptions(rename, *pin, "pin", "PIN");
  NoteJson(rename, "{serial, label}");
}
