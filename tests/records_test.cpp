// The small functions that others rest on: certificates, names and paths, hashes, MACs, the cipher.
#include "sm2/sm2.h"
#include "store/store.h"
#include "tests/support/world.h"

#include <sstream>

using RecordsTest = ModuleTest;

TEST_F(RecordsTest, ACertificateMayBeEmptyButNotMissing) {
  EXPECT_EQ(NewCert(nullptr, 3), nullptr);
  EXPECT_EQ(NewCert(Raw("x"), -1), nullptr);
  const OwnedCert empty(NewCert(nullptr, 0));
  EXPECT_TRUE(empty && empty->length == 0);
}

TEST_F(RecordsTest, OfNothingThereIsNothing) {
  FreeDeviceSet(nullptr);
  FreeKeypair(nullptr);
  FreeCert(nullptr);
  FreeDatas(nullptr, 3);
  FreeSM2Info(nullptr);
  EXPECT_TRUE(!Keypair2Json(nullptr) && !Cert2Json(nullptr) && !Data2Json(nullptr));
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

TEST_F(RecordsTest, HashesAndMacsAreThoseOfTheTable) {
  for (const auto& [row, at] : ReadRows("hashes.txt")) {
    std::istringstream words(row);
    std::string function, algorithm, first, second, equals, want;
    words >> function >> algorithm >> first >> second >> equals >> want;
    const auto id = static_cast<unsigned int>(std::stoul(algorithm, nullptr, 16));
    const std::string key = Unhex(first), data = Unhex(second);
    const auto bytes = [](const std::string& text) { return text.empty() ? nullptr : Raw(text); };
    unsigned char mac[64];
    unsigned char* value = mac;
    unsigned int length = 0;
    const int result =
        function == "mac"
            ? CalculateMac(id, bytes(key), static_cast<unsigned int>(key.size()), bytes(data),
                           static_cast<unsigned int>(data.size()), mac, &length)
            : CalculateHash(id, bytes(data), static_cast<unsigned int>(data.size()), &value,
                            &length);
    const LibBytes owned(value == mac ? nullptr : value);
    EXPECT_EQ(result == 1 ? Hex(Bytes(value, length)) : "refused", want) << at;
  }
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
