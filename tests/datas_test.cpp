// Data objects: the calls, their storage in the device file, and their quirks.
#include "store/store.h"
#include "tests/support/world.h"

class DatasTest : public ModuleTest {
 protected:
  const std::string skipped_ = R"(["skipped",1.50,{"a":null}])";
  StoredDevice stored_ = {.keypairs = {skipped_, StoredKeypair().Json()}};

  static int Write_(Device* device, int id, int offset, const std::string& bytes) {
    return DeviceWriteDataEx(device, id, offset, Raw(bytes), Len(bytes));
  }
  // The bytes read, or "result N".
  static std::string ReadData(Device* device, int id, int offset, int size) {
    unsigned char buffer[64];
    unsigned int length = 99;
    const int result = DeviceReadDataEx(device, id, offset, buffer, size, &length);
    return result == 1 ? Bytes(buffer, length) : "result " + std::to_string(result);
  }
  // The text of the file if its data objects are these items.
  std::string With(const std::vector<std::string>& datas) const {
    StoredDevice device = stored_;
    device.more = {Array(datas)};
    return device.Json();
  }
};

TEST_F(DatasTest, ALifeOfDataObjects) {
  const DeviceHandle device = Load(stored_.File(), nullptr);  // needs no PIN
  Device* d = device.get();
  EXPECT_EQ(ReadData(d, 5, 0, 8), "result -7");
  EXPECT_EQ(DeviceCreateData(d, 5, 77, 16), 1);
  EXPECT_EQ(TextOf(Read("dev")), With({StoredData(5, std::string(16, '\0'))}));
  EXPECT_EQ(ReadData(d, 5, 0, 32), std::string(16, '\0'));
  EXPECT_EQ(Write_(d, 5, 10, "abcdef"), 1);
  EXPECT_EQ(Write_(d, 5, 0, "0123456789"), 1);
  const std::string value = "0123456789abcdef";
  EXPECT_EQ(TextOf(Read("dev")), With({StoredData(5, value)}));

  const struct {
    int offset, size;
    std::string want;
  } reads[] = {{0, 64, value},
               {0, 4, "0123"},
               {4, 64, value.substr(4)},
               {15, 1, "f"},
               {16, 8, ""},
               {0, 0, ""},
               {0, -1, ""},
               {17, 8, "result 0"},
               {-1, 8, "result 0"},
               {2147483647, 8, "result 0"}};
  for (const auto& c : reads) EXPECT_EQ(ReadData(d, 5, c.offset, c.size), c.want) << c.offset;
  unsigned int length = 0;
  EXPECT_EQ(DeviceReadDataEx(d, 5, 4, nullptr, 0, &length), 1);
  EXPECT_EQ(length, 12u);
  EXPECT_EQ(DeviceReadDataEx(d, 5, 4, nullptr, 0, nullptr), 1);

  for (const int offset : {11, 16, 17, -1, 2147483647})
    Refuses(-21, d, [&] { return Write_(d, 5, offset, "abcdef"); });
  Refuses(-21, d, [&] { return DeviceWriteDataEx(d, 5, 1, Raw(value), 2147483647); });

  for (const int id : {7, 1, 2147483647}) EXPECT_EQ(DeviceCreateData(d, id, 0, 1), 1);
  const std::string zero(1, '\0');
  EXPECT_EQ(TextOf(Read("dev")), With({StoredData(5, value), StoredData(7, zero),
                                       StoredData(1, zero), StoredData(2147483647, zero)}));
  EXPECT_EQ(DeviceDeleteData(d, 7), 1);
  EXPECT_EQ(TextOf(Read("dev")),
            With({StoredData(5, value), StoredData(1, zero), StoredData(2147483647, zero)}));
  for (const int id : {5, 1, 2147483647}) EXPECT_EQ(DeviceDeleteData(d, id), 1);
  EXPECT_EQ(TextOf(Read("dev")), With({})) << "the item stays, empty";
  EXPECT_EQ(Read("dev").substr(0, 4), Word(TAG));
  EXPECT_FALSE(Exists("dev.bak"));
}

TEST_F(DatasTest, StoredReservedFieldsAndOrderStay) {
  const std::string odd = R"([9,2,-3,4,"6162"])";
  stored_.more = {Array({odd, StoredData(1, "x")}), "\"dropped by a write\""};
  const DeviceHandle device = Load(stored_.File(), nullptr);
  EXPECT_EQ(Write_(device.get(), 1, 0, "y"), 1);
  EXPECT_EQ(TextOf(Read("dev")), With({odd, StoredData(1, "y")}));
}

TEST_F(DatasTest, AChangeIsSeenThroughAnotherRecord) {
  const DeviceHandle one = Load(stored_.File(), nullptr);
  const DeviceHandle other = Rescan();
  EXPECT_EQ(DeviceCreateData(one.get(), 5, 0, 3), 1);
  EXPECT_EQ(Write_(other.get(), 5, 0, "abc"), 1);
  EXPECT_EQ(ReadData(one.get(), 5, 0, 3), "abc");
}

TEST_F(DatasTest, AListThatDoesNotParseIsRefusedWhole) {
  for (const char* datas :
       {R"("")", R"({})", R"([5])", R"([[5,1,0,0]])", R"([["5",1,0,0,"00"]])", R"([[5,1,0,0,7]])",
        R"([[5,2,0,0,"00"]])", R"([[5,0,0,0,"00"]])", R"([[5,1,0,0,"0"]])", R"([[5,1,0,0,"zz"]])",
        R"([[5,-1,0,0,""]])", R"([[5,1,0,null,"00"]])", R"([[7,1,0,0,"00"],[5,1,0,0,"0000"]])"}) {
    SCOPED_TRACE(datas);
    stored_.more = {datas};
    const DeviceHandle device = Load(stored_.File(), nullptr);
    Device* d = device.get();
    Refuses(0, d, [&] { return DeviceCreateData(d, 8, 0, 4); });
    Refuses(0, d, [&] { return Write_(d, 7, 0, "x"); });
    Refuses(0, d, [&] { return DeviceDeleteData(d, 7); });
    EXPECT_EQ(ReadData(d, 7, 0, 8), "result 0");
  }
}

TEST_F(DatasTest, ADamagedOrMissingFileIsRecoveredOrRefused) {
  stored_.more = {Array({StoredData(5, "value")})};
  const std::string good = stored_.File();
  const DeviceHandle device = Load(good, nullptr);
  Write("dev", Flipped(good, 40));
  Refuses(0, device.get(), [&] { return Write_(device.get(), 5, 0, "x"); });
  Write("dev.bak", good);
  EXPECT_EQ(ReadData(device.get(), 5, 0, 9), "value");
  EXPECT_TRUE(Read("dev") == good);
  EXPECT_FALSE(Exists("dev.bak"));
}

TEST_F(DatasTest, TheListHasRoomForEightMore) {
  stored_.more = {Array({StoredData(1, "a"), StoredData(2, "b")})};
  const DeviceHandle device = Load(stored_.File(), nullptr);
  Data** list = nullptr;
  unsigned int count = 0;
  ASSERT_EQ(GetAllDatasFromFile(device.get(), &list, &count), 1);
  ASSERT_EQ(count, 2u);
  for (int i = 0; i < 8; i++) list[count++] = newData(10 + i, 1);  // the sanitizer watches
  EXPECT_EQ(WriteAllDatasToFile(device.get(), list, count), 1);
  EXPECT_EQ(ReadData(device.get(), 17, 0, 9), std::string(1, '\0'));
  FreeDatas(list, static_cast<int>(count));
}
