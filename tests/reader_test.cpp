// The reader of the JSON text and the builders of its items.
#include "store/store.h"
#include "tests/support/world.h"

class ReaderTest : public ModuleTest {
 protected:
  // What a load of this text gives: "none", or the number of certificates of each keypair.
  std::string LoadText(const std::string& json) {
    Write("dev", Container(TAG, json));
    const SetHandle set(DeviceGetAllDevices());
    if (DeviceGetDeviceCount(set.get()) == 0) return "none";
    std::string certs;
    const Device& device = *set->devices[0];
    EXPECT_EQ(device.refCount, static_cast<unsigned int>(device.keypairCount) + 1);
    for (int i = 0; i < device.keypairCount; i++)
      certs += std::to_string(device.keypairs[i]->certCount) + " ";
    return certs;
  }
};

TEST_F(ReaderTest, FieldsComeAsStored) {
  const StoredKeypair rsa = {
      .label = "enc", .type = -2, .key = &TestRsa(), .certs = {"one", "two"}};
  const DeviceHandle device =
      Load(StoredDevice{.keypairs = {StoredKeypair().Json(), rsa.Json()}}.File(), nullptr);
  EXPECT_STREQ(device->serialNumber, "0123456789");
  EXPECT_STREQ(device->label, "abc");
  EXPECT_EQ(device->fileTag, TAG);
  EXPECT_EQ(device->pin, nullptr);
  EXPECT_EQ(device->maxKeypairs, 64);
  EXPECT_EQ(device->filePath, Path("dev"));
  EXPECT_EQ(device->backupPath, Path("dev.bak"));
  ASSERT_EQ(device->keypairCount, 2);
  const Keypair& k = *device->keypairs[1];
  EXPECT_STREQ(k.label, "enc");
  EXPECT_EQ(k.type, static_cast<unsigned int>(-2));
  EXPECT_EQ(k.algorithm, 1u);
  EXPECT_EQ(k.bits, 2048u);
  EXPECT_EQ(k.curve, 0);
  EXPECT_EQ(k.isTemp, 0);
  EXPECT_EQ(k.device, device.get());
  EXPECT_EQ(k.privateKey, nullptr);
  EXPECT_EQ(Bytes(k.salt, k.saltLen), rsa.salt);
  EXPECT_EQ(Bytes(k.iv, k.ivLen), rsa.iv);
  EXPECT_EQ(Bytes(k.publicKey, k.publicKeyLen), TestRsa().publicKey);
  EXPECT_EQ(Bytes(k.encryptedPrivateKey, k.encryptedPrivateKeyLen),
            Seal(TestRsa().pair, PIN, rsa.salt, rsa.iv));
  ASSERT_EQ(k.certCount, 2);
  EXPECT_EQ(k.maxCerts, 10);
  EXPECT_EQ(Bytes(k.certs[1]->data, k.certs[1]->length), "two");
}

TEST_F(ReaderTest, EveryCheckOfTheText) {
  const std::string key = R"(["k",1,4,256,"00","00","00","00",["AAAA"]])";
  const std::string good = R"(["serial","label",[)" + key + "," + key + "]]";
  ASSERT_EQ(LoadText(good), "1 1 ");
  const std::string name63(63, 'n');
  const std::string certs10 = Array(std::vector<std::string>(10, "\"AAAA\""));
  const std::string certs11 = Array(std::vector<std::string>(11, "\"AAAA\""));
  const struct {
    const char* what;
    std::string from, to;
    const char* want;
  } cases[] = {
      {"no text", good, "", "none"},
      {"not JSON", good, "[", "none"},
      {"rubbish behind", "]]]]", "]]]]x", "none"},
      {"root is an object", good, "{}", "none"},
      {"root is a string", good, "\"abc\"", "none"},
      {"root of two items", good, R"(["serial","label"])", "none"},
      {"root nested beyond all bounds", good, std::string(200000, '['), "none"},
      {"a fourth item", "]]]]", "]]],0]", "1 1 "},
      {"serial number of 63 bytes", "serial", name63, "1 1 "},
      {"serial number of 64 bytes", "serial", name63 + "n", "none"},
      {"serial number a number", "\"serial\"", "5", "none"},
      {"label of 63 bytes", "label", name63, "1 1 "},
      {"label of 64 bytes", "label", name63 + "n", "none"},
      {"label an array", "\"label\"", "[]", "none"},
      {"keypairs a string", "[" + key + "," + key + "]", "\"\"", "none"},
      {"no keypairs", key + "," + key, "", ""},
      {"keypair a number", key, "5", "1 "},
      {"keypair null", key, "null", "1 "},
      {"keypair an object", key, R"({"k":1})", "1 "},
      {"keypair of 8 items", ",[\"AAAA\"]]", "]", "1 "},
      {"keypair of 10 items", "[\"AAAA\"]]", "[\"AAAA\"],0]", "1 "},
      {"keypair label of 63 bytes", "\"k\"", Quoted(name63), "1 1 "},
      {"keypair label of 64 bytes", "\"k\"", Quoted(name63 + "n"), "1 "},
      {"keypair label a number", "\"k\"", "1", "1 "},
      {"keypair label with a NUL", "\"k\"", R"("a\u0000b")", "1 1 "},
      {"type a string", "1,4,", "\"1\",4,", "1 "},
      {"algorithm null", "1,4,", "1,null,", "1 "},
      {"bits true", "256", "true", "1 "},
      {"type with a fraction", "1,4,", "1.9,4,", "1 1 "},
      {"type beyond int32", "1,4,", "4294967297,4,", "1 1 "},
      {"type beyond a double", "1,4,", "-1e999,4,", "none or 1 1"},
      {"salt of an odd count", "\"00\"", "\"000\"", "1 "},
      {"salt no digits", "\"00\"", "\"0g\"", "1 "},
      {"salt a number", "\"00\"", "0", "1 "},
      {"salt empty", "\"00\"", "\"\"", "1 1 "},
      {"upper-case digits", "\"00\"", "\"AF\"", "1 1 "},
      {"private key a number", "\"00\",[", "7,[", "1 "},
      {"certificates a string", "[\"AAAA\"]", "\"AAAA\"", "1 "},
      {"10 certificates", "[\"AAAA\"]", certs10, "10 1 "},
      {"11 certificates", "[\"AAAA\"]", certs11, "1 "},
      {"a number among certificates", "\"AAAA\"", "\"AAAA\",5,null,\"AAAA\"", "2 1 "},
      {"a certificate that is no base64", "\"AAAA\"", "\"AAA\",\"****\"", "0 1 "},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    std::string text = good;
    const size_t at = text.find(c.from);
    ASSERT_NE(at, std::string::npos);
    const std::string got = LoadText(text.replace(at, c.from.size(), c.to));
    if (std::string(c.want) == "none or 1 1") {
      EXPECT_TRUE(got == "none" || got == "1 1 ") << got;
    } else {
      EXPECT_EQ(got, c.want);
    }
  }
}

TEST_F(ReaderTest, NumbersAreTruncatedTowardZero) {
  const auto type = [&](const std::string& number) {
    const std::string key = R"(["k",)" + number + R"(,4,256,"00","00","00","00",[]])";
    const DeviceHandle device = Load(StoredDevice{.keypairs = {key}}.File(), nullptr);
    return static_cast<int>(device->keypairs[0]->type);
  };
  EXPECT_EQ(type("1.9"), 1);
  EXPECT_EQ(type("-1.9"), -1);
  EXPECT_EQ(type("2147483647"), 2147483647);
  EXPECT_EQ(type("-2147483648"), -2147483647 - 1);
}

TEST_F(ReaderTest, The65thKeypairIsIgnored) {
  const DeviceHandle device =
      Load(StoredDevice{.keypairs = std::vector<std::string>(70, StoredKeypair().Json())}.File(),
           nullptr);
  EXPECT_EQ(device->keypairCount, 64);
  EXPECT_EQ(device->refCount, 65u);
}

// The reader's items come back from the builders as they were stored.
TEST_F(ReaderTest, KeypairItemsRoundTrip) {
  const auto text = [](const Keypair* keypair) {
    const Json item(Keypair2Json(keypair));
    char* encoded = nullptr;
    unsigned int length = 0;
    if (!item || vakro_json_encode(item.get(), VAKRO_JSON_COMPACT, &encoded, &length) != 1)
      return std::string("null");
    const UtilText owned(encoded);
    return std::string(encoded, length);
  };
  for (const StoredKeypair& stored : {StoredKeypair(), StoredKeypair{.label = "", .type = -7},
                                      StoredKeypair{.key = &TestRsa(), .certs = {"a", "bcd"}}}) {
    const DeviceHandle device = Load(StoredDevice{.keypairs = {stored.Json()}}.File(), nullptr);
    Keypair* keypair = device->keypairs[0];
    EXPECT_EQ(text(keypair), stored.Json());
    const Keypair whole = *keypair;
    const struct {
      const char* what;
      void (*edit)(Keypair*);
    } refused[] = {
        {"type 0", [](Keypair* k) { k->type = 0; }},
        {"algorithm 0", [](Keypair* k) { k->algorithm = 0; }},
        {"bits 0", [](Keypair* k) { k->bits = 0; }},
        {"no salt", [](Keypair* k) { k->saltLen = 0; }},
        {"no iv", [](Keypair* k) { k->ivLen = 0; }},
        {"no public key", [](Keypair* k) { k->publicKeyLen = 0; }},
        {"no private key", [](Keypair* k) { k->encryptedPrivateKeyLen = 0; }},
        {"-1 certificates", [](Keypair* k) { k->certCount = -1; }},
    };
    for (const auto& c : refused) {
      c.edit(keypair);
      EXPECT_EQ(text(keypair), "null") << c.what;
      *keypair = whole;
    }
  }
  EXPECT_EQ(text(nullptr), "null");
}
