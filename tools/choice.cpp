// Finding the one record that fits.
#include "tools/choice.h"

#include "tools/keys.h"

#include <algorithm>

static constexpr size_t FINGERPRINT_MIN = 8;  // digits

bool IsFingerprint(const std::string& text, const std::string& fingerprint) {
  std::string digits = Lower(text);
  if (digits.starts_with("sha256:")) digits = digits.substr(7);
  std::erase(digits, ':');
  return digits.size() >= FINGERPRINT_MIN && fingerprint.starts_with(digits);
}

namespace {
// A name with the kind of name before it, as in "label:Office".
struct Named {
  std::string kind;
  std::string name;
};
}  // namespace

static Named TakeKind(const std::string& text, const std::vector<std::string>& kinds) {
  for (const std::string& kind : kinds) {
    if (text.starts_with(kind + ":")) return {kind, text.substr(kind.size() + 1)};
  }
  return {"", text};
}

namespace {
// One, or all, of what could be meant; each with the words that mean it alone.
template <class Record>
struct Candidates {
  std::string what;  // "device"
  std::vector<Record*> all;
  std::vector<Record*> fitting;
  std::string (*describe)(Record*);
};
}  // namespace

template <class Record>
static std::string Lines(const std::vector<Record*>& records, std::string (*describe)(Record*)) {
  std::vector<std::string> lines;
  lines.reserve(records.size());
  for (Record* record : records) lines.push_back(describe(record));
  std::sort(lines.begin(), lines.end());
  return Join(lines, "; ");
}

template <class Record>
static Record* TheOne(const Candidates<Record>& candidates, const std::string& name,
                      const std::string& none) {
  const auto& [what, all, fitting, describe] = candidates;
  if (fitting.size() == 1) return fitting.front();
  if (all.empty()) throw Failure(EXIT_NOT_FOUND, "There is no " + what + " yet.", none);
  if (fitting.empty()) {
    throw Failure(EXIT_NOT_FOUND,
                  "There is no such " + what + (name.empty() ? "." : ": " + name + "."),
                  "There is: " + Lines(all, describe) + ".");
  }
  throw Failure(EXIT_USAGE, "Several " + what + "s could be meant.",
                "Choose one: " + Lines(fitting, describe) + ".");
}

// --- Devices -------------------------------------------------------------------------------------

static std::string Describe(Device* device) {
  return NameOf(device) + ", --device file:" + FileNameOf(device);
}

static bool IsFileOf(Device* device, const std::string& name) {
  return name == FileNameOf(device) || name == device->filePath;
}

static bool Fits(Device* device, const std::string& kind, const std::string& name) {
  if (kind == "serial") return name == device->serialNumber;
  if (kind == "label") return name == device->label;
  return IsFileOf(device, name);
}

static void FailWithoutDevices(DeviceSet* set) {
  const std::vector<Passed> passed = PassedOver(set);
  if (passed.empty()) return;
  std::vector<std::string> reasons;
  reasons.reserve(passed.size());
  for (const Passed& file : passed) reasons.push_back(file.path + ": " + file.reason);
  throw Failure("No device of the folder could be loaded.", Join(reasons, "; ") + ".");
}

Device* ChooseDevice(DeviceSet* set, const std::string& name) {
  Candidates<Device> candidates{"device", {set->devices, set->devices + set->count}, {}, Describe};
  auto& fitting = candidates.fitting;
  const Named named = TakeKind(name, {"serial", "label", "file"});
  if (candidates.all.empty()) FailWithoutDevices(set);
  if (name.empty()) fitting = candidates.all;
  // A serial number goes before a label that reads the same, and that before a file.
  for (const std::string kind : {"serial", "label", "file"}) {
    if (!named.kind.empty() && named.kind != kind) continue;
    for (Device* device : candidates.all) {
      if (!name.empty() && Fits(device, kind, named.name)) fitting.push_back(device);
    }
    if (!fitting.empty()) break;
  }
  return TheOne(candidates, name,
                "'softdevice create' makes one; 'softdevice list' shows what the folder holds.");
}

// --- Keypairs ------------------------------------------------------------------------------------

static std::string Describe(Keypair* keypair) {
  return std::string(keypair->label) + " of type " + std::to_string(keypair->type) + " (" +
         KindName(keypair) + "), --keypair #" + std::to_string(IndexOf(keypair));
}

static bool Fits(Keypair* keypair, const std::string& kind, const std::string& name) {
  if (kind == "label") return name == keypair->label;
  if (kind == "#") return name == std::to_string(IndexOf(keypair));
  return IsFingerprint(name, FingerprintOf(keypair));
}

Keypair* ChooseKeypair(Device* device, const Target& target) {
  Candidates<Keypair> candidates{"keypair", KeypairsIn(device), {}, Describe};
  std::vector<Keypair*> typed;
  std::copy_if(candidates.all.begin(), candidates.all.end(), std::back_inserter(typed),
               [&](Keypair* k) { return target.type == 0 || target.type == k->type; });
  Named named = TakeKind(target.keypair, {"label", "fingerprint"});
  if (named.kind.empty() && target.keypair.starts_with('#')) {
    named = {"#", target.keypair.substr(1)};
  }
  if (target.keypair.empty()) candidates.fitting = typed;
  // A label goes before a number, and that before a fingerprint.
  for (const std::string kind : {"label", "#", "fingerprint"}) {
    if (target.keypair.empty() || !candidates.fitting.empty()) break;
    if (!named.kind.empty() && named.kind != kind) continue;
    std::copy_if(typed.begin(), typed.end(), std::back_inserter(candidates.fitting),
                 [&](Keypair* k) { return Fits(k, kind, named.name); });
  }
  return TheOne(candidates, target.keypair,
                "'softdevice keygen' and 'softdevice import' make one.");
}
