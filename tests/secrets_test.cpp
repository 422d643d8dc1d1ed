// After use nothing secret is left in the memory of the process. PINs, private scalar, nonce,
// signing factor, derived key and plaintexts are looked for in every page that can be written:
//
//   the secrets   are constants, which stand in read-only pages: any other copy is the module's
//   free          does nothing in this program, so each block is found as it was left
//   calls         run on a stack of the test's, so their dead frames are found as they were left
#include "tests/support/own_stack.h"
#include "tests/support/world.h"

#include "sm2/multiply.h"

#include <malloc.h>
#include <algorithm>
#include <fstream>
#include <span>

extern "C" void free(void* /*block*/) {}  // nothing is given back, or used again
extern "C" void* realloc(void* block, size_t size) {
  void* const larger = malloc(size);
  if (larger != nullptr && block != nullptr)
    memcpy(larger, block, std::min(size, malloc_usable_size(block)));
  return larger;
}

namespace {
struct Secret {
  const char* what;
  std::string_view bytes;
};
constexpr Secret FIRST_PIN = {"PIN", "mnbipmjplgejediejdckpdlnkgpoibacmapkhkcg"};
constexpr Secret SECOND_PIN = {"second PIN", "ecidpopmgdpamnaoihdkaaaamgnahophlhhojand"};
constexpr Secret WRONG_PIN = {"wrong PIN", "bcclfjigbfnmloibalokmnffhhafkfelfonlllof"};
constexpr Secret PLAINTEXT = {"plaintext", "helpcapihgppmehemacfbjaipmnmoeldbepginjnmlnhkaif"};
constexpr Secret SCALAR = {"private scalar", "hjdmpeccamjbhlifdigaiigfjjlckmhf"};
constexpr Secret NONCE = {"nonce", "ilaohbfdlphmdhagnifmfceoeeaaggff"};
constexpr Secret FACTOR = {"signing factor",  // (1 + d)^-1
                           "\x3a\xaf\x13\xc7\x67\x91\xf9\x32\x5d\xf2\xf1\x68\xb6\x42\x18\x1e"
                           "\x03\xb8\xb9\xe3\x2e\x43\xb4\xc2\x78\x10\x84\x55\x58\x77\x75\x5f"};
constexpr Secret ALL[] = {FIRST_PIN, SECOND_PIN, WRONG_PIN, PLAINTEXT, SCALAR, NONCE, FACTOR};

using Memory = std::span<const char>;

template <class Iterator>
int CountPart(Memory memory, Iterator part) {
  int found = 0;
  for (auto at = memory.begin();; at++, found++) {
    at = std::search(at, memory.end(), part, part + 16);
    if (at == memory.end()) return found;
  }
}

// How often a half of the secret, its first or last 16 bytes, stands there in either byte order. No
// copy of the secret is made on the way.
int CountIn(Memory memory, std::string_view secret) {
  return std::max({CountPart(memory, secret.begin()), CountPart(memory, secret.end() - 16),
                   CountPart(memory, secret.rbegin()), CountPart(memory, secret.rend() - 16)});
}

// How often it stands in the writable pages of the process, g_stack among them.
int Count(std::string_view secret) {
  std::ifstream maps("/proc/self/maps");
  int found = 0;
  for (std::string line; std::getline(maps, line);) {
    void *begin = nullptr, *end = nullptr;
    int length = 0;
    sscanf(line.c_str(), "%p-%p rw%n", &begin, &end, &length);
    if (length > 0) found += CountIn({static_cast<char*>(begin), static_cast<char*>(end)}, secret);
  }
  return found;
}

// Makes a call that may leave no secret in its frames.
void Call(const std::function<void()>& call) {
  OnOwnStack(call);
  for (const Secret& secret : ALL) EXPECT_EQ(CountIn(g_stack, secret.bytes), 0) << secret.what;
}

KeypairHandle ImportSm2(Device* device) {
  unsigned char point[64];
  SM2MultiplyGenerator(point, Raw(SCALAR.bytes));
  std::string pair = TestSm2().pair;  // x, y and d are put in the place of its own
  memcpy(&pair[20], point, 32);
  memcpy(&pair[56], point + 32, 32);
  memcpy(&pair[92], SCALAR.bytes.data(), 32);
  KeypairHandle made = Import(device, pair, 1, "SM2");
  OPENSSL_cleanse(pair.data(), pair.size());
  return made;
}

int Verify(Device* device, const Secret& pin) {
  return DeviceVerifyPwd(device, 1, pin.bytes.data(), nullptr);
}

void Sign(Keypair* keypair) {
  unsigned char signature[100] = {};
  int length = 0;
  EXPECT_EQ(DeviceSign(keypair, ALGORITHM_SM2_SIGN, nullptr, signature, 32, signature,
                       sizeof(signature), &length),
            1);
}

void Decrypt(Keypair* keypair, unsigned int algorithm) {
  const PublicHandle key(DeviceGetPublicKeyFromKeypair(keypair));
  unsigned char cipher[300];
  int length = 0;
  EXPECT_EQ(DevicePublicKeyEncrypt(key.get(), algorithm, nullptr, Raw(PLAINTEXT.bytes), 48, cipher,
                                   sizeof(cipher), &length),
            1);
  for (const bool valid : {true, false}) {
    Wiped<300> text;
    int textLength = 0;
    EXPECT_EQ(DevicePrivateKeyDecrypt(keypair, algorithm, nullptr, cipher, length, text.bytes,
                                      sizeof(text.bytes), &textLength) == 1,
              valid);
    EXPECT_EQ(memcmp(text.bytes, PLAINTEXT.bytes.data(), 48) == 0, valid);
    cipher[length - 1] ^= 1;
  }
}

using SecretsTest = ModuleTest;

}  // namespace

// What OpenSSL draws for a signature is always the same.
extern "C" int BN_rand_range(BIGNUM* number, const BIGNUM* /*range*/) {
  return BN_bin2bn(Raw(NONCE.bytes), 32, number) != nullptr ? 1 : 0;
}

// The search itself: half a secret in a frame, and a whole one in a block, backwards.
TEST_F(SecretsTest, WhatIsLeftIsFound) {
  constexpr std::string_view PLANTED = "gfkhcbpkdplhlmdajhmnpepmmdbkoolf";
  OnOwnStack([&] {
    char frame[16];
    std::copy(PLANTED.begin() + 16, PLANTED.end(), frame);
    __asm__ volatile("" : : "r"(frame) : "memory");
    static_cast<void>(std::string(PLANTED.rbegin(), PLANTED.rend()));
  });
  EXPECT_GT(CountIn(g_stack, PLANTED), 0);
  EXPECT_GT(Count(PLANTED), CountIn(g_stack, PLANTED));
}

TEST_F(SecretsTest, NothingIsLeftInMemory) {
  char key[32];  // derived from the second PIN
  {
    const DeviceHandle device = Load(StoredDevice{.keypairs = {}}.File(), nullptr);
    KeypairHandle sm2, rsa;
    Call([&] { EXPECT_EQ(Verify(device.get(), FIRST_PIN), 1); });
    Call([&] { sm2 = ImportSm2(device.get()); });
    Call([&] { rsa = Import(device.get(), TestRsa().pair, 1, "RSA"); });
    Call([&] { Sign(sm2.get()); });
    EXPECT_EQ(memcmp(sm2->signingFactor.inverse, FACTOR.bytes.data(), 32), 0);
    Call([&] { Decrypt(sm2.get(), ALGORITHM_SM2_ENCRYPT); });
    Call([&] { Decrypt(rsa.get(), ALGORITHM_RSA_PKCS1_ENCRYPT); });
    Call([&] { EXPECT_EQ(Verify(device.get(), WRONG_PIN), -5); });
    EXPECT_EQ(Count(FIRST_PIN.bytes), 1) << "the record's copy";
    Call([&] {
      EXPECT_EQ(DeviceChangePwd(device.get(), 1, FIRST_PIN.bytes.data(), SECOND_PIN.bytes.data(),
                                nullptr),
                1);
    });
    EXPECT_EQ(Count(FIRST_PIN.bytes), 0);
    const DeviceHandle again = Rescan();
    Call([&] { EXPECT_EQ(Verify(again.get(), WRONG_PIN), -5); });
    Call([&] { EXPECT_EQ(Verify(again.get(), SECOND_PIN), 1); });
    const Keypair& k = *again->keypairs[1];  // the last one that is opened
    PKCS5_PBKDF2_HMAC(SECOND_PIN.bytes.data(), Len(SECOND_PIN.bytes), k.salt, k.saltLen, 2000,
                      EVP_sha512(), sizeof(key), reinterpret_cast<unsigned char*>(key));
    EXPECT_EQ(CountIn(g_stack, {key, sizeof(key)}), 0) << "derived key";
    Call([&] { Sign(again->keypairs[0]); });
    // What a blob with a wrong tag deciphers to is nobody's to see.
    const std::string blob =
        Bytes(again->keypairs[0]->encryptedPrivateKey, again->keypairs[0]->encryptedPrivateKeyLen);
    const std::string text =
        Replaced(TextOf(Read("dev")), Hex(blob), Hex(Flipped(blob, blob.size() - 1)));
    const DeviceHandle damaged = Load(Container(TAG, text), nullptr);
    Call([&] { EXPECT_EQ(Verify(damaged.get(), SECOND_PIN), -5); });
  }
  for (const Secret& secret : ALL) EXPECT_EQ(Count(secret.bytes), 0) << secret.what;
  EXPECT_EQ(Count({key, sizeof(key)}), 1) << "derived key: the one here";
}
