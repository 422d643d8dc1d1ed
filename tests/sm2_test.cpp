// SM2: the published examples with their fixed k, OpenSSL's signatures both ways, and every input
// that must not pass.
#include "sm2/sm2.h"
#include "sm2/multiply.h"
#include "tests/support/operations.h"

namespace {

EvpKey KeyOf(const std::string& x, const std::string& y, const std::string& d) {
  const std::string pair = EccPair(7, x, y, d);
  int curve = 0;
  return EvpKey(DecodeECCPair(Raw(pair), Len(pair), &curve));
}

std::string Der(const std::string& r, const std::string& s) {
  const std::unique_ptr<ECDSA_SIG, Release<ECDSA_SIG_free>> signature(ECDSA_SIG_new());
  ECDSA_SIG_set0(signature.get(), BN_bin2bn(Raw(r), Len(r), nullptr),
                 BN_bin2bn(Raw(s), Len(s), nullptr));
  unsigned char der[80], *at = der;
  return Bytes(der, i2d_ECDSA_SIG(signature.get(), &at));
}

std::string SignE(EVP_PKEY* key, const std::string& e) {
  unsigned char* signature = nullptr;
  int length = 0;
  if (SM2Sign(key, Raw(e), Len(e), &signature, &length) != 1) return "failed";
  const LibBytes owned(signature);
  return Bytes(signature, length);
}

int VerifyE(EVP_PKEY* key, const std::string& e, const std::string& signature) {
  return SM2Verify(key, Raw(e), Len(e), Raw(signature), Len(signature));
}

// An e for which r and s, any numbers, fulfil the equation that is verified: e = r - x1 mod n,
// where (x1, y1) = [s]G + [r + s]P.
std::string ForgedE(const std::string& point, const std::string& r, const std::string& s) {
  SM2Scalar rNumber, t, x1;
  unsigned char bytes[32], sum[64];
  SM2ReadScalar(&rNumber, Raw(r), Len(r));
  SM2ReadScalar(&t, Raw(s), Len(s));
  SM2AddScalars(&t, &rNumber, &t);
  SM2WriteScalar(bytes, &t);
  SM2MultiplyPublic(sum, Raw(s), Raw(point), bytes);
  SM2ReadScalar(&x1, sum, 32);
  SM2SubtractScalars(&x1, &rNumber, &x1);
  SM2WriteScalar(bytes, &x1);
  return Bytes(bytes, 32);
}

// The ciphertext of m under C1, whether or not that is a point of the curve.
std::string ForgedCiphertext(const std::string& c1, const std::string& m) {
  unsigned char shared[64], c2[64], c3[32];
  SM2MultiplyPoint(shared, Raw(TestSm2().Scalar()), Raw(c1));
  SM2KDF(shared, 64, c2, Len(m));
  Xor(c2, Raw(m), Len(m));
  SM3C3(shared, shared + 32, Raw(m), Len(m), c3);
  return '\x04' + c1 + Bytes(c2, Len(m)) + Bytes(c3, 32);
}

class Sm2Test : public OperationsTest {
 protected:
  std::map<std::string, std::string> v = ReadVectors("sm2_signature.txt");
};

}  // namespace

TEST_F(Sm2Test, PublishedExamples) {
  const EvpKey signer = KeyOf(v["x"], v["y"], v["d"]);
  FixRandom(std::string(32, '\0') + v["k"]);  // zero must be drawn again
  EXPECT_EQ(Hex(SignE(signer.get(), v["e"])), Hex(Der(v["r"], v["s"])));

  v = ReadVectors("sm2_encryption.txt");
  const EvpKey key = KeyOf(v["x"], v["y"], v["d"]);
  const std::string want = '\x04' + v["x1"] + v["y1"] + v["c2"] + v["c3"];
  unsigned char out[19 + 97];
  FixRandom(std::string(32, '\0') + v["k"]);
  ASSERT_EQ(SM2Encrypt(key.get(), Raw(v["m"]), 19, out), 1);
  EXPECT_EQ(Hex(Bytes(out, sizeof(out))), Hex(want));
  ASSERT_EQ(SM2Decrypt(key.get(), Raw(want), Len(want), out), 1);
  EXPECT_EQ(Bytes(out, 19), v["m"]);
}

TEST_F(Sm2Test, SignaturesVerifyBothWays) {
  PublicKey* const key = sm2Public_.get();
  for (int i = 0; i < 20; i++) {
    const std::string e(32, static_cast<char>(13 * i));
    const std::string here = Sign(sm2_, 4096, e), there = EvpSign(TestSm2().key, e);
    EXPECT_TRUE(EvpVerify(TestSm2().key, e, here));
    EXPECT_EQ(Verify(key, 4096, e, there), 1);
    EXPECT_NE(here, Sign(sm2_, 4096, e)) << "a fresh k each time";
  }
}

// Each would be valid but for the one check that refuses it.
TEST_F(Sm2Test, VerificationRefuses) {
  const EvpKey key = KeyOf(v["x"], v["y"], v["d"]);
  const auto near = [](const std::string& base, char last) { return base.substr(0, 31) + last; };
  const std::string zero(32, '\0'), n = v["n"];
  const struct {
    const char* what;
    std::string r, s;
    int want;
  } cases[] = {{"5 and 7", near(zero, 5), near(zero, 7), 1},
               {"r = 0", near(zero, 0), near(zero, 7), 0},
               {"s = 0", near(zero, 5), near(zero, 0), 0},
               {"r = n + 5", near(n, 0x28), near(zero, 7), 0},
               {"s = n + 7", near(zero, 5), near(n, 0x2a), 0},
               {"r + s = n", near(n, 0x1c), near(zero, 7), 0}};
  for (const auto& c : cases) {
    const std::string e = ForgedE(v["x"] + v["y"], c.r, c.s);
    const long live = LiveAllocations();
    EXPECT_EQ(VerifyE(key.get(), e, Der(c.r, c.s)), c.want) << c.what;
    EXPECT_EQ(LiveAllocations(), live) << c.what;
  }
  EXPECT_EQ(VerifyE(key.get(), v["e"], Der('\1' + v["r"], v["s"])), 0) << "33 bytes";
  EXPECT_EQ(VerifyE(TestP256().key, v["e"], Der(v["r"], v["s"])), 0);
}

// e is any number: 31 or 33 bytes, or beyond n, where it counts modulo n.
TEST_F(Sm2Test, EIsReadAsANumberModuloN) {
  const EvpKey key = KeyOf(v["x"], v["y"], v["d"]);
  const std::string five = "\5", more = v["n"].substr(0, 31) + "\x28";  // n + 5
  const std::string padded = std::string(32, '\0') + five, large(33, '\xee');
  for (const auto& [e, same] :
       {std::pair{five, more}, {more, five}, {padded, five}, {large, large}})
    EXPECT_EQ(VerifyE(key.get(), same, SignE(key.get(), e)), 1) << Hex(e);
}

// With d = n - 1 there is no inverse of 1 + d; with a bad k the standard asks for another.
TEST_F(Sm2Test, SigningFailsOrTriesAgain) {
  const BigNum d(BN_bin2bn(Raw(v["n"]), 32, nullptr));
  BN_sub_word(d.get(), 1);
  unsigned char* raw = nullptr;
  int length = 0;
  EXPECT_EQ(TrySM2Sign(d.get(), Raw(v["e"]), 32, &raw, &length), 0);
  const EvpKey key = KeyOf(v["x"], v["y"], v["d"]);
  const std::string one = std::string(31, '\0') + '\1';
  for (const char* name : {"e_r_zero", "e_r_plus_k"}) {
    FixRandom(one);
    EXPECT_EQ(TrySM2Sign(BN_value_one(), Raw(v[name]), 32, &raw, &length), -1) << name;
    FixRandom(one);  // then others
    EXPECT_EQ(VerifyE(key.get(), v[name], SignE(key.get(), v[name])), 1) << name;
  }
}

TEST_F(Sm2Test, CiphertextsDecryptOrAreRefused) {
  PublicKey* const key = sm2Public_.get();
  for (const size_t n : {1u, 31u, 32u, 33u, 64u, 300u}) {
    const std::string text(n, 't'), cipher = Encrypt(key, 64, text);
    EXPECT_EQ(cipher.size(), n + 97);
    EXPECT_EQ(Decrypt(sm2_, 64, cipher), text);
    EXPECT_NE(cipher, Encrypt(key, 64, text));
  }
  for (int i = 0; i < 1000; i++) {  // a key stream of zeros must be drawn again
    const std::string cipher = Encrypt(key, 64, "tt"), byte = Encrypt(key, 64, "t");
    ASSERT_EQ(Decrypt(sm2_, 64, cipher), "tt");
    ASSERT_NE(byte[65], 't');
  }

  const std::string good = Encrypt(key, 64, std::string(40, 't'));
  for (const char form : {'\0', '\2', '\3', '\6', '\7'})
    EXPECT_EQ(Decrypt(sm2_, 64, form + good.substr(1)), "result 0");
  std::string c1 = TestSm2().Point();
  EXPECT_EQ(Decrypt(sm2_, 64, ForgedCiphertext(c1, "text")), "text");
  EXPECT_EQ(Decrypt(sm2_, 64, ForgedCiphertext(Flipped(c1, 63), "text")), "result 0");
  for (unsigned int k = 1; ForgedCiphertext(c1, "t")[65] != 't'; k++)  // until the stream is 0
    SM2MultiplyGenerator(reinterpret_cast<unsigned char*>(c1.data()),
                         Raw(std::string(28, '\0') + Word(k)));
  EXPECT_EQ(Decrypt(sm2_, 64, ForgedCiphertext(c1, "t")), "result 0");
}
