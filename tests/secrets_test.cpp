// After use, nothing secret is left in the memory of the process: PINs, private scalar, nonce,
// signing factor, derived key and plaintexts are looked for in every page that can be written. The
// secrets themselves stand in read-only pages. What is given back is never used again in this
// program, and calls run on a stack of their own: each block and each frame is found as it was
// left. Nor does the time that a computation takes tell a secret; valgrind's memory checker sees to
// that.
#include "tests/support/world.h"

#include "keypair/keypair.h"
#include "sm2/field.h"
#include "sm2/field_x86.h"
#include "sm2/multiply.h"
#include "sm2/multiply_paths.h"
#include "sm2/parameters.h"
#include "sm2/scalar.h"
#include "sm2/sm2.h"

#include <malloc.h>
#include <openssl/rand.h>
#include <ucontext.h>
#include <valgrind/memcheck.h>
#include <algorithm>
#include <fstream>
#include <functional>
#include <span>

extern "C" void free(void* /*block*/) {}
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
  auto at = memory.begin();
  while ((at = std::search(at, memory.end(), part, part + 16)) != memory.end()) at++, found++;
  return found;
}

// How often its first or last 16 bytes stand there, in either byte order.
int CountIn(Memory memory, std::string_view secret) {
  return std::max({CountPart(memory, secret.begin()), CountPart(memory, secret.end() - 16),
                   CountPart(memory, secret.rbegin()), CountPart(memory, secret.rend() - 16)});
}

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

alignas(16) char g_stack[1 << 18];

// The dead frames of `work` are what g_stack holds afterwards.
void OnOwnStack(const std::function<void()>& work) {
  static const std::function<void()>* run;
  static ucontext_t start, here, there;
  static const int started = getcontext(&start);  // the same registers each time
  EXPECT_EQ(started, 0);
  run = &work;
  there = start;
  there.uc_stack = {.ss_sp = g_stack, .ss_flags = 0, .ss_size = sizeof(g_stack)};
  there.uc_link = &here;
  makecontext(
      &there, [] { (*run)(); }, 0);
  swapcontext(&here, &there);
}

// A call after which no frame may hold a secret.
void Call(const std::function<void()>& work) {
  OnOwnStack(work);
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

extern "C" int BN_rand_range(BIGNUM* number, const BIGNUM* /*range*/) {
  return BN_bin2bn(Raw(NONCE.bytes), 32, number) != nullptr ? 1 : 0;
}

TEST_F(SecretsTest, WhatIsLeftIsFound) {
  constexpr std::string_view PLANTED = "gfkhcbpkdplhlmdajhmnpepmmdbkoolf";
  OnOwnStack([&] {
    char frame[16];
    std::copy(PLANTED.begin() + 16, PLANTED.end(), frame);
    __asm__ volatile("" : : "r"(frame) : "memory");
    static_cast<void>(std::string(PLANTED.rbegin(), PLANTED.rend()));
  });
  EXPECT_GT(CountIn(g_stack, PLANTED), 0) << "its second half";
  EXPECT_GT(Count(PLANTED), CountIn(g_stack, PLANTED)) << "backwards, in a block";
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

// --- Arithmetic ----------------------------------------------------------------------------------

namespace {
// What arithmetic reads and writes: a secret number k, as a scalar too, a point, and the result.
unsigned char g_k[32], g_point[64];
alignas(sm2::U256) unsigned char g_out[64];
sm2::U256 g_a;
sm2::U256& g_r = reinterpret_cast<sm2::U256&>(g_out);
auto& g_bytes = reinterpret_cast<unsigned char (&)[32]>(g_out);

using Works = std::vector<std::pair<const char*, std::function<void()>>>;

// Not by CPUID: valgrind answers that, without ADX, but runs it all the same.
bool ProcessorHasAdx() {
  const std::string text = ReadText("/proc/cpuinfo");
  const auto has = [&](const char* flag) { return text.find(flag) != std::string::npos; };
  return has(" adx") && has(" bmi2") && has(" avx2");
}

template <class Field>
void AddMultiples(Works& works, const char* generator, const char* point) {
  works.emplace_back(generator, [] { sm2::MultiplyGenerator<Field>(g_out, g_k); });
  works.emplace_back(point, [] { sm2::MultiplyPoint<Field>(g_out, g_k, g_point); });
}

Works Arithmetic() {
  Works works = {{"reading", [] { ReadScalar(g_r, g_k, 32); }},
                 {"writing", [] { WriteScalar(g_bytes, g_a); }},
                 {"is zero", [] { g_out[31] = IsZeroScalar(g_a); }},
                 {"sum", [] { AddScalars(g_r, g_a, g_a); }},
                 {"difference", [] { SubtractScalars(g_r, g_r, g_a); }},
                 {"product", [] { MultiplyScalars(g_r, g_a, g_a); }},
                 {"inverse", [] { InvertScalar(g_r, g_a); }}};
  AddMultiples<sm2::PortableField>(works, "[k]G, portable", "[k]P, portable");
#ifdef __x86_64__
  if (ProcessorHasAdx()) AddMultiples<sm2::AdxField>(works, "[k]G, ADX", "[k]P, ADX");
#endif
  return works;
}

// What decryption does with the shared point, up to the compare with C3.
void CheckC3() {
  unsigned char text[32];
  SM2KDF(g_k, 32, text, 32);
  g_out[31] = IsAllZero(text, 32) == 1;
  Xor(text, SM2_CURVE.gx, 32);
  SM3C3(g_k, g_k, text, 32, g_out);
  g_out[31] ^= CRYPTO_memcmp(g_out, SM2_CURVE.gx, 32) == 0;
}

// Of each byte of the PINs some bits are known, so that none of them may be NUL.
void ComparePins() {
  unsigned char unknown[32] = {};
  memset(unknown, 0x0f, 31);
  char pin[] = "abcdefghijklmnopqrstuvwxyzabcde", wrong[] = "abcdefghijklmnopqrstuvwxyzabcdf";
  VALGRIND_SET_VBITS(pin, unknown, 32);
  VALGRIND_SET_VBITS(wrong, unknown, 32);
  g_out[31] = (IsSamePin(pin, pin) ^ IsSamePin(pin, wrong)) == 1;
}
}  // namespace

#ifdef __OPTIMIZE__  // other code keeps copies of its own
// What arithmetic leaves on the stack may not depend on its operand: then nothing of it is there.
TEST_F(SecretsTest, ArithmeticLeavesNothingOnTheStack) {
  SM2MultiplyGenerator(g_point, Raw(SCALAR.bytes));
  for (const auto& [what, work] : Arithmetic()) {
    std::string left[3];
    for (std::string& stack : left) {
      RAND_bytes(g_k, sizeof(g_k));
      ReadScalar(g_a, g_k, sizeof(g_k));
      OnOwnStack(work);
      stack.assign(g_stack, sizeof(g_stack));
    }
    EXPECT_TRUE(left[1] == left[2]) << what;  // the first call may settle things for good
  }
}
#endif

// Under valgrind's memory checker, with the secrets marked as undefined memory, each branch and
// each address that depends on one is an error. A branch on what was computed has to be one, or the
// checker does not see through the assembler and a clean run says nothing.
TEST_F(SecretsTest, NoBranchOrAddressDependsOnASecret) {
  if (RUNNING_ON_VALGRIND == 0) GTEST_SKIP() << "valgrind has to watch";
  SM2MultiplyGenerator(g_point, Raw(SCALAR.bytes));
  Works works = Arithmetic();
  works.emplace_back("C3", CheckC3);
  works.emplace_back("PINs", ComparePins);
  VALGRIND_MAKE_MEM_UNDEFINED(g_k, sizeof(g_k));
  VALGRIND_MAKE_MEM_UNDEFINED(&g_a, sizeof(g_a));
  for (const auto& [what, work] : works) {
    memset(g_out, 0, sizeof(g_out));
    const unsigned long before = VALGRIND_COUNT_ERRORS;
    work();
    const unsigned long after = VALGRIND_COUNT_ERRORS;
    if (g_out[31] % 2 == 1) puts("odd");
    EXPECT_EQ(after, before) << what;
    EXPECT_GT(VALGRIND_COUNT_ERRORS, after) << what;
  }
}
