// Hash, MAC and cipher objects.
#include "platform_test.h"

#include <limits.h>

#include <thread>

static int Digest(VakroPKICryptoDevice* device, int algorithm, std::string_view data, Out* out) {
  const Hash hash(VakroPKICryptoNewHash(device, algorithm));
  const size_t half = data.size() / 2;  // in two pieces
  return hash && VakroPKICryptoHashUpdate(hash.get(), Data(data), static_cast<int>(half)) == 1 &&
         VakroPKICryptoHashUpdate(hash.get(), Data(data) + half, Length(data.substr(half))) == 1 &&
         VakroPKICryptoHashFinal(hash.get(), &out->bytes, &out->length) == 1;
}

static int Authenticate(VakroPKICryptoDevice* device, int algorithm, std::string_view key,
                        std::string_view data, Out* out) {
  const Mac mac(VakroPKICryptoNewMac(device, algorithm, Data(key), Length(key), nullptr));
  return mac && VakroPKICryptoMacUpdate(mac.get(), Data(data), Length(data)) == 1 &&
         VakroPKICryptoMacFinal(mac.get(), &out->bytes, &out->length) == 1;
}

TEST(PlatformHash, PublishedVectors) {
  const SoftDevice device(VakroPKICryptoGetPseudoDevice());
  const struct {
    const char* source;
    int algorithm;
    std::string data;
    const char* digest;
  } rows[] = {{"FIPS 180-4, SHA-512 example 1", VAKRO_HASH_SHA512, "abc",
               "ddaf35a193617abacc417349ae20413112e6fa4e89a97ea20a9eeee64b55d39a"
               "2192992a274fc1a836ba3c23a3feebbd454d4423643ce80e2a9ac94fa54ca49f"},
              {"GB/T 32905, A.1", VAKRO_HASH_SM3, "abc",
               "66c7f0f462eeedd9d1f2d46bdc10e4e24167c4875cf2f7a2297da02b8f4ba8e0"},
              {"GB/T 32905, A.2", VAKRO_HASH_SM3,
               "abcdabcdabcdabcdabcdabcdabcdabcdabcdabcdabcdabcdabcdabcdabcdabcd",
               "debe9ff92275b8a138604889c18e5a4d6fdb70e5387e5765293dcba39c0c5732"},
              {"no bytes", VAKRO_HASH_SM3, "",
               "1ab21d8355cfa17f8e61194831e81a8f22bec8c728fefb747ed035eb5082aa2b"}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.source);
    Out out;
    ASSERT_EQ(Digest(device.get(), row.algorithm, row.data, &out), 1);
    EXPECT_EQ(out.str(), Unhex(row.digest));
  }
}

TEST(PlatformMac, IsHmac) {
  const SoftDevice device(VakroPKICryptoGetPseudoDevice());
  Out jefe;  // RFC 4231, test case 2
  ASSERT_EQ(
      Authenticate(device.get(), VAKRO_HASH_SHA512, "Jefe", "what do ya want for nothing?", &jefe),
      1);
  EXPECT_EQ(jefe.str(), Unhex("164b7a7bfcf819e2e395fbe73b56e0a387bd64222e831fd610270cd7ea250554"
                              "9758bf75c05a994a6d034f65f8f0e6fdcaeab1a34d4a6b4b636e070a38bce737"));
  // FIPS 198-1 over the library's own hash, whose blocks have 64 bytes.
  for (const size_t keyLen : {0u, 1u, 64u, 65u, 200u}) {
    SCOPED_TRACE(keyLen);
    const std::string key(keyLen, 'k');
    Out shortKey, inner, outer, mac;
    std::string block = key;
    if (keyLen > 64) {
      ASSERT_EQ(Digest(device.get(), VAKRO_HASH_SM3, key, &shortKey), 1);
      block = shortKey.str();
    }
    block.resize(64);
    std::string ipad = block, opad = block;
    for (char& c : ipad) c = static_cast<char>(c ^ 0x36);
    for (char& c : opad) c = static_cast<char>(c ^ 0x5c);
    ASSERT_EQ(Digest(device.get(), VAKRO_HASH_SM3, ipad + "message", &inner), 1);
    ASSERT_EQ(Digest(device.get(), VAKRO_HASH_SM3, opad + inner.str(), &outer), 1);
    ASSERT_EQ(Authenticate(device.get(), VAKRO_HASH_SM3, key, "message", &mac), 1);
    EXPECT_EQ(mac.str(), outer.str());
  }
}

// Runs over all of `input` in pieces of at most `piece` bytes. Returns what came out before the
// final step and after it, or nothing when a step failed.
struct Result {
  bool ok = false;
  std::string early, all;
};

struct Setting {
  std::string key, nonce, aad;
};

static Result RunCipher(int encrypt, const Setting& with, const std::string& input, size_t piece) {
  SoftDevice device(VakroPKICryptoGetPseudoDevice());
  const AEADParams params = {16, Data(with.nonce), Length(with.nonce), Data(with.aad),
                             Length(with.aad)};
  const Cipher cipher(VakroPKICryptoNewCipher(device.get(), encrypt, VAKRO_CIPHER_AES256_GCM,
                                              Data(with.key), Length(with.key), &params));
  device.reset();  // objects outlive it
  Result result;
  if (!cipher || VakroPKICryptoCipherSetPadding(cipher.get(), VAKRO_PADDING_NONE) != 1) return {};
  for (size_t at = 0; at < input.size(); at += piece) {
    Out out;
    const std::string part = input.substr(at, piece);
    if (VakroPKICryptoCipherUpdate(cipher.get(), Data(part), Length(part), &out.bytes,
                                   &out.length) != 1)
      return {};
    result.early += out.str();
  }
  Out last;
  result.ok = VakroPKICryptoCipherFinal(cipher.get(), &last.bytes, &last.length) == 1;
  EXPECT_TRUE(result.ok || last.untouched());
  result.all = result.early + (result.ok ? last.str() : "");
  return result;
}

// The GCM revised specification by McGrew and Viega, test cases 13, 16 and 18 (AES-256).
static const std::string KEY =
    Unhex("feffe9928665731c6d6a8f9467308308feffe9928665731c6d6a8f9467308308");
static const std::string PLAINTEXT = Unhex(
    "d9313225f88406e5a55909c5aff5269a86a7a9531534f7da2e4c303d8a318a72"
    "1c3c0c95956809532fcf0e2449a6b525b16aedf5aa0de657ba637b39");
static const std::string AAD = Unhex("feedfacedeadbeeffeedfacedeadbeefabaddad2");

TEST(PlatformCipher, PublishedVectors) {
  const struct {
    Setting with;
    std::string plaintext, ciphertext;
  } rows[] = {{{std::string(32, '\0'), std::string(12, '\0'), ""},
               "",
               Unhex("530f8afbc74536b9a963b4f1c4cb738b")},
              {{KEY, Unhex("cafebabefacedbaddecaf888"), AAD},
               PLAINTEXT,
               Unhex("522dc1f099567d07f47f37a32a84427d643a8cdcbfe5c0c97598a2bd2555d1aa"
                     "8cb08e48590dbb3da7b08b1056828838c5f61e6393ba7a0abcc9f662"
                     "76fc6ece0f4e1768cddf8853bb2d551b")},
              {{KEY,
                Unhex("9313225df88406e555909c5aff5269aa6a7a9538534f7da1e4c303d2a318a728"
                      "c3c0c95156809539fcf0e2429a6b525416aedbf5a0de6a57a637b39b"),
                AAD},
               PLAINTEXT,
               Unhex("5a8def2f0c9e53f1f75d7853659e2a20eeb2b22aafde6419a058ab4f6f746bf4"
                     "0fc0c3b780f244452da3ebf1c5d82cdea2418997200ef82e44ae7e3f"
                     "a44a8266ee1c8eb0c8b5d4cf5ae9f19a")}};
  for (const auto& row : rows) {
    for (const size_t piece : {1u, 17u, 1000u}) {
      EXPECT_EQ(RunCipher(1, row.with, row.plaintext, piece).all, row.ciphertext);
      const Result back = RunCipher(0, row.with, row.ciphertext, piece);
      EXPECT_TRUE(back.ok);
      EXPECT_EQ(back.early, "");
      EXPECT_EQ(back.all, row.plaintext);
    }
  }
}

TEST(PlatformCipher, ReleasesNothingUnauthenticated) {
  const Setting with = {KEY, std::string(24, 'n'), AAD};
  const std::string sealed = RunCipher(1, with, PLAINTEXT, 100).all;
  for (size_t i = 0; i < sealed.size(); i++) {
    std::string flipped = sealed;
    flipped[i] ^= 1;
    EXPECT_EQ(RunCipher(0, with, flipped, 100).all, "") << i;
    EXPECT_FALSE(RunCipher(0, with, sealed.substr(0, i), 100).ok) << i;
  }
  EXPECT_FALSE(RunCipher(0, with, sealed + '\0', 100).ok);
  const Setting others[] = {{std::string(32, 'k'), with.nonce, AAD},
                            {KEY, std::string(23, 'n'), AAD},
                            {KEY, std::string(23, 'n') + 'm', AAD},
                            {KEY, with.nonce, AAD + '\0'},
                            {KEY, with.nonce, ""}};
  for (const Setting& other : others) {
    EXPECT_FALSE(RunCipher(0, other, sealed, 100).ok);
    EXPECT_EQ(RunCipher(0, other, sealed, 100).all, "");
  }
}

TEST(PlatformCipher, RefusesOtherParameters) {
  const SoftDevice device(VakroPKICryptoGetPseudoDevice());
  const unsigned char key[64] = {}, bytes[80] = {};
  const AEADParams good = {16, bytes, 12, nullptr, 0};
  const auto make = [&](int encrypt, int algorithm, const unsigned char* k, int keyLen,
                        AEADParams params) {
    return Cipher(VakroPKICryptoNewCipher(device.get(), encrypt, algorithm, k, keyLen, &params));
  };
  const int gcm = VAKRO_CIPHER_AES256_GCM;
  EXPECT_TRUE(make(1, gcm, key, 32, good));
  EXPECT_TRUE(make(1, gcm, key, 32, {16, bytes, 64, bytes, 80}));
  EXPECT_FALSE(make(2, gcm, key, 32, good));
  EXPECT_FALSE(make(1, gcm + 1, key, 32, good));
  EXPECT_FALSE(make(1, gcm, nullptr, 32, good));
  for (const int keyLen : {-1, 0, 16, 31, 33, 64}) EXPECT_FALSE(make(1, gcm, key, keyLen, good));
  const AEADParams bad[] = {{15, bytes, 12, nullptr, 0},
                            {0, bytes, 12, nullptr, 0},
                            {16, nullptr, 12, nullptr, 0},
                            {16, bytes, 0, nullptr, 0},
                            {16, bytes, -1, nullptr, 0},
                            {16, bytes, 65, nullptr, 0},
                            {16, bytes, 12, nullptr, 1},
                            {16, bytes, 12, bytes, -1},
                            {16, bytes, 12, bytes, int64_t{1} << 40}};
  for (const AEADParams& params : bad) EXPECT_FALSE(make(1, gcm, key, 32, params));
  EXPECT_EQ(VakroPKICryptoNewCipher(device.get(), 1, gcm, key, 32, nullptr), nullptr);
  EXPECT_EQ(VakroPKICryptoNewCipher(nullptr, 1, gcm, key, 32, &good), nullptr);
  for (const int padding : {0, 1, 3})
    EXPECT_EQ(VakroPKICryptoCipherSetPadding(make(1, gcm, key, 32, good).get(), padding), 0);
}

TEST(PlatformCrypto, ObjectsRefuseWrongUse) {
  SoftDevice device(VakroPKICryptoGetPseudoDevice());
  const unsigned char bytes[32] = {};
  const AEADParams params = {16, bytes, 12, nullptr, 0};
  EXPECT_EQ(VakroPKICryptoNewHash(device.get(), 0x5000), nullptr);
  EXPECT_EQ(VakroPKICryptoNewHash(nullptr, VAKRO_HASH_SM3), nullptr);
  EXPECT_EQ(VakroPKICryptoNewMac(device.get(), VAKRO_HASH_SM3, bytes, 1, bytes), nullptr);
  EXPECT_EQ(VakroPKICryptoNewMac(device.get(), VAKRO_HASH_SM3, bytes, -1, nullptr), nullptr);
  EXPECT_EQ(VakroPKICryptoNewMac(device.get(), VAKRO_HASH_SM3, nullptr, 1, nullptr), nullptr);
  const Hash hash(VakroPKICryptoNewHash(device.get(), VAKRO_HASH_SM3));
  const Mac mac(VakroPKICryptoNewMac(device.get(), VAKRO_HASH_SHA512, nullptr, 0, nullptr));
  const Cipher cipher(
      VakroPKICryptoNewCipher(device.get(), 1, VAKRO_CIPHER_AES256_GCM, bytes, 32, &params));
  device.reset();  // objects outlive it
  ASSERT_TRUE(hash && mac && cipher);
  Out none;
  for (const auto& [data, length] : {std::pair{bytes, -1}, std::pair{bytes, INT_MIN},
                                     std::pair<const unsigned char*, int>{nullptr, 1}}) {
    EXPECT_EQ(VakroPKICryptoHashUpdate(hash.get(), data, length), 0);
    EXPECT_EQ(VakroPKICryptoMacUpdate(mac.get(), data, length), 0);
    EXPECT_EQ(VakroPKICryptoCipherUpdate(cipher.get(), data, length, &none.bytes, &none.length), 0);
  }
  Out digest, value, tag;
  EXPECT_EQ(VakroPKICryptoHashFinal(hash.get(), &digest.bytes, &digest.length), 1);
  EXPECT_EQ(VakroPKICryptoMacFinal(mac.get(), &value.bytes, &value.length), 1);
  EXPECT_EQ(VakroPKICryptoCipherFinal(cipher.get(), &tag.bytes, &tag.length), 1);
  // The final step ends an object.
  EXPECT_EQ(VakroPKICryptoHashUpdate(hash.get(), bytes, 1), 0);
  EXPECT_EQ(VakroPKICryptoMacUpdate(mac.get(), bytes, 1), 0);
  EXPECT_EQ(VakroPKICryptoCipherUpdate(cipher.get(), bytes, 1, &none.bytes, &none.length), 0);
  EXPECT_EQ(VakroPKICryptoHashFinal(hash.get(), &none.bytes, &none.length), 0);
  EXPECT_EQ(VakroPKICryptoMacFinal(mac.get(), &none.bytes, &none.length), 0);
  EXPECT_EQ(VakroPKICryptoCipherFinal(cipher.get(), &none.bytes, &none.length), 0);
  EXPECT_TRUE(none.untouched());
}

TEST(PlatformCrypto, SurvivesExhaustedMemory) {
  const Setting with = {KEY, std::string(24, 'n'), AAD};
  const std::string sealed = RunCipher(1, with, PLAINTEXT, 100).all;
  FailEachAllocation([&] {
    const SoftDevice device(VakroPKICryptoGetPseudoDevice());
    Out digest, sm3, mac;
    return device && Digest(device.get(), VAKRO_HASH_SHA512, "abc", &digest) &&
           Digest(device.get(), VAKRO_HASH_SM3, "abc", &sm3) &&
           Authenticate(device.get(), VAKRO_HASH_SM3, "key", "abc", &mac);
  });
  FailEachAllocation([&] { return RunCipher(1, with, PLAINTEXT, 20).all == sealed; });
  FailEachAllocation([&] { return RunCipher(0, with, sealed, 20).all == PLAINTEXT; });
}

TEST(PlatformCrypto, ADeviceIsShared) {
  const SoftDevice device(VakroPKICryptoGetPseudoDevice());
  std::thread threads[4];
  for (auto& thread : threads)
    thread = std::thread([&] {
      for (int i = 0; i < 200; i++) {
        Out out;
        ASSERT_EQ(Digest(device.get(), i % 2 ? VAKRO_HASH_SM3 : VAKRO_HASH_SHA512, "abc", &out), 1);
      }
    });
  for (auto& thread : threads) thread.join();
}
