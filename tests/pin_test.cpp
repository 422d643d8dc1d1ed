// The PIN: verification with its roll-back, and change.
#include "tests/support/world.h"

class PinTest : public ModuleTest {
 protected:
  const std::string three_ =
      StoredDevice{.keypairs = {StoredKeypair().Json(),
                                StoredKeypair{.type = 2, .key = &TestRsa(), .pin = PIN}.Json(),
                                StoredKeypair{.type = 3, .key = &TestSm2()}.Json()}}
          .File();
  // What of the record belongs to the PIN: "-" or a key, and the curve, of each keypair.
  static std::string State(const Device& device) {
    std::string state = device.pin == nullptr ? "no pin" : device.pin;
    for (int i = 0; i < device.keypairCount; i++)
      state += std::string(device.keypairs[i]->privateKey == nullptr ? " -" : " key") +
               std::to_string(device.keypairs[i]->curve);
    return state;
  }
  static int Verify(Device* device, const char* pin) {
    return DeviceVerifyPwd(device, 1, pin, nullptr);
  }
  static int Change(Device* device, const char* from, const char* to) {
    return DeviceChangePwd(device, 1, from, to, nullptr);
  }
};

TEST_F(PinTest, AWrongPinLeavesNoKeyBehind) {
  const DeviceHandle device = Load(three_, nullptr);
  EXPECT_EQ(State(*device), "no pin -0 -0 -0");
  for (const char* pin : {"", "a good PI", "a good PIN ", "A good PIN"}) {
    EXPECT_EQ(Verify(device.get(), pin), -5) << pin;
    EXPECT_EQ(State(*device), "no pin -0 -0 -0");
  }
  EXPECT_EQ(Verify(device.get(), PIN), 1);
  EXPECT_EQ(State(*device), "a good PIN key3 key0 key7");
  Refuses(-5, device.get(), [&] { return Verify(device.get(), "other"); });
  Refuses(1, device.get(), [&] { return Verify(device.get(), PIN); });
}

TEST_F(PinTest, BlobsOfTwoPinsOpenWithNeither) {
  const DeviceHandle device =
      Load(StoredDevice{.keypairs = {StoredKeypair().Json(),
                                     StoredKeypair{.type = 2, .key = &TestRsa()}.Json(),
                                     StoredKeypair{.type = 3, .pin = "other"}.Json(),
                                     StoredKeypair{.type = 4}.Json()}}
               .File(),
           nullptr);
  const long live = LiveAllocations();
  EXPECT_EQ(Verify(device.get(), PIN), -5);
  EXPECT_EQ(State(*device), "no pin --1 --1 -0 -0");
  EXPECT_EQ(Verify(device.get(), "other"), -5);
  EXPECT_EQ(State(*device), "no pin --1 --1 -0 -0");
  EXPECT_EQ(LiveAllocations(), live);
}

TEST_F(PinTest, ADeviceWithoutKeypairsKeepsTheFirstPin) {
  const DeviceHandle device = Load(StoredDevice{.keypairs = {}}.File(), nullptr);
  EXPECT_EQ(Verify(device.get(), "x"), 1);
  EXPECT_EQ(Verify(device.get(), "y"), -5);
  EXPECT_EQ(Verify(device.get(), "x"), 1);
  const std::string file = Read("dev");
  EXPECT_EQ(Change(device.get(), "x", "z"), 0) << "no such file is ever written";
  EXPECT_EQ(State(*device), "z");
  EXPECT_EQ(Read("dev"), file);
}

TEST_F(PinTest, AChangeHoldsNowAndAfterARescan) {
  const TestKey* const keys[] = {&TestP256(), &TestRsa(), &TestSm2()};
  for (const char* pin : {"new", PIN, ""}) {  // the same again, and the empty one
    SCOPED_TRACE(pin);
    const DeviceHandle device = Load(three_);
    const std::string before = Describe(*device);
    EXPECT_EQ(Change(device.get(), PIN, pin), 1);
    EXPECT_EQ(State(*device), std::string(pin) + " key3 key0 key7");
    for (int i = 0; i < 3; i++) {
      const Keypair& k = *device->keypairs[i];
      const std::string salt = Bytes(k.salt, k.saltLen), iv = Bytes(k.iv, k.ivLen);
      EXPECT_EQ(before.find(Hex(salt)), std::string::npos);
      EXPECT_EQ(Bytes(k.encryptedPrivateKey, k.encryptedPrivateKeyLen),
                Seal(keys[i]->pair, pin, salt, iv));
    }
    const DeviceHandle again = Rescan();
    EXPECT_EQ(Verify(again.get(), PIN), pin == std::string(PIN) ? 1 : -5);
    EXPECT_EQ(Verify(again.get(), pin), 1);
    EXPECT_EQ(Describe(*again, false), Describe(*device, false));
    EXPECT_FALSE(Exists("dev.bak"));
  }
}

TEST_F(PinTest, AChangeVerifiesFirst) {
  const DeviceHandle device = Load(three_, nullptr);
  Refuses(-5, device.get(), [&] { return Change(device.get(), "wrong", "new"); });
  EXPECT_EQ(Change(device.get(), PIN, "new"), 1);
  Refuses(-5, device.get(), [&] { return Change(device.get(), PIN, "newer"); });
}

TEST_F(PinTest, AChangeThatCannotBeWrittenHoldsInMemoryOnly) {
  DeviceHandle device = Load(three_);
  EXPECT_EQ(WithFault({.name = "fwrite"}, [&] { return Change(device.get(), PIN, "new"); }), 0);
  EXPECT_EQ(Verify(device.get(), "new"), 1);
  EXPECT_EQ(Verify(device.get(), PIN), -5);
  EXPECT_TRUE(Read("dev") == three_);
  EXPECT_NE(Rescan(PIN), nullptr);
  EXPECT_EQ(Change(device.get(), "new", "newer"), 1) << "and can be written later";
  EXPECT_NE(Rescan("newer"), nullptr);
}

// Whatever fails, the device opens afterwards with one of the two PINs, in memory and on disk, and
// its data objects are there.
TEST_F(PinTest, AFailedChangeLocksNobodyOut) {
  const std::string one = StoredDevice{.more = {Array({StoredData(5, "value")})}}.File();
  for (long n = 1;; n++) {
    remove(Path("dev.bak").c_str());
    const DeviceHandle device = Load(one);
    const int changed = WithFault({.nth = n}, [&] { return Change(device.get(), PIN, "new"); });
    if (FaultHit() == nullptr) break;
    SCOPED_TRACE(std::string(FaultHit()) + " in call " + std::to_string(n));
    const bool inMemory = Verify(device.get(), PIN) == 1 || Verify(device.get(), "new") == 1;
    EXPECT_TRUE(inMemory) << State(*device);
    const DeviceHandle again = Rescan();
    EXPECT_EQ(Verify(again.get(), changed == 1 ? "new" : PIN), 1);
    EXPECT_NE(Read("dev").find(StoredData(5, "value")), std::string::npos);
    ASSERT_LT(n, 500);
  }
}
