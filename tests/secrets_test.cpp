// After use, nothing secret is left in the memory of the process: PINs, private scalar, nonce,
// signing factor, derived key and plaintexts are looked for in every block that is given back, and
// at the end in every page that can be written.
#include "tests/support/world.h"

#include "keypair/keypair.h"
#include "sm2/multiply.h"
#include "sm2/sm2.h"

#include <malloc.h>
#include <algorithm>
#include <fstream>

namespace {
constexpr unsigned char MASK = 0x5a;  // secrets stand in this program masked, or in a Shown
constexpr size_t LONGEST = 200;

struct Secret {
  const char* what;
  std::string masked;
};

struct Shown {
  unsigned char bytes[LONGEST + 1] = {};
  explicit Shown(const Secret& secret) {
    for (size_t i = 0; i < secret.masked.size(); i++)
      bytes[i] = static_cast<unsigned char>(secret.masked[i]) ^ MASK;
  }
  Shown(const Shown&) = delete;
  ~Shown() { OPENSSL_cleanse(bytes, sizeof(bytes)); }
  const char* Text() const { return reinterpret_cast<const char*>(bytes); }
};

Secret Masked(const char* what, const unsigned char* bytes, size_t size) {
  Secret secret = {what, std::string(size, 0)};
  for (size_t i = 0; i < size; i++) secret.masked[i] = static_cast<char>(bytes[i] ^ MASK);
  return secret;
}

// Letters made of a seed, which never stand together unmasked.
Secret Made(const char* what, size_t size, unsigned int seed) {
  Secret secret = {what, std::string(size, 0)};
  for (char& c : secret.masked)
    c = static_cast<char>((((seed = seed * 1103515245 + 12345) >> 16 & 15) + 'a') ^ MASK);
  return secret;
}

int CountAt(const unsigned char* begin, const unsigned char* end, const std::string& masked) {
  int found = 0;
  const auto first = static_cast<unsigned char>(masked[0]) ^ MASK;
  for (const unsigned char* at = begin; at + masked.size() <= end; at++) {
    at = static_cast<const unsigned char*>(memchr(at, first, static_cast<size_t>(end - at)));
    if (at == nullptr || at + masked.size() > end) break;
    size_t same = 1;
    while (same < masked.size() && (at[same] ^ MASK) == static_cast<unsigned char>(masked[same]))
      same++;
    found += same == masked.size();
  }
  return found;
}

// The first or last 16 bytes of the secret, in either byte order; the allocator writes over the
// first ones of what is given back.
std::vector<std::string> Parts(const Secret& secret) {
  const std::string& masked = secret.masked;
  const std::string reversed(masked.rbegin(), masked.rend());
  std::vector<std::string> parts;
  for (const std::string& all : {masked, reversed})
    for (const size_t from : {size_t{0}, all.size() - 16}) parts.push_back(all.substr(from, 16));
  return parts;
}

int CountBytes(const std::string& masked) {
  std::ifstream maps("/proc/self/maps");
  int found = 0;
  for (std::string line; std::getline(maps, line);) {
    unsigned long begin = 0, end = 0;
    char access[5] = "";
    if (sscanf(line.c_str(), "%lx-%lx %4s", &begin, &end, access) != 3) continue;
    if (access[0] != 'r' || access[1] != 'w') continue;
    found += CountAt(reinterpret_cast<const unsigned char*>(begin),
                     reinterpret_cast<const unsigned char*>(end), masked);
  }
  return found;
}

// How often the secret stands in memory.
int Count(const Secret& secret) {
  int most = 0;
  for (const std::string& part : Parts(secret)) most = std::max(most, CountBytes(part));
  return most;
}

// How often it stands where functions that have returned had their frames.
__attribute__((noinline)) int CountBelow(const Secret& secret) {
  constexpr size_t DEPTH = 1 << 16;
  const auto* here = static_cast<const unsigned char*>(__builtin_frame_address(0));
  int most = 0;
  for (const std::string& part : Parts(secret))
    most = std::max(most, CountAt(here - DEPTH, here, part));
  return most;
}

std::vector<std::string> g_watched;  // parts that no block may hold when it is given back
int g_betrayed = 0;                  // blocks that did

const Secret& Nonce() {
  static const Secret k = Made("nonce", 32, 6);
  return k;
}

}  // namespace

extern "C" void __libc_free(void* block);
extern "C" void free(void* block) {
  const auto* bytes = static_cast<const unsigned char*>(block);
  const size_t size = g_watched.empty() ? 0 : malloc_usable_size(block);
  for (const std::string& part : g_watched) g_betrayed += CountAt(bytes, bytes + size, part);
  __libc_free(block);
}

extern "C" int BN_rand_range(BIGNUM* number, const BIGNUM* /*range*/) {
  return BN_bin2bn(Shown(Nonce()).bytes, 32, number) != nullptr ? 1 : 0;
}

class SecretsTest : public ModuleTest {
 protected:
  const Secret pin_ = Made("PIN", 40, 1), second_ = Made("second PIN", 40, 2);
  const Secret wrong_ = Made("wrong PIN", 40, 3), plaintext_ = Made("plaintext", 48, 4);
  const Secret d_ = Made("private scalar", 32, 5), k_ = Nonce();
  Secret factor_;              // (1 + d)^-1
  std::string header_, salt_;  // of the SM2 key's encoding, and of its derivation

  void SetUp() override {
    ModuleTest::SetUp();
    unsigned char point[64];
    SM2MultiplyGenerator(point, Shown(d_).bytes);
    header_ = EccPair(7, Bytes(point, 32), Bytes(point + 32, 32), std::string(32, 0));
    header_.resize(header_.size() - 32);
    SM2Scalar d, one;
    Wiped<32> factor;
    SM2ReadScalar(&d, Shown(d_).bytes, 32);
    SM2ReadScalar(&one, Raw("\1"), 1);
    SM2AddScalars(&d, &d, &one);
    SM2InvertScalar(&d, &d);
    SM2WriteScalar(factor.bytes, &d);
    OPENSSL_cleanse(&d, sizeof(d));
    factor_ = Masked("signing factor", factor.bytes, 32);
  }

  Keypair* Import(Device* device) const {
    Shown pair(d_);
    memmove(pair.bytes + header_.size(), pair.bytes, 32);
    memcpy(pair.bytes, header_.data(), header_.size());
    Keypair* made = nullptr;
    EXPECT_EQ(DeviceImportKeypair(device, pair.bytes, Len(header_) + 32, 9, "SM2", &made), 1);
    return made;
  }

  void Sign(Keypair* keypair) const {
    unsigned char signature[100];
    int length = 0;
    EXPECT_EQ(DeviceSign(keypair, ALGORITHM_SM2_SIGN, nullptr, Raw(header_), 32, signature,
                         sizeof(signature), &length),
              1);
    for (const Secret& secret : {k_, d_, factor_}) EXPECT_EQ(CountBelow(secret), 0) << secret.what;
  }

  void Decrypt(Keypair* keypair, unsigned int algorithm) const {
    const PublicHandle key(DeviceGetPublicKeyFromKeypair(keypair));
    const Shown text(plaintext_);
    unsigned char cipher[300];
    Wiped<LONGEST> back;
    int length = 0, backLength = 0;
    EXPECT_EQ(DevicePublicKeyEncrypt(key.get(), algorithm, nullptr, text.bytes, 48, cipher,
                                     sizeof(cipher), &length),
              1);
    EXPECT_EQ(DevicePrivateKeyDecrypt(keypair, algorithm, nullptr, cipher, length, back.bytes,
                                      LONGEST, &backLength),
              1);
    EXPECT_EQ(memcmp(back.bytes, text.bytes, 48), 0);
    cipher[length - 1] ^= 1;
    EXPECT_NE(DevicePrivateKeyDecrypt(keypair, algorithm, nullptr, cipher, length, back.bytes,
                                      LONGEST, &backLength),
              1);
  }

  __attribute__((noinline)) void UseEverything() {
    DeviceHandle device = Load(StoredDevice{.keypairs = {}}.File(), nullptr);
    EXPECT_EQ(DeviceVerifyPwd(device.get(), 1, Shown(pin_).Text(), nullptr), 1);
    const KeypairHandle sm2(Import(device.get()));
    Keypair* raw = nullptr;
    EXPECT_EQ(
        DeviceImportKeypair(device.get(), Raw(TestRsa().pair), Len(TestRsa().pair), 9, "RSA", &raw),
        1);
    const KeypairHandle rsa(raw);
    Sign(sm2.get());
    Decrypt(sm2.get(), ALGORITHM_SM2_ENCRYPT);
    Decrypt(rsa.get(), ALGORITHM_RSA_PKCS1_ENCRYPT);
    EXPECT_EQ(DeviceVerifyPwd(device.get(), 1, Shown(wrong_).Text(), nullptr), -5);
    EXPECT_EQ(Count(pin_), 1) << "the record's copy";
    EXPECT_EQ(DeviceChangePwd(device.get(), 1, Shown(pin_).Text(), Shown(second_).Text(), nullptr),
              1);
    EXPECT_EQ(Count(pin_), 0);
    const DeviceHandle again = Rescan();
    EXPECT_EQ(DeviceVerifyPwd(again.get(), 1, Shown(wrong_).Text(), nullptr), -5);
    EXPECT_EQ(DeviceVerifyPwd(again.get(), 1, Shown(second_).Text(), nullptr), 1);
    salt_ = Bytes(again->keypairs[0]->salt, again->keypairs[0]->saltLen);
    Sign(again->keypairs[0]);
  }
};

TEST_F(SecretsTest, NothingIsLeftInMemory) {
  {
    const Shown planted(plaintext_);
    EXPECT_EQ(Count(plaintext_), 1) << "what stands there is found";
  }
  for (const Secret& secret : {pin_, second_, wrong_, plaintext_, d_, k_, factor_})
    for (const std::string& part : Parts(secret)) g_watched.push_back(part);
  UseEverything();
  g_watched.clear();
  EXPECT_EQ(g_betrayed, 0);
  Wiped<32> key;
  PKCS5_PBKDF2_HMAC(Shown(second_).Text(), 40, Raw(salt_), Len(salt_), 2000, EVP_sha512(), 32,
                    key.bytes);
  const Secret derived = Masked("derived key", key.bytes, 32);
  OPENSSL_cleanse(key.bytes, 32);
  for (const Secret& secret : {pin_, second_, wrong_, plaintext_, d_, k_, factor_, derived})
    EXPECT_EQ(Count(secret), 0) << secret.what;
}
