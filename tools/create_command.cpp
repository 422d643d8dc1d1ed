// create: a new device, with its PIN.
#include "device/change.h"
#include "device/create.h"
#include "tools/files.h"
#include "tools/options.h"
#include "tools/rights.h"
#include "tools/session.h"

#include <errno.h>

namespace {
struct CreateOptions {
  std::string label;
  std::string serialNumber;
  bool withoutPin = false;
  SecretSource pin;
};
}  // namespace

// What can be refused is refused before the PIN is asked for.
static void RefuseTaken(const Target& target, const CreateOptions& options) {
  const std::string folder = FolderOf(target);
  if (access(folder.c_str(), F_OK) != 0) return RefuseMovable(folder, false);
  const Folder open(target);
  const DeviceSet* set = open.devices.get();
  if (set->count == MAX_DEVICES) {
    throw Failure("The folder " + folder + " holds 64 devices already, the most that are loaded.",
                  "Use another --folder.");
  }
  for (int i = 0; i < set->count; i++) {
    if (options.serialNumber != set->devices[i]->serialNumber) continue;
    throw Failure(EXIT_EXISTS, "A device with serial number " + options.serialNumber +
                                   " exists already: " + set->devices[i]->filePath + ".");
  }
}

static SecretText PinFor(const CreateOptions& options) {
  if (options.withoutPin) return {};
  return ReadNewPin(options.pin, "New PIN for device " + options.label);
}

// A name that is taken without a device of that number behind it is said to be just that: what lies
// there may be a device that is damaged, and its only copy.
static void RequireCreated(const Target& target, int result, const std::string& path) {
  switch (result) {
    case VAKRO_OK:
      return NoteChange("the device " + path + " is made");
    case VAKRO_ALREADY_EXISTS:
      throw Failure(EXIT_EXISTS, path + ", or its backup, exists already.",
                    "'softdevice check' looks at it; choose another serial number.");
    case NO_ROOM:
      throw Failure("The folder " + FolderOf(target) + " holds 64 devices already.",
                    "Use another --folder.");
    case VAKRO_NOT_SUPPORTED:
      throw Failure("The crypto library has no SM2, which holds the PIN of a new device.",
                    "--without-pin makes a device that takes its PIN with its first keypair.");
    default:
      throw Failure(
          "Can't make the device in the folder " + FolderOf(target) + ": " + SystemError() + ".",
          "--folder DIR works in a folder of your own.");
  }
}

static void Create(const Target& target, const CreateOptions& options) {
  RefuseTaken(target, options);
  const SecretText pin = PinFor(options);
  const Module module(target);
  char* raw = nullptr;
  errno = 0;
  const int result =
      CreateDevice(options.serialNumber.empty() ? nullptr : options.serialNumber.c_str(),
                   options.label.c_str(), options.withoutPin ? nullptr : pin.data(), &raw);
  const int cause = errno;
  const UtilText path(raw);
  errno = cause;
  RequireCreated(target, result, raw == nullptr ? "" : raw);
  Device* made = nullptr;
  const OwnedDevice device(LoadDevice(raw, &made) == 1 ? made : nullptr);
  const std::string serial = device ? device->serialNumber : options.serialNumber;
  Confirm("Created device " + options.label + ", serial number " + serial + ", in " + raw +
              (options.withoutPin ? ". It has no PIN yet: the first keypair sets it."
                                  : ". Its PIN is set."),
          Fields{{"serial", serial},
                 {"label", options.label},
                 {"file", raw},
                 {"has_pin", !options.withoutPin}});
}

void AddCreateCommand(CLI::App& app, Target& target) {
  const auto options = std::make_shared<CreateOptions>();
  CLI::App& create = AddCommand(app, "create", "Make a device and set its PIN",
                                [&target, options] { Create(target, *options); });
  AddLabelOption(create, options->label, "Label of the device", true);
  Add(create, {.name = "--serial",
               .into = &options->serialNumber,
               .help = "Serial number; the file is named after it [16 random digits]",
               .value = "NUMBER",
               .check = RefuseBadName});
  AddSecretOptions(create, options->pin, "pin", "new PIN");
  Add(create, {.name = "--without-pin",
               .into = &options->withoutPin,
               .help = "Leave the PIN to be set with the first keypair",
               .excludes = {"--pin-file", "--pin-env", "--pin-fd"}});
  NoteJson(create, "{serial, label, file, has_pin}");
}
