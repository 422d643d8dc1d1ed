// SM2: the published examples with their fixed k, OpenSSL's EVP SM2 both ways, and every input
// that must not pass.
#include "sm2/sm2.h"
#include "keypair/keypair.h"
#include "tests/support/operations.h"

class Sm2Test : public OperationsTest {
 protected:
  static EvpKey KeyOf(const std::string& x, const std::string& y, const std::string& d) {
    const std::string pair = EccPair(7, x, y, d);
    int curve = 0;
    return EvpKey(DecodeECCPair(Raw(pair), Len(pair), &curve));
  }
  static EvpKey OwnKey() {
    const std::string& point = TestSm2().point;
    return KeyOf(point.substr(1, 32), point.substr(33), TestSm2().scalar);
  }
  // GB/T 32918.2, 5.5: e = SM3(Z || M).
  std::string DigestE(const std::string& point, const std::string& message) {
    const std::string z =
        std::string("\x00\x80", 2) + v["id"] + v["a"] + v["b"] + v["gx"] + v["gy"];
    return Digest("SM3", Digest("SM3", z + point.substr(1)) + message);
  }
  static std::string Der(const std::string& r, const std::string& s) {
    return Tlv('\x30', Number(r) + Number(s));
  }
  // OpenSSL's ciphertext is SEQUENCE { x, y, C3, C2 }.
  static std::string ToDer(const std::string& c) {
    const size_t end = c.size() - 32;
    return Tlv('\x30', Number(c.substr(1, 32)) + Number(c.substr(33, 32)) +
                           Tlv('\x04', c.substr(end)) + Tlv('\x04', c.substr(65, end - 65)));
  }
  static std::string FromDer(const std::string& der) {
    size_t at = 0;
    Next(der, &at, false);
    std::string parts[4];
    for (std::string& part : parts) part = Next(der, &at, true);
    for (std::string* n : {&parts[0], &parts[1]})
      *n = n->size() > 32 ? n->substr(n->size() - 32) : std::string(32 - n->size(), '\0') + *n;
    return '\x04' + parts[0] + parts[1] + parts[3] + parts[2];
  }

  static std::string Number(std::string n) {
    while (n.size() > 1 && n[0] == '\0') n.erase(0, 1);
    return Tlv('\x02', n.empty() || (n[0] & 0x80) != 0 ? '\0' + n : n);
  }
  static std::string Tlv(char type, const std::string& content) {
    std::string length(1, static_cast<char>(content.size()));
    if (content.size() > 127)
      length = Word(static_cast<unsigned int>(content.size() | 0x82000000)).erase(1, 1);
    return type + length + content;
  }

  std::map<std::string, std::string> v = ReadVectors("sm2_signature.txt");

 private:
  static std::string Next(const std::string& der, size_t* at, bool take) {
    size_t length = static_cast<unsigned char>(der.at(*at + 1));
    *at += 2;
    for (size_t n = length > 128 ? length - 128 : 0, first = n; n > 0; n--)
      length = (n == first ? 0 : length << 8) | static_cast<unsigned char>(der.at((*at)++));
    const std::string content = der.substr(*at, length);
    if (take) *at += length;
    return content;
  }
};

TEST_F(Sm2Test, SignsThePublishedExample) {
  EXPECT_EQ(Hex(DigestE('\x04' + v["x"] + v["y"], v["message"])), Hex(v["e"]));
  const EvpKey key = KeyOf(v["x"], v["y"], v["d"]);
  const std::string k = Hex(v["k"]);
  FixRandRange({"0", k.c_str()});  // zero must be drawn again
  unsigned char* raw = nullptr;
  int length = 0;
  ASSERT_EQ(SM2Sign(key.get(), Raw(v["e"]), 32, &raw, &length), 1);
  const LibBytes signature(raw);
  EXPECT_EQ(Hex(Bytes(raw, length)), Hex(Der(v["r"], v["s"])));
  EXPECT_EQ(SM2Verify(key.get(), Raw(v["e"]), 32, raw, length), 1);
}

TEST_F(Sm2Test, EncryptsThePublishedExample) {
  v = ReadVectors("sm2_encryption.txt");
  const EvpKey key = KeyOf(v["x"], v["y"], v["d"]);
  const std::string want = '\x04' + v["x1"] + v["y1"] + v["c2"] + v["c3"];
  const std::string k = Hex(v["k"]);
  FixRandRange({"0", k.c_str()});
  unsigned char out[19 + 97];
  ASSERT_EQ(SM2Encrypt(key.get(), Raw(v["m"]), 19, out), 1);
  EXPECT_EQ(Hex(Bytes(out, sizeof(out))), Hex(want));
  ASSERT_EQ(SM2Decrypt(key.get(), Raw(want), Len(want), out), 1);
  EXPECT_EQ(Bytes(out, 19), v["m"]);
}

TEST_F(Sm2Test, SignaturesVerifyBothWays) {
  for (int i = 0; i < 20; i++) {
    const std::string message(static_cast<size_t>(i), 'm');
    const std::string e = DigestE(TestSm2().point, message);
    const std::string here = Sign(sm2_, 4096, e);
    EXPECT_TRUE(EvpVerify(TestSm2().key, e, here));
    const std::string there = EvpSign(TestSm2().key, e);
    PublicKey* key = sm2Public_.get();
    EXPECT_EQ(Verify(key, 4096, e, there), 1);
    EXPECT_EQ(Verify(key, 4096, e, here), 1);
    EXPECT_EQ(Verify(key, 4096, Flipped(e, static_cast<size_t>(i)), there), 0);
    EXPECT_EQ(Verify(key, 4096, e, Flipped(there, there.size() - 1)), 0);
    EXPECT_EQ(Verify(key, 4096, e, Flipped(there, 20)), 0);
    EXPECT_NE(here, Sign(sm2_, 4096, e)) << "a fresh k each time";
  }
}

TEST_F(Sm2Test, VerificationRefuses) {
  const EvpKey key = KeyOf(v["x"], v["y"], v["d"]);
  const std::string one(1, '\1');
  const std::string good = Der(v["r"], v["s"]);
  const struct {
    const char* what;
    std::string signature;
    int want;
  } cases[] = {
      {"as published", good, 1},
      {"r = 0", Der("", v["s"]), 0},
      {"s = 0", Der(v["r"], ""), 0},
      {"r = n", Der(v["n"], v["s"]), 0},
      {"s = n", Der(v["r"], v["n"]), 0},
      {"r = 2^256 - 1", Der(std::string(32, '\xff'), v["s"]), 0},
      {"r + s = n", Der(v["r"], v["s_minus_r"]), 0},
      {"r of 33 bytes", Der(one + v["r"], v["s"]), 0},
      {"s of 33 bytes", Der(v["r"], one + v["s"]), 0},
      {"r negative", Tlv('\x30', Tlv('\x02', v["r"]) + Number(v["s"])), 0},
      {"a zero too many", Tlv('\x30', Tlv('\x02', std::string(2, '\0') + v["r"]) + Number(v["s"])),
       0},
      {"a byte behind", good + '\0', 0},
      {"cut", good.substr(0, good.size() - 1), 0},
      {"empty", "", 0},
      {"r and s exchanged", Der(v["s"], v["r"]), 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const long live = LiveAllocations();
    EXPECT_EQ(SM2Verify(key.get(), Raw(v["e"]), 32, Raw(c.signature), Len(c.signature)), c.want);
    EXPECT_EQ(LiveAllocations(), live);
  }
  EXPECT_EQ(SM2Verify(TestP256().key, Raw(v["e"]), 32, Raw(good), Len(good)), 0);
}

// e is any number: 31 or 33 bytes, or beyond n, where it counts modulo n.
TEST_F(Sm2Test, EIsReadAsANumberModuloN) {
  const EvpKey key = OwnKey();
  const std::string small = "\5", large = v["n"].substr(0, 31) + "\x28";  // n + 5
  for (const auto& [signedE, verifiedE] :
       {std::pair{small, large}, std::pair{large, small},
        std::pair{std::string(32, '\0') + small, small},
        std::pair{std::string(33, '\xee'), std::string(33, '\xee')}}) {
    unsigned char* raw = nullptr;
    int length = 0;
    ASSERT_EQ(SM2Sign(key.get(), Raw(signedE), Len(signedE), &raw, &length), 1);
    const LibBytes signature(raw);
    EXPECT_EQ(SM2Verify(key.get(), Raw(verifiedE), Len(verifiedE), raw, length), 1) << Hex(signedE);
  }
}

// With d = n - 1 there is no inverse of 1 + d; with a bad k the standard asks for another.
TEST_F(Sm2Test, SigningFailsOrTriesAgain) {
  const BigNum d(BN_bin2bn(Raw(v["n"]), 32, nullptr));
  BN_sub_word(d.get(), 1);
  unsigned char* raw = nullptr;
  int length = 0;
  EXPECT_EQ(TrySM2Sign(d.get(), Raw(v["e"]), 32, &raw, &length), 0);
  const EvpKey key = OwnKey();
  for (const char* name : {"e_r_zero", "e_r_plus_k"}) {
    SCOPED_TRACE(name);
    FixRandRange({"1"});
    EXPECT_EQ(TrySM2Sign(BN_value_one(), Raw(v[name]), 32, &raw, &length), -1);
    FixRandRange({"1"});  // then true draws
    ASSERT_EQ(SM2Sign(key.get(), Raw(v[name]), 32, &raw, &length), 1);
    EXPECT_EQ(SM2Verify(key.get(), Raw(v[name]), 32, raw, length), 1);
    VakroPKICryptoFreeMemory(raw);
  }
}

TEST_F(Sm2Test, CiphertextsDecryptBothWays) {
  for (const size_t n : {1u, 31u, 32u, 33u, 64u, 100u, 300u}) {
    SCOPED_TRACE(n);
    const std::string text(n, 't');
    const std::string cipher = Encrypt(sm2Public_.get(), 64, text);
    ASSERT_EQ(cipher.size(), n + 97);
    EXPECT_EQ(Decrypt(sm2_, 64, cipher), text);
    EXPECT_EQ(EvpDecrypt(TestSm2().key, ToDer(cipher)), text);
    EXPECT_EQ(Decrypt(sm2_, 64, FromDer(EvpEncrypt(TestSm2().key, text))), text);
    EXPECT_NE(cipher, Encrypt(sm2Public_.get(), 64, text));
  }
  EXPECT_EQ(Encrypt(sm2Public_.get(), 64, ""), "result 0");
}

TEST_F(Sm2Test, ABadCiphertextLeavesTheOutputZero) {
  const std::string text(40, 't');
  const std::string good = Encrypt(sm2Public_.get(), 64, text);
  std::vector<std::pair<std::string, std::string>> cases = {
      {"cut", good.substr(0, good.size() - 1)},
      {"a byte behind", good + "x"},
      {"compressed", '\x02' + good.substr(1)},
      {"compressed, odd", '\x03' + good.substr(1)},
      {"hybrid", '\x06' + good.substr(1)},
      {"at infinity", '\0' + good.substr(1)},
      {"zero point", '\x04' + std::string(64, '\0') + good.substr(65)},
      {"x beyond p", '\x04' + std::string(32, '\xff') + good.substr(33)},
      {"98 bytes", good.substr(0, 98)},
  };
  for (size_t i = 1; i < good.size(); i += 5)
    cases.emplace_back("byte " + std::to_string(i), Flipped(good, i));
  for (const auto& [what, cipher] : cases) {
    SCOPED_TRACE(what);
    unsigned char out[64];
    memset(out, 0xaa, sizeof(out));
    int length = 0;
    EXPECT_EQ(
        DevicePrivateKeyDecrypt(sm2_, 64, nullptr, Raw(cipher), Len(cipher), out, 64, &length), 0);
    EXPECT_TRUE(IsAllZero(out, Len(cipher) - 97)) << Hex(Bytes(out, 64));
    EXPECT_EQ(out[63], 0xaa) << "written beyond the plaintext";
  }
  EXPECT_EQ(Decrypt(sm2_, 64, good.substr(0, 97)), "result 0");
  EXPECT_EQ(Decrypt(p256_, 64, good), "result 0");
}

TEST_F(Sm2Test, TheKeyStreamIsSm3OverACounter) {
  const std::string z(64, 'z');
  std::string stream;
  for (unsigned int ct = 1; ct <= 3; ct++) stream += Digest("SM3", z + Word(ct));
  for (const int n : {-1, 0, 1, 31, 32, 33, 64, 65}) {
    unsigned char out[80];
    memset(out, 0xaa, sizeof(out));
    EXPECT_EQ(SM2KDF(Raw(z), 64, out, n), 1);
    const size_t written = n < 0 ? 0 : static_cast<size_t>(n);
    EXPECT_EQ(Bytes(out, 80), stream.substr(0, written) + std::string(80 - written, '\xaa')) << n;
  }
  unsigned char c3[32];
  EXPECT_EQ(SM3C3(Raw(z), Raw(z) + 1, Raw("m"), 1, c3), 1);
  EXPECT_EQ(Bytes(c3, 32), Digest("SM3", z.substr(0, 32) + "m" + z.substr(1, 32)));
}

TEST_F(Sm2Test, ByteHelpers) {
  for (const size_t i : {0u, 15u, 31u}) {
    const std::string bytes = Flipped(std::string(32, '\0'), i, 0x80);
    EXPECT_EQ(IsAllZero(Raw(bytes), 32), 0);
    EXPECT_EQ(IsAllZero(Raw(bytes), static_cast<int>(i)), 1);
    EXPECT_EQ(IsAllZero(Raw(bytes), -1), 1);
  }
  unsigned char bytes[4] = {};
  for (const int length : {3, 0, -1}) Xor(bytes, Raw("abcd"), length);
  EXPECT_EQ(Bytes(bytes, 4), std::string("abc\0", 4));
}
