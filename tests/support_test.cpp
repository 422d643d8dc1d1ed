// The support query, and that what it reports is carried out.
#include "tests/support/operations.h"

#include <set>

static int Supported(int algorithm, int bits, int cls, const int* parameter = nullptr) {
  return DeviceIsSupportedAlgorithm2(nullptr, algorithm, bits, cls, parameter);
}

TEST_F(OperationsTest, TheSupportTable) {
  const int classes[] = {2, 5, 7};
  const std::map<int, std::set<int>> simple = {{16, {2}},  {48, {2}},   {64, {2}},   {256, {5}},
                                               {768, {5}}, {2048, {5}}, {4096, {5}}, {32, {}},
                                               {0, {}},    {-1, {}},    {2, {}}};
  for (const auto& [algorithm, good] : simple)
    for (const int cls : {0, 1, 2, 5, 7, -1})
      EXPECT_EQ(Supported(algorithm, 0, cls), static_cast<int>(good.count(cls)))
          << algorithm << " class " << cls;
  for (const int bits : {-1, 0, 512, 1024, 2047, 2048, 3072, 4096})
    for (const int cls : classes)
      EXPECT_EQ(Supported(1, bits, cls),
                cls == 7 && (bits == 1024 || bits == 2048 || bits == 4096));
  for (int curve = -1; curve < 10; curve++)
    for (const int cls : classes)
      EXPECT_EQ(Supported(4, 999, cls, &curve), curve > 0 && curve < 8 && curve != 6) << curve;
  EXPECT_EQ(Supported(4, 256, 7), 0);
  for (const int hash : {0x7000, 0x6000, 0}) EXPECT_EQ(Supported(64, 0, 2, &hash), hash == 0x7000);
}

// Generates, signs and verifies, encrypts and decrypts with whatever is reported as supported.
TEST_F(OperationsTest, WhatIsSupportedIsCarriedOut) {
  const std::string block = '\0' + std::string(127, 'b');
  const std::string e(32, 'e');
  int carriedOut = 0;
  const auto use = [&](Keypair* keypair, const std::vector<unsigned int>& algorithms) {
    const PublicHandle key(DeviceGetPublicKeyFromKeypair(keypair));
    for (const unsigned int algorithm : algorithms) {
      SCOPED_TRACE(algorithm);
      const std::string data =
          algorithm == 48 || algorithm == 768 ? '\0' + std::string(keypair->bits / 8 - 1, 'b') : e;
      if (Supported(static_cast<int>(algorithm), 0, 5) == 1) {
        const std::string signature = Sign(keypair, algorithm, data);
        if (key) {
          EXPECT_EQ(Verify(key.get(), algorithm, data, signature), 1);
        } else {
          EXPECT_TRUE(EvpVerify(keypair->privateKey, data, signature));
        }
      } else {
        ASSERT_EQ(Supported(static_cast<int>(algorithm), 0, 2), 1);
        EXPECT_EQ(Decrypt(keypair, algorithm, Encrypt(key.get(), algorithm, data)), data);
      }
      carriedOut++;
    }
  };
  for (const int bits : {1024, 2048, 4096}) {
    ASSERT_EQ(Supported(1, bits, 7), 1);
    if (bits == 4096) continue;  // generated once, below; it takes seconds
    const RSAKeypairParams temporary = {nullptr, 0, 1};
    Keypair* made = nullptr;
    ASSERT_EQ(DeviceGenerateKeypair(device_.get(), 1, bits, &temporary, 1, "", &made), 1);
    const KeypairHandle owned(made);
    use(made, {16, 48, 256, 768});
  }
  const int sizes[] = {0, 192, 224, 256, 384, 521, 192, 256};
  for (int curve = 1; curve <= 7; curve++) {
    SCOPED_TRACE(curve);
    const ECCKeypairParams stored = {curve, 0};
    Keypair* made = nullptr;
    const int result = DeviceGenerateKeypair(device_.get(), 4, sizes[curve], &stored, 9,
                                             std::to_string(curve).c_str(), &made);
    ASSERT_EQ(result, Supported(4, sizes[curve], 7, &curve));
    if (result != 1) continue;
    const KeypairHandle owned(made);
    use(made,
        curve == 7 ? std::vector<unsigned int>{64, 2048, 4096} : std::vector<unsigned int>{2048});
  }
  EXPECT_EQ(carriedOut, 2 * 4 + 5 + 3);
}
