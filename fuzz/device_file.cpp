// Device files, through the scan, the verification of the PIN and one rewrite. Length and digest
// are made right first, so that the input gets behind them; which rewrite it is, the last byte of
// the digest says. Loading changes nothing; a refused change leaves the file as it was; after one
// that succeeded the file loads as the record says.
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

// The device as it is loaded anew, opened with `pin`.
static void CheckReloaded(const World& world, const Device& device, const char* pin) {
  const DeviceHandle again = world.Load();
  DEMAND(again && Summary(*again) == Summary(device));
  DEMAND(DeviceVerifyPwd(again.get(), PIN_TYPE_USER, pin, nullptr) == VAKRO_OK);
}

static int ChangeCertificates(const World& world, Device& device) {
  static const unsigned char cert[] = "a certificate";
  const KeypairHandle keypair(DeviceGetKeypair(&device, 0));
  const int last = DeviceGetCertificateCount(keypair.get());
  // Of equal certificates the file keeps one.
  for (int i = 0; i < last; i++) {
    const Cert& other = *keypair->certs[i];
    if (View(other.data, static_cast<size_t>(other.length)) == View(cert, sizeof(cert)))
      return VAKRO_FAILED;
  }
  const int added = DeviceAddCertificate(keypair.get(), cert, sizeof(cert));
  if (added != VAKRO_OK) return added;
  CheckReloaded(world, device, PIN);
  DEMAND(DeviceDeleteCertificate(keypair.get(), last) == VAKRO_OK);
  CheckReloaded(world, device, PIN);
  return VAKRO_OK;
}

static std::string StoredDatas(const World& world) {
  const std::string text = TextOf(world.Read());
  const Json root(vakro_json_decode(text.data(), static_cast<unsigned int>(text.size())));
  VakroJson* const item = vakro_json_getarrayitem(root.get(), 3);
  if (item == nullptr) return {};
  char* encoded = nullptr;
  unsigned int length = 0;
  DEMAND(vakro_json_encode(item, VAKRO_JSON_COMPACT, &encoded, &length) == 1);
  const UtilText owned(encoded);
  return std::string(encoded, length);
}

static int DeleteKeypair(const World& world, Device& device) {
  const std::string before = Summary(device);
  const KeypairHandle keypair(DeviceGetKeypair(&device, 0));
  const int deleted = DeviceDeleteKeypair(keypair.get());
  if (deleted != VAKRO_OK) return deleted;
  // A stored item that the module would write otherwise, such as with upper-case hex, is not found
  // and stays.
  const DeviceHandle again = world.Load();
  DEMAND(again && (Summary(*again) == Summary(device) || Summary(*again) == before));
  return VAKRO_OK;
}

static int ChangePin(const World& world, Device& device) {
  static const char newPin[] = "another PIN";
  const int changed = DeviceChangePwd(&device, PIN_TYPE_USER, PIN, newPin, nullptr);
  if (changed == VAKRO_OK) CheckReloaded(world, device, newPin);
  return changed;
}

static int CreateData(const World& world, Device& device) {
  const int created = DeviceCreateData(&device, 7, 0, 5);
  if (created == VAKRO_OK) CheckReloaded(world, device, PIN);
  return created;
}

static int (*const CHANGES[])(const World&, Device&) = {ChangeCertificates, ChangePin,
                                                        DeleteKeypair, CreateData};

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size) {
  if (size < HEADER_SIZE + DIGEST_SIZE) return 0;
  const std::string_view text = View(data + HEADER_SIZE, size - HEADER_SIZE - DIGEST_SIZE);
  const std::string file = Container(be2int(data), text);
  const World world(file);
  const DeviceHandle device = world.Load();
  DEMAND(world.Read() == file);
  if (!device) return 0;
  CheckRecord(*device);
  const int verified = DeviceVerifyPwd(device.get(), PIN_TYPE_USER, PIN, nullptr);
  if (verified == VAKRO_OK) {
    const auto change = CHANGES[data[size - 1] % std::size(CHANGES)];
    const std::string datas = StoredDatas(world);
    if (change(world, *device) == VAKRO_OK) {
      DEMAND(change == CreateData || StoredDatas(world) == datas);
      return 0;
    }
  } else {
    DEMAND(verified == VAKRO_WRONG_PIN && device->pin == nullptr);
    for (int i = 0; i < device->keypairCount; i++)
      DEMAND(device->keypairs[i]->privateKey == nullptr);
  }
  DEMAND(world.Read() == file);
  return 0;
}
