// The records: reference counts as sequences of calls, constructors, and the small helpers.
#include "keypair/keypair.h"
#include "tests/support/world.h"

using RecordsTest = ModuleTest;

// One letter a call: d, k take a device or keypair handle, D, K give one back, S gives the set
// back, g generates a keypair and keeps its handle, x deletes the keypair of the last handle.
// `refs` is the count after the call; -1 when the device is gone by then.
struct Step {
  char call;
  int refs;
};

TEST_F(RecordsTest, ReferencesDecideWhenADeviceDies) {
  const struct {
    const char* what;
    int keypairs;
    std::vector<Step> steps;
  } cases[] = {
      {"no keypairs: the set alone", 0, {{'S', -1}}},
      {"a device handle outlives the set", 3, {{'d', 5}, {'S', 4}, {'D', -1}}},
      {"a keypair handle keeps the device", 3, {{'d', 5}, {'k', 6}, {'D', 5}, {'S', 4}, {'K', -1}}},
      {"two handles of one keypair", 1, {{'k', 3}, {'k', 4}, {'S', 3}, {'K', 2}, {'K', -1}}},
      {"a new keypair adds two", 1, {{'g', 4}, {'K', 3}, {'S', -1}}},
      {"a deletion takes two away", 2, {{'k', 4}, {'x', 2}, {'K', 2}, {'S', -1}}},
      {"made, then deleted", 1, {{'g', 4}, {'x', 2}, {'K', 2}, {'S', -1}}},
      {"deleted through the last reference", 1, {{'k', 3}, {'S', 2}, {'x', -1}, {'K', -1}}},
  };
  const long live = LiveAllocations();
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    StoredDevice stored;
    stored.keypairs.clear();
    for (int i = 0; i < c.keypairs; i++)
      stored.keypairs.push_back(StoredKeypair{.type = i + 1}.Json());
    Write("dev", stored.File());
    DeviceSet* set = DeviceGetAllDevices();
    ASSERT_EQ(DeviceGetDeviceCount(set), 1);
    Device* device = set->devices[0];
    ASSERT_EQ(DeviceVerifyPwd(device, 1, PIN, nullptr), 1);
    EXPECT_EQ(device->refCount, static_cast<unsigned int>(c.keypairs) + 1);
    Keypair* keypair = nullptr;
    for (const Step& step : c.steps) {
      SCOPED_TRACE(step.call);
      const ECCKeypairParams p256 = {CURVE_P256, 0};
      switch (step.call) {
        case 'd':
          EXPECT_EQ(DeviceGetDevice(set, 0), device);
          break;
        case 'D':
          EXPECT_EQ(DeviceFreeDevice(device), 1);
          break;
        case 'k':
          EXPECT_NE(keypair = DeviceGetKeypair(device, 0), nullptr);
          break;
        case 'K':
          EXPECT_EQ(DeviceFreeKeypair(keypair), 1);
          break;
        case 'S':
          EXPECT_EQ(DeviceFreeDevices(set), 1);
          break;
        case 'x':
          EXPECT_EQ(DeviceDeleteKeypair(keypair), 1);
          break;
        default:
          EXPECT_EQ(DeviceGenerateKeypair(device, 4, 256, &p256, 9, "n", &keypair), 1);
      }
      if (step.refs >= 0) {
        EXPECT_EQ(device->refCount, static_cast<unsigned int>(step.refs));
      }
    }
    EXPECT_EQ(LiveAllocations(), live);
  }
}

// Fails each allocation of `make` in turn.
template <auto Free, class Make>
static void NeedsMemory(Make make) {
  const long live = LiveAllocations();
  long n = 0;
  for (bool made = false; !made; n++) {
    auto* record = WithFault({.name = "vakro_malloc", .nth = n + 1}, make);
    made = record != nullptr;
    EXPECT_EQ(made, FaultHit() == nullptr);
    if (made) Free(record);
    EXPECT_EQ(LiveAllocations(), live);
  }
  EXPECT_GT(n, 1);
}

TEST_F(RecordsTest, ConstructorsLeaveNothingBehindWhenMemoryIsOut) {
  NeedsMemory<FreeDeviceSet>(NewDeviceSet);
  NeedsMemory<FreeDevice>(NewDevice);
  NeedsMemory<FreeKeypair>(NewKeypair);
  NeedsMemory<FreeCert>([] { return NewCert(Raw("abc"), 3); });
  NeedsMemory<FreeData>([] { return newData(5, 16); });
  NeedsMemory<DeviceFreePublicKey>(NewPublicKey);
  FreeDeviceSet(nullptr);
  FreeKeypair(nullptr);
  FreeCert(nullptr);
  FreeData(nullptr);
  FreeDatas(nullptr, 3);
}

TEST_F(RecordsTest, NewRecordsAreEmpty) {
  const OwnedData data(newData(5, 16));
  EXPECT_EQ(Bytes(data->value, data->length), std::string(16, '\0'));
  EXPECT_EQ(data->id, 5);
  EXPECT_EQ(data->reserved1 | data->reserved2, 0);
  EXPECT_EQ(newData(5, -1), nullptr);
  EXPECT_EQ(NewCert(nullptr, 3), nullptr);
  EXPECT_EQ(NewCert(Raw("abc"), -1), nullptr);
}

TEST_F(RecordsTest, RemoveDataKeepsTheOrder) {
  for (int index = -1; index <= 3; index++) {
    SCOPED_TRACE(index);
    Data* list[] = {newData(1, 1), newData(2, 1), newData(3, 1)};
    removeData(list, 3, index);
    const bool inside = index >= 0 && index < 3;
    std::vector<int> ids;
    for (int i = 0; i < (inside ? 2 : 3); i++) {
      ids.push_back(list[i]->id);
      FreeData(list[i]);
    }
    std::vector<int> want = {1, 2, 3};
    if (inside) want.erase(want.begin() + index);
    EXPECT_EQ(ids, want);
  }
}

TEST_F(RecordsTest, ScratchKeypairsBorrowTheirPrivateKey) {
  const long live = LiveAllocations();
  Keypair* scratch[MAX_KEYPAIRS] = {};
  for (const int slot : {0, 5, 63}) {
    scratch[slot] = NewKeypair();
    scratch[slot]->privateKey = TestP256().key;  // a free of it would show in the next test
    scratch[slot]->saltLen = 3;
    scratch[slot]->salt = static_cast<unsigned char*>(vakro_malloc(3, "test", __LINE__));
  }
  FreeTempKeypair(scratch);
  for (const Keypair* slot : scratch) EXPECT_EQ(slot, nullptr);
  EXPECT_EQ(LiveAllocations(), live);
  EXPECT_EQ(EVP_PKEY_get_bits(TestP256().key), 256);
}

TEST_F(RecordsTest, WordsAreBigEndian) {
  for (const auto& [value, bytes] : {std::pair{258u, std::string("\0\0\1\2", 4)},
                                     std::pair{0xfffefdfcu, std::string("\xff\xfe\xfd\xfc")}}) {
    unsigned char word[4];
    int2be(value, word);
    EXPECT_EQ(Bytes(word, 4), bytes);
    EXPECT_EQ(be2int(word), value);
  }
}

TEST_F(RecordsTest, NamesAndPaths) {
  const struct {
    const char* text;
    const char* suffix;
    int want;
  } suffixes[] = {{"a.bak", ".bak", 1}, {".bak", ".bak", 1},   {"bak", ".bak", 0},
                  {"a.BAK", ".bak", 0}, {"a.bak2", ".bak", 0}, {"a", "", 1},
                  {"", "", 1},          {nullptr, ".bak", 0},  {"a", nullptr, 0}};
  for (const auto& c : suffixes) EXPECT_EQ(string_endwiths(c.text, c.suffix), c.want) << c.text;
  for (const char* folder : {"/a/b", "/a/b/"}) {
    const UtilText path(GetFilePath(folder, "c"));
    EXPECT_STREQ(path.get(), "/a/b/c");
  }
  char* list = static_cast<char*>(vakro_malloc(1024, "test", __LINE__));
  unsigned int used = 0;
  unsigned int capacity = 1024;
  std::string packed;
  for (int i = 0; i < 20; i++) {
    const std::string name(255, static_cast<char>('a' + i));
    ASSERT_EQ(addFileName2List(&list, &used, &capacity, name.c_str()), 1);
    packed += name + '\0';
  }
  EXPECT_EQ(std::string(list, used), packed);
  EXPECT_EQ(capacity, 5120u);
  EXPECT_EQ(WithFault({.name = "vakro_malloc"},
                      [&] { return addFileName2List(&list, &used, &capacity, "more"); }),
            0);
  EXPECT_EQ(std::string(list, used), packed);
  vakro_free(list);
}
