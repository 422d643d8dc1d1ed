// SM2: the published examples with their fixed k, OpenSSL's signatures both ways, and every input
// that must not pass.
#include "sm2/sm2.h"
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

class Sm2Test : public OperationsTest {
 protected:
  std::map<std::string, std::string> v = ReadVectors("sm2_signature.txt");
};

}  // namespace

TEST_F(Sm2Test, PublishedExamples) {
  const EvpKey signer = KeyOf(v["x"], v["y"], v["d"]);
  FixRandRange({"0", Hex(v["k"]).c_str()});  // zero must be drawn again
  EXPECT_EQ(Hex(SignE(signer.get(), v["e"])), Hex(Der(v["r"], v["s"])));

  v = ReadVectors("sm2_encryption.txt");
  const EvpKey key = KeyOf(v["x"], v["y"], v["d"]);
  const std::string want = '\x04' + v["x1"] + v["y1"] + v["c2"] + v["c3"];
  unsigned char out[19 + 97];
  FixRandRange({"0", Hex(v["k"]).c_str()});
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
    EXPECT_EQ(Verify(key, 4096, Flipped(e, static_cast<size_t>(i)), there), 0);
    EXPECT_EQ(Verify(key, 4096, e, Flipped(there, there.size() - 1)), 0);
    EXPECT_EQ(Verify(key, 4096, e, Flipped(there, 20)), 0);
    EXPECT_NE(here, Sign(sm2_, 4096, e)) << "a fresh k each time";
  }
}

TEST_F(Sm2Test, VerificationRefuses) {
  const EvpKey key = KeyOf(v["x"], v["y"], v["d"]);
  const std::string good = Der(v["r"], v["s"]);
  EXPECT_EQ(VerifyE(key.get(), v["e"], good), 1);
  EXPECT_EQ(VerifyE(TestP256().key, v["e"], good), 0);
  const struct {
    const char* what;
    std::string r, s;
  } cases[] = {{"r = 0", "", v["s"]},
               {"s = 0", v["r"], ""},
               {"r = n", v["n"], v["s"]},
               {"s = n", v["r"], v["n"]},
               {"r = 2^256 - 1", std::string(32, '\xff'), v["s"]},
               {"r + s = n", v["r"], v["s_minus_r"]},
               {"r of 33 bytes", '\1' + v["r"], v["s"]},
               {"s of 33 bytes", v["r"], '\1' + v["s"]},
               {"r and s exchanged", v["s"], v["r"]}};
  const long live = LiveAllocations();
  for (const auto& c : cases) EXPECT_EQ(VerifyE(key.get(), v["e"], Der(c.r, c.s)), 0) << c.what;
  EXPECT_EQ(LiveAllocations(), live);
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
  for (const char* name : {"e_r_zero", "e_r_plus_k"}) {
    FixRandRange({"1"});
    EXPECT_EQ(TrySM2Sign(BN_value_one(), Raw(v[name]), 32, &raw, &length), -1) << name;
    FixRandRange({"1"});  // then true draws
    EXPECT_EQ(VerifyE(key.get(), v[name], SignE(key.get(), v[name])), 1) << name;
  }
}

TEST_F(Sm2Test, CiphertextsDecryptOrLeaveTheOutputZero) {
  PublicKey* const key = sm2Public_.get();
  for (const size_t n : {1u, 31u, 32u, 33u, 64u, 300u}) {
    const std::string text(n, 't'), cipher = Encrypt(key, 64, text);
    EXPECT_EQ(cipher.size(), n + 97);
    EXPECT_EQ(Decrypt(sm2_, 64, cipher), text);
    EXPECT_NE(cipher, Encrypt(key, 64, text));
  }
  EXPECT_EQ(Encrypt(key, 64, ""), "result 0");
  for (int i = 0; i < 1000; i++) {  // a key stream of zeros must be drawn again
    const std::string cipher = Encrypt(key, 64, "tt"), byte = Encrypt(key, 64, "t");
    ASSERT_EQ(Decrypt(sm2_, 64, cipher), "tt");
    ASSERT_NE(byte[65], 't');
  }

  const std::string good = Encrypt(key, 64, std::string(40, 't'));
  std::vector<std::string> cases = {good.substr(0, good.size() - 1), good + "x", good.substr(0, 98),
                                    '\x04' + std::string(64, '\0') + good.substr(65),
                                    '\x04' + std::string(32, '\xff') + good.substr(33)};
  for (const char form : {'\0', '\2', '\3', '\6'}) cases.push_back(form + good.substr(1));
  for (size_t i = 1; i < good.size(); i += 5) cases.push_back(Flipped(good, i));
  for (const std::string& cipher : cases) {
    unsigned char out[64];
    memset(out, 0xaa, sizeof(out));
    int length = 0;
    EXPECT_EQ(
        DevicePrivateKeyDecrypt(sm2_, 64, nullptr, Raw(cipher), Len(cipher), out, 64, &length), 0);
    const size_t room = cipher.size() - 97;
    EXPECT_EQ(Bytes(out, 64), std::string(room, '\0') + std::string(64 - room, '\xaa'));
  }
  EXPECT_EQ(Decrypt(sm2_, 64, good.substr(0, 97)), "result 0");
  EXPECT_EQ(Decrypt(p256_, 64, good), "result 0");
}
