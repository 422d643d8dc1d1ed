// pin change, pin verify.
#include "device/device.h"
#include "store/store.h"
#include "tools/change.h"
#include "tools/inspection.h"
#include "tools/options.h"
#include "tools/repair.h"
#include "tools/session.h"

#include <errno.h>

namespace {
struct PinOptions {
  bool force = false;
  SecretSource pin;
  SecretSource newPin;
};
}  // namespace

// A change writes all keypairs anew: one that the reader passes over would be lost.
// Returns whether something is to be given up.
static bool RefuseLoss(Device* device, bool force) {
  const Findings passed = PassedOverKeypairs(device->filePath);
  if (passed.empty()) return false;
  const std::string what =
      "The change loses " + passed.front().where + ", which can't be read: " + passed.front().what;
  if (!force) throw Failure(what + ".", "--force does it, after a copy of the device file.");
  Warn(what + "; the file as it was is kept as " + KeepCopy(device->filePath) + ".");
  return true;
}

// The library's call gives up no keypair.
static int WriteAllAnew(Device* device, const char* pin) {
  const ModuleLock lock;
  return lock.held && ChangePin(device, pin) == VAKRO_OK && UpdateDeviceDataToFile(device) == 1
             ? VAKRO_OK
             : VAKRO_FAILED;
}

// What holds after a write that failed is tried, and said only if the file could be read for it.
static bool StillHolds(Session& session, const SecretText& pin) {
  try {
    session.Reload();
  } catch (const Failure&) {
    return false;
  }
  return DeviceVerifyPwd(session.device.get(), PIN_TYPE_USER, pin.data(), nullptr) == VAKRO_OK;
}

static void Change(const Target& target, const PinOptions& options) {
  Session session(target);
  const std::string name = NameOf(session.device.get());
  if (!options.force) RefuseLoss(session.device.get(), false);
  const SecretText former = Unlock(session, options.pin);
  const SecretText current = ReadNewPin(options.newPin, "New PIN for device " + name);
  // The prompts may have taken long.
  session.Reload();
  Device* device = session.device.get();
  Verify(device, former);
  const bool isLossy = RefuseLoss(device, options.force);
  errno = 0;
  const int changed =
      isLossy ? WriteAllAnew(device, current.data())
              : DeviceChangePwd(device, PIN_TYPE_USER, former.data(), current.data(), nullptr);
  if (changed != VAKRO_OK) {
    const std::string why = WhyNotWritten(device->filePath);
    throw Failure("The PIN of device " + name + " could not be changed: " + why + ".",
                  StillHolds(session, former)
                      ? "The old PIN still holds; this was tried."
                      : "Either PIN may hold: 'softdevice pin verify' tells.");
  }
  NoteChange("the PIN of device " + name + " is changed");
  Confirm("The PIN of device " + name + " is changed.",
          Fields{{"serial", device->serialNumber}, {"changed", true}});
}

static void VerifyPin(const Target& target, const SecretSource& pin) {
  Session session(target);
  Unlock(session, pin);
  Show("The PIN of device " + Printable(NameOf(session.device.get())) + " is right.",
       Fields{{"serial", session.device->serialNumber}, {"right", true}});
}

void AddPinCommands(CLI::App& app, Target& target) {
  const auto options = std::make_shared<PinOptions>();
  CLI::App& pin = AddFamily(app, "pin", "Change or verify the PIN");

  CLI::App& change = AddCommand(pin, "change", "Encrypt every private key under a new PIN",
                                [&target, options] { Change(target, *options); });
  AddDeviceOptions(change, target);
  Add(change, {.name = "--force",
               .into = &options->force,
               .help = "Also where a keypair that can't be read is lost, after a copy"});
  AddSecretOptions(change, options->pin, "pin", "present PIN");
  AddSecretOptions(change, options->newPin, "new-pin", "new PIN");
  NoteJson(change, "{serial, changed}");

  CLI::App& verify = AddCommand(pin, "verify", "Tell whether a PIN is right, and do nothing",
                                [&target, options] { VerifyPin(target, options->pin); });
  AddDeviceOptions(verify, target);
  AddSecretOptions(verify, options->pin, "pin", "PIN");
  NoteJson(verify, "{serial, right}");
}
