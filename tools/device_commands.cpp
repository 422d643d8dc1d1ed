// create, list, pin change: the commands about whole devices.
#include "store/change.h"
#include "store/store.h"
#include "tools/data_list.h"
#include "tools/keys.h"
#include "tools/session.h"

#include <openssl/rand.h>
#include <CLI/CLI.hpp>

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>

struct CreateOptions {
  std::string label;
  std::string serialNumber;
};

static constexpr size_t SERIAL_BYTES = 8;  // of a random serial number

// MakeFolder makes the folder, and those above it, where they are missing.
static void MakeFolder(const std::string& path) {
  for (size_t slash = path.find('/', 1); slash != std::string::npos;
       slash = path.find('/', slash + 1)) {
    const std::string folder = path.substr(0, slash);
    if (mkdir(folder.c_str(), 0700) == 0) {
      SyncFolder(folder.c_str());
    } else if (errno != EEXIST) {
      throw Failure("Can't make the folder " + folder + ": " + SystemError() + ".",
                    "--folder DIR works in a folder of your own.");
    }
  }
}

static std::string RandomSerialNumber() {
  unsigned char bytes[SERIAL_BYTES];
  char text[2 * SERIAL_BYTES + 1];
  if (RAND_bytes(bytes, sizeof bytes) != 1) throw Failure("There are no random numbers.");
  for (size_t i = 0; i < sizeof bytes; i++) snprintf(text + 2 * i, 3, "%02X", bytes[i]);
  return text;
}

// FileName is the serial number with everything replaced that may mean something to a file system,
// or, like a dot, to the module.
static std::string FileName(std::string serialNumber) {
  for (char& c : serialNumber) {
    const bool plain = (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
    if (!plain && c != '-') c = '_';
  }
  return serialNumber;
}

static OwnedDevice EmptyDevice(const CreateOptions& options, const std::string& name) {
  OwnedDevice device(NewDevice());
  unsigned char tag[4];
  if (!device || RAND_bytes(tag, sizeof tag) != 1) throw Failure("No memory or random numbers.");
  device->fileTag = be2int(tag);
  device->filePath = GetFilePath(g_keyFolder, name.c_str());
  if (device->filePath == nullptr) throw std::bad_alloc();
  options.serialNumber.copy(device->serialNumber, NAME_SIZE - 1);
  options.label.copy(device->label, NAME_SIZE - 1);
  return device;
}

static UtilText TextOfEmptyDevice(const Device& device, unsigned int& length) {
  const Json root(vakro_json_newarray()), keypairs(vakro_json_newarray());
  const Json serial(vakro_json_newstring(device.serialNumber,
                                         static_cast<unsigned int>(strlen(device.serialNumber))));
  const Json label(
      vakro_json_newstring(device.label, static_cast<unsigned int>(strlen(device.label))));
  char* text = nullptr;
  for (const Json* item : {&serial, &label, &keypairs}) {
    if (vakro_json_addarrayitem(root.get(), item->get()) != 1) throw std::bad_alloc();
  }
  if (vakro_json_encode(root.get(), VAKRO_JSON_COMPACT, &text, &length) != 1) {
    throw std::bad_alloc();
  }
  return UtilText(text);
}

// WriteNewDevice creates the file under its final name: any other name in the folder would be taken
// for a device too. A crash before the end leaves a file that no scan accepts.
static void WriteNewDevice(Device* device) {
  unsigned int length = 0;
  const UtilText text = TextOfEmptyDevice(*device, length);
  const int fd = open(device->filePath, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (fd < 0 && errno == EEXIST) {
    throw Failure(std::string(device->filePath) + " exists already.",
                  "Choose another serial number. If the file is the rest of a 'create' that was "
                  "interrupted, remove it.");
  }
  if (fd < 0) {
    throw Failure("Can't create " + std::string(device->filePath) + ": " + SystemError() + ".");
  }
  close(fd);
  if (WriteDeviceDataToFile(device, reinterpret_cast<unsigned char*>(text.get()), length) != 1 ||
      !SyncFolder(device->filePath)) {
    const std::string cause = SystemError();
    unlink(device->filePath);
    throw Failure("Can't write " + std::string(device->filePath) + ": " + cause + ".");
  }
}

static void Create(const Target& target, CreateOptions options) {
  if (options.serialNumber.empty()) options.serialNumber = RandomSerialNumber();
  const std::string folder = FolderOf(target);
  const std::string name = FileName(options.serialNumber);
  MakeFolder(folder);
  const Folder open(target);  // also puts devices back from backups without a device file
  DeviceSet* devices = open.devices.get();
  Device** const end = devices->devices + devices->count;
  if (devices->count == MAX_DEVICES) {
    throw Failure("The folder holds 64 devices already, the most that are loaded.",
                  "Use another --folder.");
  }
  if (std::any_of(devices->devices, end,
                  [&](Device* d) { return options.serialNumber == d->serialNumber; })) {
    throw Failure("A device with serial number " + options.serialNumber + " exists already.");
  }
  const OwnedDevice device = EmptyDevice(options, name);
  const std::string backup = std::string(device->filePath) + BACKUP_SUFFIX;
  if (access(backup.c_str(), F_OK) == 0) {
    throw Failure("A backup is in the way: " + backup + ".", "Choose another serial number.");
  }
  WriteNewDevice(device.get());
  printf("Created device %s, serial number %s, in %s\n", options.label.c_str(),
         options.serialNumber.c_str(), device->filePath);
  printf("It has no PIN yet: the first 'keygen' or 'import' sets it.\n");
}

static void ListDevice(Device* device) {
  const int count = DeviceGetKeypairCount(device);
  printf("%s  serial number %s, file %s\n", LabelOf(device).c_str(), SerialNumberOf(device).c_str(),
         Printable(device->filePath).c_str());
  if (count == 0) printf("    no keypairs yet\n");
  for (int i = 0; i < count; i++) {
    const KeypairHandle keypair(DeviceGetKeypair(device, i));
    if (!keypair) continue;
    const int certs = DeviceGetCertificateCount(keypair.get());
    printf("    %-24s type %-4u %s", LabelOf(keypair.get()).c_str(),
           DeviceGetKeypairType(keypair.get()), KindName(keypair.get()).c_str());
    if (certs > 0) printf(", %d certificate%s", certs, certs == 1 ? "" : "s");
    printf("\n");
  }
  const int objects = StoredObjects(device);
  if (objects > 0) printf("    %d data object%s\n", objects, objects == 1 ? "" : "s");
}

static void List(const Target& target) {
  const Folder folder(target);
  DeviceSet* devices = folder.devices.get();
  for (int i = 0; i < devices->count; i++) ListDevice(devices->devices[i]);
  if (devices->count == 0) printf("No devices in %s\n", g_keyFolder);
  for (const std::string& file : PassedOver(devices)) {
    fprintf(stderr, "Passed over %s\n", file.c_str());
  }
}

static void ChangePin(const Target& target, const SecretSource& oldPin,
                      const SecretSource& newPin) {
  const Session session(target);
  Device* device = session.device.get();
  if (DeviceGetKeypairCount(device) == 0) {
    throw Failure("Device " + LabelOf(device) + " has no keypairs, and so no PIN to change.",
                  "The first 'keygen' or 'import' sets it.");
  }
  const SecretText former = Unlock(device, oldPin);
  const SecretText current = ReadNewPin(newPin, "New PIN for device " + LabelOf(device));
  if (DeviceChangePwd(device, PIN_TYPE_USER, former.data(), current.data(), nullptr) != VAKRO_OK) {
    throw Failure("The PIN could not be changed; the old one still holds.",
                  "Is the folder " + std::string(g_keyFolder) + " writable and the disk not full?");
  }
  printf("The PIN of device %s is changed.\n", LabelOf(device).c_str());
}

static std::string RefuseBadName(const std::string& name) {
  if (name.empty() || name.size() >= NAME_SIZE) return "must have 1 to 63 bytes";
  return Printable(name) == name ? "" : "must not hold control characters";
}

void AddDeviceCommands(CLI::App& app, Target& target) {
  CLI::App* create = app.add_subcommand("create", "Make an empty device");
  const auto options = std::make_shared<CreateOptions>();
  AddFolderOption(*create, target);
  create->add_option("--label", options->label, "Label of the device")
      ->required()
      ->type_name("NAME")
      ->check(RefuseBadName);
  create
      ->add_option("--serial", options->serialNumber,
                   "Serial number, also the file's name [16 random digits]")
      ->type_name("NUMBER")
      ->check(RefuseBadName);
  create->callback([&target, options] { Create(target, *options); });

  CLI::App* list = app.add_subcommand("list", "Show devices and keypairs");
  AddFolderOption(*list, target);
  list->callback([&target] { List(target); });

  CLI::App* pin = app.add_subcommand("pin", "Change the PIN");
  pin->require_subcommand(1);
  CLI::App* change = pin->add_subcommand("change", "Encrypt every private key under a new PIN");
  const auto oldPin = std::make_shared<SecretSource>(), newPin = std::make_shared<SecretSource>();
  AddDeviceOptions(*change, target);
  AddSecretOptions(*change, *oldPin, "pin", "present PIN");
  AddSecretOptions(*change, *newPin, "new-pin", "new PIN");
  change->callback([&target, oldPin, newPin] { ChangePin(target, *oldPin, *newPin); });
}
