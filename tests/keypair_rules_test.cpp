// Rules of generation, import and encryption that show only from inside: in which order things are
// done, and what is asked for when.
#include "tests/support/operations.h"

namespace {

class KeypairRulesTest : public OperationsTest {
 protected:
  int ImportNew() {
    Keypair* made = nullptr;
    const TestKey& key = TestP256();
    const int result =
        DeviceImportKeypair(device_.get(), Raw(key.pair), Len(key.pair), 1, "new", &made);
    if (result == 1) DeviceFreeKeypair(made);
    return result;
  }
};

}  // namespace

TEST_F(KeypairRulesTest, TheRecordSaysHowManyKeypairsThereMayBe) {
  device_->maxKeypairs = 3;
  Refuses(0, device_.get(), [&] { return ImportNew(); });
  device_->maxKeypairs = 4;
  EXPECT_EQ(ImportNew(), 1);
}

TEST_F(KeypairRulesTest, SaltAndNonceAreDrawnBeforeThePrivateKeyIsEncoded) {
  std::string order;
  const auto note = [&](const ImportCall& call) {
    if (call.name == "RAND_bytes") order += 'r';
    if (call.name == "VakroPKICryptoEncodeECCKeyPair") order += 'e';
    return 0;
  };
  const Hook hook{note};
  EXPECT_EQ(ImportNew(), 1);
  EXPECT_EQ(order, "rre");
}

TEST_F(KeypairRulesTest, TheSizeOfASm2CiphertextIsKnownWithoutTheGroup) {
  SM2Info* const group = std::exchange(g_sm2, nullptr);
  unsigned char out[98];
  int length = 0;
  const auto encrypt = [&](unsigned char* to, int size) {
    return DevicePublicKeyEncrypt(sm2Public_.get(), ALGORITHM_SM2_ENCRYPT, nullptr, Raw("m"), 1, to,
                                  size, &length);
  };
  EXPECT_EQ(encrypt(nullptr, 0), 1);
  EXPECT_EQ(std::exchange(length, 0), 98);
  EXPECT_EQ(encrypt(out, 97), -4);
  EXPECT_EQ(std::exchange(length, 0), 98);
  EXPECT_EQ(encrypt(out, 98), 0);
  EXPECT_EQ(length, 98);
  g_sm2 = group;
}
