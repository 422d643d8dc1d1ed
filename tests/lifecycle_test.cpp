// Start, stop and the lock.
#include "sm2/sm2.h"
#include "tests/support/world.h"

#include <openssl/obj_mac.h>

#include <thread>

using LifecycleTest = ModuleTest;

TEST_F(LifecycleTest, AFailedStartLeavesTheModuleStopped) {
  ASSERT_EQ(DeviceEnd(), 1);
  for (const char* name :
       {"vakro_lock_new", "VakroPKICryptoGetPseudoDevice", "vakro_malloc", "*"}) {
    for (long n = 1;; n++) {
      SCOPED_TRACE(std::string(name) + " " + std::to_string(n));
      const long live = LiveAllocations();
      const int started = WithFault({.name = name, .nth = n}, DeviceInit);
      const bool hit = FaultHit() != nullptr;
      if (started != 1) {
        EXPECT_TRUE(hit);
        EXPECT_EQ(started, 0);
        EXPECT_EQ(g_lock, nullptr);
        EXPECT_EQ(g_hSoftDevice, nullptr);
        EXPECT_EQ(g_keyFolder, nullptr);
      } else {
        EXPECT_EQ(g_sm2 == nullptr, hit);  // what fails after the start proper costs SM2 alone
        EXPECT_STREQ(g_keyFolder, "/etc/.VAKRO/SoftwareCert/");
      }
      EXPECT_EQ(DeviceEnd(), 1);
      EXPECT_EQ(DeviceEnd(), 1);
      EXPECT_EQ(g_lock, nullptr);
      EXPECT_EQ(g_sm2, nullptr);
      EXPECT_EQ(LiveAllocations(), live);
      if (!hit) break;
    }
  }
}

TEST_F(LifecycleTest, WithoutSm2EverythingElseWorks) {
  FreeSM2Info(g_sm2);
  g_sm2 = nullptr;
  const int p256 = CURVE_P256;
  const int sm2 = CURVE_SM2;
  EXPECT_EQ(DeviceIsSupportedAlgorithm2(nullptr, ALGORITHM_SM2_ENCRYPT, 0, 2, nullptr), 0);
  EXPECT_EQ(DeviceIsSupportedAlgorithm2(nullptr, ALGORITHM_SM2_SIGN, 0, 5, nullptr), 0);
  EXPECT_EQ(DeviceIsSupportedAlgorithm2(nullptr, ALGORITHM_ECC, 0, 0, &sm2), 0);
  EXPECT_EQ(DeviceIsSupportedAlgorithm2(nullptr, ALGORITHM_ECC, 0, 0, &p256), 1);
  EXPECT_EQ(DeviceIsSupportedAlgorithm2(nullptr, ALGORITHM_ECDSA_SIGN, 0, 5, nullptr), 1);

  const DeviceHandle device = Load();
  Keypair* keypair = nullptr;
  const ECCKeypairParams onSm2 = {CURVE_SM2, 0};
  const ECCKeypairParams temporary = {CURVE_SM2, 1};
  const auto generate = [&](const ECCKeypairParams& params) {
    return DeviceGenerateKeypair(device.get(), 4, 256, &params, 9, "n", &keypair);
  };
  Refuses(0, device.get(), [&] { return generate(onSm2); });
  Refuses(0, device.get(), [&] { return generate(temporary); });
  Refuses(0, device.get(), [&] {
    const std::string& pair = TestSm2().pair;
    return DeviceImportKeypair(device.get(), Raw(pair), Len(pair), 9, "n", &keypair);
  });
  PublicKey* key = nullptr;
  const std::string& encoding = TestSm2().publicKey;
  EXPECT_EQ(DeviceImportPublicKey(nullptr, Raw(encoding), Len(encoding), &key), 0);
  ASSERT_EQ(generate({CURVE_P256, 0}), 1);
  EXPECT_EQ(DeviceFreeKeypair(keypair), 1);
}

TEST_F(LifecycleTest, TheLockIsRecursiveAndBelongsToOneThread) {
  EXPECT_EQ(DeviceUnlockDevice(nullptr), 0);
  EXPECT_EQ(DeviceLockDevice(nullptr), 1);
  EXPECT_EQ(DeviceLockDevice(nullptr), 1);
  std::thread([] { EXPECT_EQ(DeviceUnlockDevice(nullptr), 0); }).join();
  const DeviceHandle device = Load();  // takes it again
  EXPECT_EQ(DeviceUnlockDevice(nullptr), 1);
  EXPECT_EQ(DeviceUnlockDevice(nullptr), 1);
  EXPECT_EQ(DeviceUnlockDevice(nullptr), 0);
}

TEST_F(LifecycleTest, TheCurveTable) {
  const struct {
    int curve, bits, nid;
  } cases[] = {{1, 192, NID_X9_62_prime192v1},
               {2, 224, NID_secp224r1},
               {3, 256, NID_X9_62_prime256v1},
               {4, 384, NID_secp384r1},
               {5, 521, NID_secp521r1},
               {6, 192, -1},
               {7, 256, -1},
               {0, -1, -1},
               {8, -1, -1},
               {-1, -1, -1}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.curve);
    EXPECT_EQ(GetECCBits(c.curve), c.bits);
    EXPECT_EQ(GetECCCurveNid(c.curve), c.nid);
    for (const int bits : {-1, 0, 192, 224, 256, 384, 512, 521})
      EXPECT_EQ(checkCurveBits(c.curve, bits), c.bits > 0 && bits == c.bits) << bits;
  }
}

TEST_F(LifecycleTest, TheSm2GroupIsTheStandardOne) {
  const EcGroup standard(EC_GROUP_new_by_curve_name(NID_sm2));
  const auto numbers = [](const EC_GROUP* group) {
    const BigNum n[] = {BigNum(BN_new()), BigNum(BN_new()), BigNum(BN_new()), BigNum(BN_new()),
                        BigNum(BN_new())};
    EXPECT_EQ(EC_GROUP_get_curve(group, n[0].get(), n[1].get(), n[2].get(), nullptr), 1);
    EXPECT_EQ(EC_POINT_get_affine_coordinates(group, EC_GROUP_get0_generator(group), n[3].get(),
                                              n[4].get(), nullptr),
              1);
    std::string all;
    for (const BigNum& number : n) {
      unsigned char bytes[32];
      EXPECT_EQ(BN_bn2binpad(number.get(), bytes, 32), 32);
      all += Hex(Bytes(bytes, 32)) + " ";
    }
    return all;
  };
  EXPECT_EQ(numbers(g_sm2->group), numbers(standard.get()));
  EXPECT_EQ(BN_cmp(g_sm2->order, EC_GROUP_get0_order(standard.get())), 0);
  EXPECT_TRUE(BN_is_one(EC_GROUP_get0_cofactor(g_sm2->group)));
}
