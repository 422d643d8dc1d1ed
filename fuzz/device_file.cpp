// Fuzz targets of device files: whole ones, and the data objects in them.
#include "fuzz/fuzz.h"
#include "store/store.h"

static void CheckRecord(Device& device) {
  DEMAND(device.pin == nullptr &&
         device.refCount == static_cast<unsigned>(device.keypairCount) + 1);
  DEMAND(strlen(device.label) < NAME_SIZE && strlen(device.serialNumber) < NAME_SIZE);
  for (int i = 0; i < device.keypairCount; i++) {
    Keypair* const keypair = device.keypairs[i];
    DEMAND(keypair->device == &device && keypair->privateKey == nullptr && keypair->isTemp == 0);
    DEMAND(strlen(keypair->label) < NAME_SIZE && keypair->certCount <= MAX_CERTS);
    const PublicHandle key(DeviceGetPublicKeyFromKeypair(keypair));
    if (key) Use<DevicePublicKeyEncrypt>(key.get(), keypair->bits);
  }
}

// Keypairs of one label and type, which the module never makes. Of two that differ in the case of
// their hex alone, a change may reach the other.
static bool HasTwins(const Device& device) {
  for (int i = 0; i < device.keypairCount; i++)
    for (int j = 0; j < i; j++)
      if (device.keypairs[i]->type == device.keypairs[j]->type &&
          strcmp(device.keypairs[i]->label, device.keypairs[j]->label) == 0)
        return true;
  return false;
}

// A certificate comes and goes, or the PIN becomes another. Of equal certificates the file keeps
// one.
static void CheckChange(bool ofPin, Device& device, const std::string& file) {
  static const std::string cert = "a certificate";
  if (HasTwins(device) || file.find(Base64(cert)) != std::string::npos) return;
  const std::string before = Summary(device);
  const KeypairHandle keypair(DeviceGetKeypair(&device, 0));
  const char* const pin = ofPin ? "another PIN" : PIN;
  const int changed = ofPin ? DeviceChangePwd(&device, PIN_TYPE_USER, PIN, pin, nullptr)
                            : DeviceAddCertificate(keypair.get(), Raw(cert), Len(cert));
  if (changed != VAKRO_OK) {
    DEMAND(StoredFile() == file);
    return;
  }
  DEMAND(Summary(*LoadDevice(pin)) == Summary(device));
  if (!ofPin) DEMAND(DeviceDeleteCertificate(keypair.get(), keypair->certCount - 1) == VAKRO_OK);
  DEMAND(Summary(*LoadDevice(pin)) == before && Summary(device) == before);
}

// Through the scan, the verification of the PIN and one rewrite. Length and digest are made right
// first, so that the input gets behind them; which rewrite it is, the last byte of the digest says.
// Loading changes nothing; a refused change leaves the file as it was; after one that succeeded the
// file loads as the record says.
FUZZ(device_file) {
  if (input.size() < HEADER_SIZE + DIGEST_SIZE) return;
  const std::string file = Container(be2int(Raw(input)), TextOf(input));
  StoreFile(file);
  const DeviceHandle device = LoadDevice();
  DEMAND(StoredFile() == file);
  if (!device) return;
  CheckRecord(*device);
  const int verified = DeviceVerifyPwd(device.get(), PIN_TYPE_USER, PIN, nullptr);
  DEMAND(StoredFile() == file);
  if (verified == VAKRO_OK) {
    CheckChange(input.back() % 2 != 0, *device, file);
    return;
  }
  DEMAND(verified == VAKRO_WRONG_PIN && device->pin == nullptr);
  for (int i = 0; i < device->keypairCount; i++) DEMAND(device->keypairs[i]->privateKey == nullptr);
}

// Reads the list as text, one line an object, and writes it back if asked to.
static int ReadList(Device* device, std::string& text, bool rewrite = false) {
  Data** list = nullptr;
  unsigned int count = 0;
  text.clear();
  const int result = GetAllDatasFromFile(device, &list, &count);
  DEMAND(result == 1 || (list == nullptr && count == 0));
  for (unsigned int i = 0; i < count; i++) {
    const Data& data = *list[i];
    for (const int number : {data.id, data.reserved1, data.reserved2})
      text += std::to_string(number) + ' ';
    text += View(data.value, data.length) + '\n';
  }
  if (rewrite) DEMAND(WriteAllDatasToFile(device, list, count) == 1);
  FreeDatas(list, static_cast<int>(count));
  return result;
}

// The input is the JSON text of the fourth root item, in a device file whose digest is right. A
// list that can't be read makes a change fail and the file stay as it is; one that can be read is
// written and read again as the same list, beside an untouched rest of the file.
FUZZ(data_objects) {
  static const std::string head = R"(["0123456789","abc",[],)";
  static const DeviceHandle device = [] {
    StoreFile(StoredDevice{.keypairs = {}}.File());
    return LoadDevice();
  }();
  const std::string file = Container(TAG, head + std::string(input) + "]");
  StoreFile(file);
  Device* const d = device.get();
  std::string text, after;
  if (ReadList(d, text) != 1) {
    DEMAND(DeviceCreateData(d, 7, 0, 3) == VAKRO_FAILED && StoredFile() == file);
    return;
  }
  DEMAND(StoredFile() == file && ReadList(d, after, true) == 1);
  DEMAND(ReadList(d, after) == 1 && after == text && TextOf(StoredFile()).starts_with(head));
}
