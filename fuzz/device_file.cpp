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
    if (key) UsePublicKey(key.get());
  }
}

static std::string StoredDatas() {
  const std::string text = TextOf(StoredFile());
  const Json root(vakro_json_decode(text.data(), static_cast<unsigned int>(text.size())));
  VakroJson* const item = vakro_json_getarrayitem(root.get(), 3);
  char* encoded = nullptr;
  unsigned int length = 0;
  DEMAND(vakro_json_encode(item, VAKRO_JSON_COMPACT, &encoded, &length) == (item != nullptr));
  const UtilText owned(encoded);
  return View(encoded, length);
}

enum Change { ADD_CERTIFICATE, CHANGE_PIN, DELETE_KEYPAIR, CREATE_DATA, CHANGES };

// Makes a change; `pin` is the PIN behind it.
static int Make(Change change, Device& device, Keypair* keypair, const char*& pin) {
  static const std::string cert = "a certificate";
  switch (change) {
    case ADD_CERTIFICATE:
      // Of equal certificates the file keeps one.
      for (int i = 0; i < DeviceGetCertificateCount(keypair); i++)
        if (View(keypair->certs[i]->data, keypair->certs[i]->length) == cert) return VAKRO_FAILED;
      return DeviceAddCertificate(keypair, Raw(cert), Len(cert));
    case CHANGE_PIN:
      pin = "another PIN";
      return DeviceChangePwd(&device, PIN_TYPE_USER, PIN, pin, nullptr);
    case DELETE_KEYPAIR:
      return DeviceDeleteKeypair(keypair);
    default:
      return DeviceCreateData(&device, 7, 0, 5);
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

static void CheckChange(Change change, Device& device, const std::string& file) {
  if (HasTwins(device)) return;
  const std::string before = Summary(device), datas = StoredDatas();
  const KeypairHandle keypair(DeviceGetKeypair(&device, 0));
  const char* pin = PIN;
  if (Make(change, device, keypair.get(), pin) != VAKRO_OK) {
    DEMAND(StoredFile() == file);
    return;
  }
  // A stored keypair that the module would write otherwise, such as with upper-case hex, is not
  // found and stays; it may be under any PIN.
  const DeviceHandle again = LoadDevice(change == DELETE_KEYPAIR ? nullptr : pin);
  DEMAND(again && (Summary(*again) == Summary(device) ||
                   (change == DELETE_KEYPAIR && Summary(*again) == before)));
  DEMAND(change == CREATE_DATA || StoredDatas() == datas);
  if (change != ADD_CERTIFICATE) return;
  DEMAND(DeviceDeleteCertificate(keypair.get(), keypair->certCount - 1) == VAKRO_OK);
  DEMAND(Summary(*LoadDevice(PIN)) == before && Summary(device) == before);
}

// Through the scan, the verification of the PIN and one rewrite. Length and digest are made right
// first, so that the input gets behind them; which rewrite it is, the last byte of the digest says.
// Loading changes nothing; a refused change leaves the file as it was; after one that succeeded the
// file loads as the record says.
void FuzzDeviceFile(std::string_view input) {
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
    const int last = Raw(input)[input.size() - 1];
    CheckChange(static_cast<Change>(last % CHANGES), *device, file);
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
// list that can't be read makes every call fail and the file stay as it is; one that can be read is
// written and read again as the same list, beside an untouched rest of the file.
void FuzzDataObjects(std::string_view input) {
  static const std::string head = R"(["0123456789","abc",[],)";
  static const DeviceHandle device = [] {
    StoreFile(StoredDevice{.keypairs = {}}.File());
    return LoadDevice();
  }();
  const std::string file = Container(TAG, head + std::string(input) + "]");
  StoreFile(file);
  Device* const d = device.get();
  unsigned char bytes[2] = {0x5a, 0xa5};
  unsigned int length = 0;
  std::string text, after;
  const int read = ReadList(d, text);
  DEMAND(StoredFile() == file);
  if (read == 1) DEMAND(ReadList(d, after, true) == 1);
  const int created = DeviceCreateData(d, 7, 0, 3);
  if (read != 1) {
    DEMAND(created == VAKRO_FAILED && DeviceDeleteData(d, 7) == VAKRO_FAILED);
    DEMAND(DeviceReadDataEx(d, 7, 0, bytes, 1, nullptr) == VAKRO_FAILED);
    DEMAND(DeviceWriteDataEx(d, 7, 0, bytes, 1) == VAKRO_FAILED && StoredFile() == file);
    return;
  }
  DEMAND(created == VAKRO_OK || created == VAKRO_ALREADY_EXISTS);
  if (created == VAKRO_OK) {
    DEMAND(DeviceWriteDataEx(d, 7, 1, bytes, 2) == VAKRO_OK);
    DEMAND(DeviceReadDataEx(d, 7, 2, bytes, 2, &length) == VAKRO_OK);
    DEMAND(length == 1 && bytes[0] == 0xa5 && DeviceDeleteData(d, 7) == VAKRO_OK);
  }
  DEMAND(ReadList(d, after) == 1 && after == text && TextOf(StoredFile()).starts_with(head));
}
