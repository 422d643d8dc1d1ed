// Fuzz targets of device files: whole ones, and the data objects in them.
#include "fuzz/fuzz.h"
#include "store/store.h"

#include <set>
#include <span>

static std::span<Keypair* const> Keypairs(const Device& device) {
  return {device.keypairs, static_cast<size_t>(device.keypairCount)};
}

// A PIN that opens the device gives the very keys that were sealed under it and the tag: sealed
// again, they are the same bytes.
static void CheckRecord(const Device& device, bool open) {
  EXPECT_EQ(device.pin != nullptr, open);
  EXPECT_EQ(device.refCount, Keypairs(device).size() + 1);
  EXPECT_TRUE(strlen(device.label) < NAME_SIZE && strlen(device.serialNumber) < NAME_SIZE);
  for (const Keypair* k : Keypairs(device)) {
    EXPECT_TRUE(k->device == &device && k->isTemp == 0 && k->certCount <= MAX_CERTS);
    EXPECT_TRUE(strlen(k->label) < NAME_SIZE && (k->privateKey != nullptr) == open);
    if (!open) continue;
    EXPECT_EQ(Bytes(k->encryptedPrivateKey, k->encryptedPrivateKeyLen),
              Seal(PairEncoding(k->privateKey, k->curve), device.pin, Bytes(k->salt, k->saltLen),
                   Bytes(k->iv, k->ivLen)));
  }
}

// Keypairs of one label and type, which the module never makes. Of two that differ in the case of
// their hex alone, a change may reach the other.
static bool HasTwins(const Device& device) {
  std::set<std::pair<std::string, unsigned int>> names;
  for (const Keypair* k : Keypairs(device)) names.emplace(k->label, k->type);
  return names.size() < Keypairs(device).size();
}

// Through the check of the container, the scan, the verification of the PIN and rewrites. Length
// and digest are made right after the check, so that the input gets behind them. Neither loading
// nor a refused change touches the file; after one that succeeded it loads as the record says.
FUZZ(device_file) {
  const bool isLong = input.size() >= HEADER_SIZE + DIGEST_SIZE;
  std::string file = isLong ? Container(be2int(Raw(input)), TextOf(input)) : "";
  Write("dev", std::string(input));
  const std::string path = Path("dev");
  const auto check = std::bind_front(VerifyDeviceFile, path.c_str());
  EXPECT_EQ((Made<unsigned char*, unsigned int>(check).value_or("")), file == input ? file : "");
  if (!isLong) return false;

  Write("dev", file);
  const DeviceHandle device(DeviceGetDevice(SetHandle(DeviceGetAllDevices()).get(), 0));
  EXPECT_TRUE(Read("dev") == file && !Exists("dev.bak"));
  if (!device) return false;
  CheckRecord(*device, false);
  for (Keypair* const k : Keypairs(*device)) {
    const PublicHandle key(DeviceGetPublicKeyFromKeypair(k));
    if (key) Use<DevicePublicKeyEncrypt>(key.get(), k->bits);
  }
  const int verified = DeviceVerifyPwd(device.get(), PIN_TYPE_USER, PIN, nullptr);
  EXPECT_TRUE(verified == VAKRO_OK || verified == VAKRO_WRONG_PIN);
  CheckRecord(*device, verified == VAKRO_OK);
  EXPECT_EQ(Read("dev"), file);
  if (verified != VAKRO_OK) return false;
  for (Keypair* const k : Keypairs(*device))
    if (k->curve != CURVE_SM2) Use<DeviceSign>(k, k->bits);  // on that one OpenSSL is slow
  if (HasTwins(*device)) return true;

  const auto changes = [&](int result, const char* pin) {
    if (result == VAKRO_OK) {
      const DeviceHandle again = Rescan(pin);
      EXPECT_EQ(Describe(*again, false), Describe(*device, false));
      CheckRecord(*again, true);
      file = Read("dev");
    }
    EXPECT_EQ(Read("dev"), file);
    return result == VAKRO_OK;
  };
  const std::string before = Describe(*device, false);
  const std::string cert = Digest("SHA256", file);  // of equal ones the file would keep one
  Keypair* const k = device->keypairs[0];
  const bool added = changes(DeviceAddCertificate(k, Raw(cert), Len(cert)), PIN);
  EXPECT_TRUE(!added || changes(DeviceDeleteCertificate(k, k->certCount - 1), PIN));
  EXPECT_EQ(Describe(*device, false), before);
  changes(DeviceChangePwd(device.get(), PIN_TYPE_USER, PIN, "another PIN", nullptr), "another PIN");
  return true;
}

// Reads the list as text, one line an object, and writes it back with some more if asked to. No
// value when it can't be read.
static std::optional<std::string> ReadList(Device* device, bool rewrite = false) {
  Data** list = nullptr;
  unsigned int count = 0;
  const bool good = GetAllDatasFromFile(device, &list, &count) == 1;
  EXPECT_TRUE(good || (list == nullptr && count == 0));
  if (!good) return std::nullopt;
  for (int id = 1; rewrite && id <= 8; id++)
    list[count++] = newData(id, 1);  // all there is room for
  std::string text;
  for (const Data* data : std::span(list, count)) {
    for (const int number : {data->id, data->reserved1, data->reserved2})
      text += std::to_string(number) + ' ';
    text += Bytes(data->value, data->length) + '\n';
  }
  EXPECT_TRUE(!rewrite || WriteAllDatasToFile(device, list, count) == 1);
  FreeDatas(list, static_cast<int>(count));
  return text;
}

// The input is the JSON text of the fourth root item, in a device file whose digest is right. A
// list that can't be read makes a change fail and the file stay as it is; one that can be read is
// written and read again with eight objects more, beside an untouched rest of the file.
FUZZ(data_objects) {
  static const std::string head = R"(["0123456789","abc",[],)";
  const std::string file = Container(TAG, head + std::string(input) + "]");
  Write("dev", file);
  const auto list = ReadList(device_.get());
  EXPECT_TRUE(list || DeviceCreateData(device_.get(), 7, 0, 3) == VAKRO_FAILED);
  EXPECT_EQ(Read("dev"), file);
  if (!list) return false;
  const auto more = ReadList(device_.get(), true);
  EXPECT_TRUE(more->starts_with(*list));
  EXPECT_EQ(ReadList(device_.get()), more);
  EXPECT_TRUE(TextOf(Read("dev")).starts_with(head));
  return true;
}
