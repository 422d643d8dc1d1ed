// The small functions that others rest on: certificates, names and paths, hashes, MACs, the cipher.
#include "sm2/sm2.h"
#include "store/store.h"
#include "tests/support/world.h"

using RecordsTest = ModuleTest;

TEST_F(RecordsTest, ACertificateMayBeEmptyButNotMissing) {
  EXPECT_EQ(NewCert(nullptr, 3), nullptr);
  EXPECT_EQ(NewCert(Raw("x"), -1), nullptr);
  const OwnedCert empty(NewCert(nullptr, 0));
  EXPECT_TRUE(empty && empty->length == 0);
}

TEST_F(RecordsTest, NothingIsFreedWhereNothingIs) {
  FreeDeviceSet(nullptr);
  FreeKeypair(nullptr);
  FreeCert(nullptr);
  FreeData(nullptr);
  FreeDatas(nullptr, 3);
  FreeSM2Info(nullptr);
}

TEST_F(RecordsTest, NamesEndAndPathsAreJoined) {
  const struct {
    const char *text, *suffix;
    int want;
  } rows[] = {{"a.bak", ".bak", 1}, {".bak", ".bak", 1},   {"bak", ".bak", 0},
              {"a.BAK", ".bak", 0}, {"a.bak2", ".bak", 0}, {"a", "", 1},
              {"", "", 1},          {nullptr, ".bak", 0},  {"a", nullptr, 0}};
  for (const auto& row : rows)
    EXPECT_EQ(string_endwiths(row.text, row.suffix), row.want) << &row - rows;
  for (const char* folder : {"/a/b", "/a/b/"})
    EXPECT_STREQ(UtilText(GetFilePath(folder, "c")).get(), "/a/b/c");
}

// FIPS 180-4, example 1; GB/T 32905, A.1 and A.2; the MACs and the last are OpenSSL's.
TEST_F(RecordsTest, HashesAndMacs) {
  constexpr unsigned int SHA_512 = 0x6000, SM3 = 0x7000;
  const auto hash = [](unsigned int algorithm, const std::string& data) {
    unsigned char* raw = nullptr;
    unsigned int length = 0;
    if (CalculateHash(algorithm, data.empty() ? nullptr : Raw(data),
                      static_cast<unsigned int>(data.size()), &raw, &length) != 1)
      return std::string("refused");
    const LibBytes owned(raw);
    return Hex(Bytes(raw, static_cast<int>(length)));
  };
  std::string abcd;
  for (int i = 0; i < 16; i++) abcd += "abcd";
  EXPECT_EQ(hash(SHA_512, "abc"),
            "ddaf35a193617abacc417349ae20413112e6fa4e89a97ea20a9eeee64b55d39a"
            "2192992a274fc1a836ba3c23a3feebbd454d4423643ce80e2a9ac94fa54ca49f");
  EXPECT_EQ(hash(SM3, "abc"), "66c7f0f462eeedd9d1f2d46bdc10e4e24167c4875cf2f7a2297da02b8f4ba8e0");
  EXPECT_EQ(hash(SM3, abcd), "debe9ff92275b8a138604889c18e5a4d6fdb70e5387e5765293dcba39c0c5732");
  EXPECT_EQ(hash(SM3, ""), "1ab21d8355cfa17f8e61194831e81a8f22bec8c728fefb747ed035eb5082aa2b");
  EXPECT_EQ(hash(0x6001, "data"), "refused");

  const auto mac = [](unsigned int algorithm, const std::string& key, const std::string& data) {
    unsigned char out[64];
    unsigned int length = 0;
    if (CalculateMac(algorithm, key.empty() ? nullptr : Raw(key),
                     static_cast<unsigned int>(key.size()), Raw(data),
                     static_cast<unsigned int>(data.size()), out, &length) != 1)
      return std::string("refused");
    return Hex(Bytes(out, static_cast<int>(length)));
  };
  const std::string ones(140, '\xff');
  EXPECT_EQ(mac(SHA_512, "abc", "data"),
            "d31cfa60853790aa522e2b6a438130568a902fa5b21f4bd11905e2b6fab565cf"
            "e028354a124d6bcc16758d6c678a66837580d2909844f214f67403e92418a472");
  EXPECT_EQ(mac(SHA_512, ones, "data"),
            "b258499552c5f75451c63cd9d117ad9a2da4783b305765eddf6bb188136a3fa4"
            "8ad36167e37995af1a4cfefdf7f8906fb6139e3d7218352486c07c8a5aad7117");
  EXPECT_EQ(mac(SM3, "abc", "data"),
            "73701af4add89f4c7ff22586b7f337d76771536d616fd593bdc12fbfb25fe39d");
  EXPECT_EQ(mac(SM3, ones, "data"),
            "bebec232a3b5578e1c79ecb855c28c8d299177fc13d8709d1d91479e1894fb7a");
  EXPECT_EQ(mac(SM3, "", "message"),
            "1cfbadeceb75bed3498b4475f4986d9c3d2aedb2ee6b74605b8d1a4dde0590a9");
  EXPECT_EQ(mac(0x6001, "abc", "data"), "refused");
}

TEST_F(RecordsTest, TheCipherHasItsKeyTagAndName) {
  constexpr unsigned int AES_256_GCM = 0x6800000;
  const std::string digest(33, 'e');
  AEADParams params = {16, Raw("a nonce"), 7, Raw("data"), 4};
  unsigned char out[100];
  const auto run = [&](int encrypt, unsigned int algorithm, unsigned int keyLength,
                       unsigned int length) {
    unsigned int made = 0;
    memset(out, '.', sizeof(out));
    const int result = CalculateCipher(encrypt, algorithm, Raw(digest), keyLength, Raw(digest),
                                       length, out, &made, &params);
    return result == 1 ? static_cast<int>(made) : -1;
  };
  EXPECT_EQ(run(1, AES_256_GCM, 32, 9), 25);
  EXPECT_EQ(run(0, AES_256_GCM, 32, 25), -1) << "a wrong tag";
  EXPECT_EQ(Bytes(out, 25), std::string(25, '.'));
  for (const unsigned int keyLength : {31u, 33u}) EXPECT_EQ(run(1, AES_256_GCM, keyLength, 9), -1);
  EXPECT_EQ(run(1, AES_256_GCM + 1, 32, 9), -1);
  params.tagLen = 15;
  EXPECT_EQ(run(1, AES_256_GCM, 32, 9), -1);
}
