// Handles of sets, devices, keypairs and public keys: how they are taken, read and given back, and
// how long a record lives.
#include "keypair/keypair.h"
#include "tests/support/answers.h"

using HandlesTest = AnswersTest;
using namespace std::string_literals;

TEST_F(HandlesTest, OfSetsAndDevices) {
  const SetHandle set(DeviceGetAllDevices());
  EXPECT_REFUSED(-1, DeviceGetDeviceCount(nullptr));
  EXPECT_EQ(DeviceGetDeviceCount(set.get()), 1);
  EXPECT_REFUSED(0, DeviceGetDevice(nullptr, 0));
  for (const unsigned int index : {1u, 64u, 0xffffffffu})
    EXPECT_REFUSED(0, DeviceGetDevice(set.get(), index));
  EXPECT_NE(DeviceHandle(DeviceGetDevice(set.get(), 0)), nullptr);
  EXPECT_DONE(DeviceFreeDevice(nullptr));
  EXPECT_DONE(DeviceFreeDevices(nullptr));

  EXPECT_REFUSED(-2, DeviceGetLabel(nullptr, nullptr, 0, &size_));
  const auto label = [&](auto... out) { return DeviceGetLabel(closed_, out...); };
  EXPECT_EQ(Output<unsigned int>(4, label), "abc\0"s);
  EXPECT_REFUSED(-2, DeviceGetSerialNumber(nullptr, nullptr, 0, &size_));
  const auto number = [&](auto... out) { return DeviceGetSerialNumber(closed_, out...); };
  EXPECT_EQ(Output<unsigned int>(11, number), "0123456789\0"s);
}

TEST_F(HandlesTest, OfKeypairs) {
  EXPECT_REFUSED(-2, DeviceGetKeypairCount(nullptr));
  EXPECT_EQ(DeviceGetKeypairCount(device_.get()), 3);
  EXPECT_REFUSED(0, DeviceGetKeypair(nullptr, 0));
  for (const int index : {-1, 3}) EXPECT_REFUSED(0, DeviceGetKeypair(device_.get(), index));
  EXPECT_EQ(KeypairHandle(DeviceGetKeypair(device_.get(), 2)).get(), sm2_);
  EXPECT_REFUSED(-2, DeviceFreeKeypair(nullptr));

  EXPECT_EQ(DeviceGetKeypairType(nullptr), 0u);
  EXPECT_EQ(DeviceGetKeypairType(p256_), 2u);
  EXPECT_EQ(DeviceGetKeypairAlgorithm(nullptr), 0u);
  EXPECT_EQ(DeviceGetKeypairAlgorithm(p256_), 4u);
  EXPECT_EQ(DeviceGetKeypairBits(nullptr), 0u);
  EXPECT_EQ(DeviceGetKeypairBits(p256_), 256u);
  EXPECT_REFUSED(-2, DeviceGetKeypairLabel(nullptr, nullptr, 0, &n_));
  const auto label = [&](auto... out) { return DeviceGetKeypairLabel(p256_, out...); };
  EXPECT_EQ((Output<int, char>(5, label)), "sign\0"s);
  EXPECT_EQ(HasKeypair(device_.get(), 2, "sign"), 1);
  for (const char* other : {"sig", "Sign", "signs"})
    EXPECT_EQ(HasKeypair(device_.get(), 2, other), 0) << other;
  EXPECT_EQ(HasKeypair(device_.get(), 4, "sign"), 0);
}

TEST_F(HandlesTest, OfPublicKeys) {
  EXPECT_REFUSED(0, DeviceGetPublicKeyFromKeypair(nullptr));
  const std::string encoding = TestP256().publicKey, pair = TestP256().pair;
  EXPECT_REFUSED(0, DeviceImportPublicKey(nullptr, nullptr, 88, &key_));
  for (const int length : {-1, 0, 11, 12})
    EXPECT_REFUSED(0, DeviceImportPublicKey(nullptr, Raw(encoding), length, &key_));
  EXPECT_REFUSED(0, DeviceImportPublicKey(nullptr, Raw(pair), 124, &key_));
  const std::string noPoint = Flipped(encoding, 87);
  EXPECT_REFUSED(0, DeviceImportPublicKey(nullptr, Raw(noPoint), 88, &key_));
  EXPECT_REFUSED(0, DeviceImportPublicKey(nullptr, Raw(encoding), 88, nullptr));
  EXPECT_DONE(DeviceImportPublicKey(nullptr, Raw(encoding), 88, &key_));
  const PublicHandle key(std::exchange(key_, nullptr));

  EXPECT_REFUSED(-2, DeviceExportPublicKey(nullptr, nullptr, 0, &n_));
  const auto bytes = [&](auto... out) { return DeviceExportPublicKey(key.get(), out...); };
  EXPECT_EQ(Output(88, bytes), encoding);
  EXPECT_EQ(DeviceGetPublicKeyAlgorithm(nullptr), 0);
  EXPECT_EQ(DeviceGetPublicKeyAlgorithm(key.get()), 4);
  EXPECT_EQ(DeviceGetPublicKeyBits(nullptr), 0);
  EXPECT_EQ(DeviceGetPublicKeyBits(key.get()), 256);
  EXPECT_REFUSED(-2, DeviceFreePublicKey(nullptr));
}

TEST_F(HandlesTest, CannotBeGivenBackWithoutTheLock) {
  const Hook noLock{Fault{"vakro_lock_lock", 1, true}};
  EXPECT_REFUSED(0, DeviceFreeDevice(closed_));
  EXPECT_REFUSED(0, DeviceFreeKeypair(p256_));
}

// --- How long a record lives: as long as a set, a handle of it or a handle of a keypair of it. ---
// --- All memory must have been given back in the end.                                         ---

TEST_F(HandlesTest, AHandleOutlivesTheSet) {
  DeviceFreeDevices(DeviceGetAllDevices());
  DeviceSet* const set = DeviceGetAllDevices();
  Device* const d = DeviceGetDevice(set, 0);
  EXPECT_EQ(d->refCount, 2u + 3u);
  EXPECT_DONE(DeviceFreeDevices(set));
  EXPECT_EQ(d->refCount, 1u + 3u);
  Keypair* const k = DeviceGetKeypair(d, 0);
  Keypair* const same = DeviceGetKeypair(d, 0);
  EXPECT_EQ(d->refCount, 3u + 3u);
  EXPECT_DONE(DeviceFreeDevice(d));
  EXPECT_DONE(DeviceFreeKeypair(k));
  EXPECT_EQ(d->refCount, 1u + 3u);
  EXPECT_DONE(DeviceFreeKeypair(same));
}

TEST_F(HandlesTest, KeypairsMadeAndDeletedAreCounted) {
  const ECCKeypairParams p256 = {CURVE_P256, 0};
  Write("dev", StoredDevice{.keypairs = {}}.File());
  Device* d = Rescan(PIN).release();
  EXPECT_EQ(d->refCount, 1u);
  KeypairHandle made = Generate(d, 4, 256, &p256, "one");
  EXPECT_EQ(d->refCount, 3u) << "its place on the device, and the handle";
  made.reset();
  EXPECT_EQ(d->refCount, 2u);
  made = Import(d, TestSm2().pair, 1, "two");
  EXPECT_EQ(d->refCount, 4u);
  EXPECT_WRITTEN(DeviceDeleteKeypair(made.get()));
  EXPECT_EQ(d->refCount, 2u);
  made.reset();
  EXPECT_EQ(d->refCount, 2u);
  made.reset(DeviceGetKeypair(d, 0));
  EXPECT_DONE(DeviceFreeDevice(d));
  EXPECT_EQ(d->refCount, 2u);
  EXPECT_WRITTEN(DeviceDeleteKeypair(made.get()));  // through the last reference
  EXPECT_EQ(TextOf(Read("dev")), R"(["0123456789","abc",[]])");
}
