// Whole files, the container and its primitives, against files made byte by byte.
#include "store/store.h"
#include "tests/support/world.h"

#include <openssl/hmac.h>
#include <sys/stat.h>

class ContainerTest : public ModuleTest {
 protected:
  // Writes the bytes as a device file and checks it; a refusal hands out nothing.
  int Verify(const std::string& file) {
    Write("dev", file);
    unsigned char* image = nullptr;
    unsigned int size = 77;
    const int result = VerifyDeviceFile(Path("dev").c_str(), &image, &size);
    const UtilBytes owned(image);
    if (result == 1) {
      EXPECT_EQ(Bytes(image, size), file);
    } else {
      EXPECT_TRUE(image == nullptr && size == 77);
    }
    return result;
  }

  int ReadWhole(const std::string& name, std::string* content = nullptr) {
    unsigned char* data = nullptr;
    unsigned int length = 0;
    const int result = ReadWholeFile(Path(name).c_str(), &data, &length);
    const UtilBytes owned(data);
    if (content != nullptr) *content = Bytes(data, length);
    return result;
  }

  int Copy(const std::string& from, const std::string& to) {
    return CopyFileData(Path(from).c_str(), Path(to).c_str());
  }
};

TEST_F(ContainerTest, TheCheckRefusesEveryDamage) {
  const std::string file = StoredDevice().File();
  const size_t end = file.size();
  const auto length = [&](unsigned int l) { return file.substr(0, 4) + Word(l) + file.substr(8); };
  const auto l = static_cast<unsigned int>(end - 72);
  const struct {
    const char* what;
    std::string file;
    int want;
  } cases[] = {
      {"as built", file, 1},
      {"tag: not covered by the digest", Flipped(file, 0), 1},
      {"an empty text with its digest", Container(1, ""), 1},
      {"no text at all", "", 0},
      {"one byte", file.substr(0, 1), 0},
      {"length one more", length(l + 1), 0},
      {"length one less", length(l - 1), 0},
      {"length without its upper bit", length(l | 0x80000000), 0},
      {"first byte of the text", Flipped(file, 8, 0x80), 0},
      {"last byte of the text", Flipped(file, end - 65), 0},
      {"first byte of the digest", Flipped(file, end - 64), 0},
      {"last byte of the digest", Flipped(file, end - 1), 0},
      {"a byte behind", file + '\0', 0},
      {"a byte before", '\0' + file, 0},
      {"L + 72 wraps to 71", Word(1) + Word(0xffffffff) + std::string(63, 'x'), 0},
      {"L + 72 wraps to 8", Word(1) + Word(0xffffffc0), 0},
      {"L + 8 wraps to 8, digest of nothing", Word(1) + Word(0) + Digest("SHA512", "") + " ", 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    EXPECT_EQ(Verify(c.file), c.want);
  }
}

TEST_F(ContainerTest, AFileCutAnywhereIsRefused) {
  const std::string file = Container(TAG, StoredDevice{.keypairs = {}}.Json());
  for (size_t n = 0; n < file.size(); n++) EXPECT_EQ(Verify(file.substr(0, n)), 0) << n;
}

TEST_F(ContainerTest, OnlyRegularFilesAreRead) {
  ASSERT_EQ(mkdir(Path("folder").c_str(), 0700), 0);
  ASSERT_EQ(mkfifo(Path("pipe").c_str(), 0600), 0);  // an open for reading would wait for ever
  ASSERT_EQ(symlink("nowhere", Path("link").c_str()), 0);
  Write("empty", "");
  for (const char* name : {"folder", "pipe", "link", "empty", "missing", "missing/too"}) {
    EXPECT_EQ(ReadWhole(name), 0) << name;
    EXPECT_EQ(Copy(name, "copy"), 0) << name;
    EXPECT_FALSE(Exists("copy")) << name;
  }
  std::string content;
  Write("file", std::string(1072, '\0'));
  EXPECT_EQ(ReadWhole("file", &content), 1);
  EXPECT_EQ(content, std::string(1072, '\0'));
}

TEST_F(ContainerTest, ACopyHasContentAndModeOfItsSource) {
  for (const unsigned int mode : {0600u, 0640u, 0400u}) {
    Write("from", "new", mode);
    Write("to", "old and longer", 0666);
    for (const char* to : {"to", "fresh"}) {
      SCOPED_TRACE(to);
      EXPECT_EQ(Copy("from", to), 1);
      EXPECT_EQ(List()[to], List()["from"]);
      ASSERT_EQ(remove(Path(to).c_str()), 0);
    }
    ASSERT_EQ(remove(Path("from").c_str()), 0);
  }
}

TEST_F(ContainerTest, AFailedReadOrCopySaysSo) {
  Write("from", "content");
  for (const char* name :
       {"fopen", "fread", "vakro_malloc", "open", "fwrite", "fflush", "fdatasync|fsync"}) {
    const long live = LiveAllocations();
    EXPECT_EQ(WithFault({.name = name}, [&] { return Copy("from", "to"); }), 0) << name;
    EXPECT_NE(FaultHit(), nullptr) << name;
    EXPECT_EQ(LiveAllocations(), live) << name;
  }
}

TEST_F(ContainerTest, TheWriterWritesTheContainer) {
  const DeviceHandle device = Load(StoredDevice().File(0xfffefdfc), nullptr);
  const std::string text = "any text";
  const auto write = [&] {
    return WriteDeviceDataToFile(device.get(), Raw(text), static_cast<unsigned int>(text.size()));
  };
  EXPECT_EQ(write(), 1);
  EXPECT_EQ(Read("dev"), Container(0xfffefdfc, text));
  Refuses(0, device.get(), [&] { return WithFault({.name = "VakroPKICryptoNewHash"}, write); });
  Refuses(0, device.get(), [&] { return WithFault({.name = "fopen|open"}, write); });
}

TEST_F(ContainerTest, HashMacAndCipherAreOpenSslsToo) {
  const std::string key(32, 'k');
  const std::string data = "some data";
  unsigned char* digest = nullptr;
  unsigned int length = 0;
  ASSERT_EQ(CalculateHash(0x6000, Raw(data), 9, &digest, &length), 1);
  EXPECT_EQ(Bytes(digest, length), Digest("SHA512", data));
  VakroPKICryptoFreeMemory(digest);

  unsigned char mac[64], want[64];
  ASSERT_EQ(CalculateMac(0x6000, Raw(key), 32, Raw(data), 9, mac, &length), 1);
  HMAC(EVP_sha512(), Raw(key), 32, Raw(data), 9, want, nullptr);
  EXPECT_EQ(Bytes(mac, length), Bytes(want, 64));

  const AEADParams params = {16, Raw("a nonce"), 7, Raw("associated"), 10};
  for (const unsigned int n : {0u, 9u}) {
    unsigned char sealed[9 + 64], opened[9 + 16 + 64] = {};
    unsigned int sealedLen = 0;
    ASSERT_EQ(
        CalculateCipher(1, 0x6800000, Raw(key), 32, Raw(data), n, sealed, &sealedLen, &params), 1);
    EXPECT_EQ(sealedLen, n + 16);
    ASSERT_EQ(
        CalculateCipher(0, 0x6800000, Raw(key), 32, sealed, sealedLen, opened, &length, &params),
        1);
    EXPECT_EQ(Bytes(opened, length), data.substr(0, n));
    memset(opened, 0xaa, sizeof(opened));
    sealed[sealedLen - 1] ^= 1;
    EXPECT_EQ(
        CalculateCipher(0, 0x6800000, Raw(key), 32, sealed, sealedLen, opened, &length, &params),
        0);
    EXPECT_EQ(Bytes(opened, sizeof(opened)), std::string(sizeof(opened), '\xaa'));
  }
  EXPECT_EQ(CalculateHash(0x6001, Raw(data), 9, &digest, &length), 0);
  EXPECT_EQ(CalculateMac(0x6001, Raw(key), 32, Raw(data), 9, mac, &length), 0);
}
