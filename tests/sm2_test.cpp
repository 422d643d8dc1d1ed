// SM2: the published examples with their fixed k, and every input that must not pass, as a table.
// What OpenSSL makes of signatures and ciphertexts is in the sessions of data/softdevice.txt.
#include "sm2/sm2.h"
#include "sm2/multiply.h"
#include "tests/support/world.h"

#include <sstream>

class Sm2Test : public ModuleTest {
 protected:
  static constexpr char K[] = "59276e27d506861a16680f3ad9c02dccef3cc1fa3cdbe4ce6d54b80deac1bc21";

  std::string Sign(const std::string& e) const {
    unsigned char* signature = nullptr;
    int length = 0;
    if (SM2Sign(key_.get(), Raw(e), Len(e), &signature, &length) != 1) return "refused";
    const LibBytes owned(signature);
    return Hex(Bytes(signature, length));
  }

  std::string Run(const std::string& function, const std::string& first,
                  const std::string& second) {
    const std::string a = Unhex(first), b = Unhex(second);
    unsigned char out[200];
    int curve = 0;
    FixRandom(Unhex(std::string(64 - std::min<size_t>(64, first.size()), '0') + first + K));
    const auto bytes = [&](int result, int length) {
      return result == 1 ? Hex(Bytes(out, length)) : "refused";
    };
    const auto accepted = [](int result) { return result == 1 ? "-" : "refused"; };
    if (function == "sign") return Sign(b);
    if (function == "verify")
      return accepted(SM2Verify(key_.get(), Raw(b), Len(b), Raw(a), Len(a)));
    if (function == "encrypt")
      return bytes(SM2Encrypt(key_.get(), Raw(b), Len(b), out), Len(b) + SM2_CIPHER_OVERHEAD);
    if (function == "decrypt")
      return bytes(SM2Decrypt(key_.get(), Raw(a), Len(a), out), Len(a) - SM2_CIPHER_OVERHEAD);
    if (function == "point") return accepted(SM2IsOnCurve(Raw(a)));
    if (function != "key") return "no function of the table";
    key_.reset(DecodeECCPair(Raw(a), Len(a), &curve));
    return accepted(key_ != nullptr);
  }

  EvpKey key_;
};

TEST_F(Sm2Test, ResultsAreThoseOfTheTable) {
  for (const auto& [row, at] : ReadRows("sm2.txt")) {
    std::istringstream words(row);
    std::string function, first, second, equals, want;
    words >> function >> first >> second >> equals >> want;
    EXPECT_EQ(Run(function, first, second), want) << at << ": " << function;
  }
}

TEST_F(Sm2Test, AnAttemptToSignNeedsAnInverseAndAFreshK) {
  const BigNum d(BN_dup(g_sm2->order));
  BN_sub_word(d.get(), 1);  // 1 + d has no inverse
  const std::string e = Unhex("cd3b51d2e0e67ee6a066fbb995c6366ae220d3ab2f5ff949e261ae800688cc5c");
  unsigned char* raw = nullptr;
  int length = 0;
  EXPECT_EQ(TrySM2Sign(d.get(), Raw(e), 32, &raw, &length), 0);
  FixRandom(std::string(31, '\0') + '\1');  // k = 1 makes r = 0
  EXPECT_EQ(TrySM2Sign(BN_value_one(), Raw(e), 32, &raw, &length), -1);
  Run("key", Hex(TestSm2().pair), "-");
  EXPECT_NE(Sign(e), Sign(e));
  EXPECT_EQ(SM2Sign(key_.get(), nullptr, 1, &raw, &length), 0);
  EXPECT_EQ(SM2Sign(key_.get(), Raw(e), -1, &raw, &length), 0);
  const std::string none = Unhex(Sign(""));
  EXPECT_EQ(SM2Verify(key_.get(), nullptr, 0, Raw(none), Len(none)), 1);
  EXPECT_EQ(SM2Verify(key_.get(), nullptr, 1, Raw(none), Len(none)), 0);
}
