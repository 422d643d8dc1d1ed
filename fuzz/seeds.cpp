// Writes the kept corpora: fuzz_seeds FOLDER. Small real inputs of every kind, and a few that are
// refused late. Signatures, ciphertexts and the small RSA key differ with every run.
#include "fuzz/fuzz.h"

#include <openssl/rsa.h>
#include <filesystem>
#include <fstream>

static std::filesystem::path g_corpus;

static void Seed(const char* target, const char* name, std::string_view bytes) {
  std::filesystem::create_directories(g_corpus / target);
  std::ofstream(g_corpus / target / name, std::ios::binary) << bytes;
}

template <class Encoder>
static std::string Der(EVP_PKEY* key, Encoder encode) {
  unsigned char* der = nullptr;
  const int length = encode(key, &der);
  const OpensslBytes owned(der);
  DEMAND(length > 0);
  return std::string(View(der, static_cast<size_t>(length)));
}

static const TestKey& SmallRsa() {
  static const TestKey key = [] {
    EVP_PKEY* const rsa = EVP_RSA_gen(512);
    return TestKey{ALGORITHM_RSA,
                   512,
                   0,
                   rsa,
                   "_KEYPAIR" + Word(1) + Der(rsa, i2d_PrivateKey),
                   "_PUBKEY_" + Word(1) + Der(rsa, i2d_PublicKey),
                   {},
                   {}};
  }();
  return key;
}

// The device_file target takes the last byte of the digest for the choice of a rewrite.
static std::string WithRewrite(const StoredDevice& device, char which) {
  std::string file = device.File();
  file.back() = which;
  return file;
}

static void Devices() {
  const std::string p256 = StoredKeypair{.certs = {"one", "two"}}.Json();
  const std::string sm2 = StoredKeypair{.label = "encrypt", .key = &TestSm2()}.Json();
  const std::string rsa = StoredKeypair{.label = "", .type = -2, .key = &SmallRsa()}.Json();
  const std::string datas = Array({StoredData(1, "abc"), StoredData(2, "d")});
  Seed("device_file", "empty", StoredDevice{.keypairs = {}}.File());
  Seed("device_file", "odd",
       StoredDevice{.keypairs = {"[1,2]", p256, "null"}, .more = {"[]"}}.File());
  const std::string longest(63, 'n');
  const std::vector<std::string> certs(10, "a certificate of many");
  const StoredDevice full{.serialNumber = longest,
                          .label = longest,
                          .keypairs = {StoredKeypair{.label = longest, .certs = certs}.Json()}};
  Seed("device_file", "full", WithRewrite(full, '1'));
  for (const char which : {'0', '1', '2', '3'}) {
    StoredDevice device{.keypairs = {p256, sm2}};
    if (which == '1') device.keypairs.push_back(rsa);
    if (which == '1' || which == '3') device.more = {datas};
    Seed("device_file", (std::string("rewrite") + which).c_str(), WithRewrite(device, which));
  }
  Seed("data_objects", "none", "[]");
  Seed("data_objects", "two", datas);
  Seed("data_objects", "reserved", R"([[-1,0,5,2147483647,""],[7,2,0,0,"aBCd"]],"more")");
  Seed("data_objects", "short", R"([[1,3,0,0,"0102"]])");
  Seed("data_objects", "not-a-list", R"("abc")");
}

static void Keys() {
  const std::string coordinate(48, '\1');
  const struct {
    const char* name;
    std::string pair, publicKey;
  } seeds[] = {
      {"p256", TestP256().pair, TestP256().publicKey},
      {"sm2", TestSm2().pair, TestSm2().publicKey},
      {"rsa", SmallRsa().pair, SmallRsa().publicKey},
      {"p384", EccPair(4, coordinate, coordinate, "\1"), EccPublic(4, coordinate, coordinate)},
      {"algorithm", "_KEYPAIR" + Word(2) + "body", "_PUBKEY_" + Word(2) + "body"},
  };
  for (const auto& seed : seeds) {
    Seed("keypair_encoding", seed.name, seed.pair);
    Seed("public_key_encoding", seed.name, seed.publicKey);
  }
}

// OpenSSL's signature of 32 zero bytes.
static std::string Sign(const TestKey& key) {
  using Context = std::unique_ptr<EVP_PKEY_CTX, Release<EVP_PKEY_CTX_free>>;
  const Context context(EVP_PKEY_CTX_new(key.key, nullptr));
  const unsigned char digest[32] = {};
  unsigned char bytes[80];
  size_t length = sizeof(bytes);
  DEMAND(context && EVP_PKEY_sign_init(context.get()) == 1 &&
         EVP_PKEY_sign(context.get(), bytes, &length, digest, sizeof(digest)) == 1);
  return std::string(View(bytes, length));
}

static void Signatures() {
  Seed("ecc_signature", "p256", Sign(TestP256()));
  Seed("ecc_signature", "sm2", Sign(TestSm2()));
  Seed("ecc_signature", "small", Unhex("3006020101020101"));
  Seed("ecc_signature", "padded", Unhex("300702020080020101"));
  Seed("ecc_signature", "negative", Unhex("3006020180020101"));
}

static void Ciphertexts() {
  const World world;
  PublicKey* raw = nullptr;
  DEMAND(DeviceImportPublicKey(nullptr, Raw(TestSm2().publicKey), Len(TestSm2().publicKey), &raw) ==
         1);
  const PublicHandle key(raw);
  for (const size_t length : {1u, 32u, 33u, 100u}) {
    const std::string plain(length, 'm');
    std::string cipher(length + 97, '\0');
    int written = 0;
    DEMAND(DevicePublicKeyEncrypt(key.get(), ALGORITHM_SM2_ENCRYPT, nullptr, Raw(plain), Len(plain),
                                  reinterpret_cast<unsigned char*>(cipher.data()), Len(cipher),
                                  &written) == 1);
    Seed("sm2_ciphertext", std::to_string(length).c_str(), cipher);
  }
  Seed("sm2_ciphertext", "plaintext", "message");
  Seed("sm2_ciphertext", "zeros", '\4' + std::string(129, '\0'));
}

static void Texts() {
  Seed("json", "device", TextOf(StoredDevice{}.File()));
  Seed("json", "numbers", "[0,-0,1.5,1e3,-2147483648,4294967296,1e308,1e400,0.1,1E-400]");
  Seed("json", "strings",
       "[\"\\u00e9\\ud83d\\ude00\\\"\\\\\\/\\b\\f\\n\\r\\t\\u0000\",\"\x80\xff\"]");
  Seed("json", "controls", R"(["\u0001\u001f\u007f"])");
  Seed("json", "values", " { \"a\" : [ true , false , null , { } ] } ");
  Seed("json", "deep", std::string(64, '[') + std::string(64, ']'));
  Seed("hex", "both-cases", "00ff0aF9aBCdEf");
  Seed("hex", "odd", "123");
  Seed("base64", "no-padding", "AAECAwQF");
  Seed("base64", "one", "AAECAw==");
  Seed("base64", "two", "+/8=");
  Seed("base64", "left-over-bits", "AB==");
}

int main(int argc, char** argv) {
  DEMAND(argc == 2);
  g_corpus = argv[1];
  Devices();
  Keys();
  Signatures();
  Ciphertexts();
  Texts();
  return 0;
}

// The common part of the targets declares one; here it does nothing.
extern "C" int LLVMFuzzerTestOneInput(const unsigned char*, size_t) { return 0; }
