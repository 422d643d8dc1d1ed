// What the module says that it supports, the curves, and what is left without that of SM2.
#include "sm2/sm2.h"
#include "tests/support/answers.h"

using SupportTest = AnswersTest;

static int Supports(int algorithm, int bits, int cls, int parameter) {
  return DeviceIsSupportedAlgorithm2(nullptr, algorithm, bits, cls, &parameter);
}
static int Supports(int algorithm, int bits, int cls) {
  return DeviceIsSupportedAlgorithm2(nullptr, algorithm, bits, cls, nullptr);
}

TEST_F(SupportTest, OfOperationsByTheirClass) {
  constexpr int ENCRYPT = 2, SIGN = 5;
  const std::map<int, int> classes = {{16, ENCRYPT}, {48, ENCRYPT}, {64, ENCRYPT}, {256, SIGN},
                                      {768, SIGN},   {2048, SIGN},  {4096, SIGN},  {32, -1},
                                      {0, -1},       {-1, -1},      {2, -1}};
  for (const auto& [algorithm, own] : classes)
    for (const int cls : {0, 1, ENCRYPT, 3, 4, SIGN, 6, 7})
      EXPECT_EQ(Supports(algorithm, 0, cls), cls == own) << algorithm << " for " << cls;
  EXPECT_EQ(Supports(64, 0, ENCRYPT, 0x7000), 1) << "with SM3";
  EXPECT_EQ(Supports(64, 0, ENCRYPT, 0x6000), 0) << "with another hash";
}

TEST_F(SupportTest, OfKeypairs) {
  for (const int bits : {-1, 0, 512, 1024, 2047, 2048, 3072, 4096})
    EXPECT_EQ(Supports(1, bits, 7), bits == 1024 || bits == 2048 || bits == 4096) << bits;
  EXPECT_EQ(Supports(1, 2048, 5), 0) << "no keypair";
  for (const int curve : {-1, 0, 1, 2, 3, 4, 5, 6, 7, 8})
    EXPECT_EQ(Supports(4, 999, 1, curve), curve >= 1 && curve <= 7 && curve != 6) << curve;
  EXPECT_EQ(Supports(4, 256, 7), 0) << "no curve";
}

TEST_F(SupportTest, WithoutTheCurveOfSm2EverythingElseWorks) {
  FreeSM2Info(std::exchange(g_sm2, nullptr));
  EXPECT_EQ(Supports(4, 256, 7, CURVE_SM2), 0);
  EXPECT_EQ(Supports(4096, 0, 5), 0);
  EXPECT_EQ(Supports(64, 0, 2, 0x7000), 0);
  EXPECT_EQ(Supports(4, 256, 7, CURVE_P256), 1);
  EXPECT_EQ(Supports(2048, 0, 5), 1);

  const auto generate = [&](int curve, int temporary) {
    const ECCKeypairParams params = {curve, temporary};
    return DeviceGenerateKeypair(device_.get(), 4, 256, &params, 9, "new", &made_);
  };
  EXPECT_REFUSED(0, generate(CURVE_SM2, 0));
  EXPECT_REFUSED(0, generate(CURVE_SM2, 1));
  const TestKey& sm2 = TestSm2();
  EXPECT_REFUSED(0, DeviceImportKeypair(device_.get(), Raw(sm2.pair), 124, 9, "new", &made_));
  EXPECT_REFUSED(0, DeviceImportPublicKey(nullptr, Raw(sm2.publicKey), 88, &key_));
  EXPECT_WRITTEN(generate(CURVE_P256, 0));
  KeypairHandle{made_};
}
