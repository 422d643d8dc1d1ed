// The PIN: verification with its roll-back, and change.
#include "tests/support/world.h"

class PinTest : public ModuleTest {
 protected:
  // What of the record belongs to the PIN: "-" or a key, and the curve, of each keypair.
  static std::string State(const Device& device) {
    std::string state = device.pin == nullptr ? "no pin" : device.pin;
    for (int i = 0; i < device.keypairCount; i++)
      state += std::string(device.keypairs[i]->privateKey == nullptr ? " -" : " key") +
               std::to_string(device.keypairs[i]->curve);
    return state;
  }
  static int Verify(const DeviceHandle& device, const char* pin) {
    return DeviceVerifyPwd(device.get(), 1, pin, nullptr);
  }
  static int Change(const DeviceHandle& device, const char* from, const char* to) {
    return DeviceChangePwd(device.get(), 1, from, to, nullptr);
  }
  static std::string Keypair(const TestKey& key, long type, const std::string& pin = PIN) {
    return StoredKeypair{.type = type, .key = &key, .pin = pin}.Json();
  }
  const std::string three_ = StoredDevice{
      .keypairs = {
          Keypair(TestP256(), 1), Keypair(TestRsa(), 2),
          Keypair(TestSm2(), 3)}}.File();
};

TEST_F(PinTest, BlobsOfTwoPinsOpenWithNeither) {
  const StoredDevice stored = {.keypairs = {Keypair(TestP256(), 1), Keypair(TestRsa(), 2),
                                            Keypair(TestP256(), 3, "other"),
                                            Keypair(TestP256(), 4)}};
  const DeviceHandle device = Load(stored.File(), nullptr);
  const long live = LiveAllocations();
  for (const char* pin : {PIN, "other"}) {
    EXPECT_EQ(Verify(device, pin), -5);
    EXPECT_EQ(State(*device), "no pin --1 --1 -0 -0");
  }
  EXPECT_EQ(LiveAllocations(), live);
}

TEST_F(PinTest, ADeviceWithoutKeypairsKeepsTheFirstPin) {
  const std::string file = StoredDevice{.keypairs = {}}.File();
  const DeviceHandle device = Load(file, "x");
  EXPECT_EQ(Verify(device, "y"), -5);
  EXPECT_EQ(Verify(device, "x"), 1);
  EXPECT_EQ(Change(device, "x", "z"), 0) << "no such file is ever written";
  EXPECT_EQ(State(*device), "z");
  EXPECT_EQ(Read("dev"), file);
}

TEST_F(PinTest, AChangeHoldsNowAndAfterARescan) {
  const TestKey* const keys[] = {&TestP256(), &TestRsa(), &TestSm2()};
  for (const char* pin : {"new", PIN, ""}) {  // the same again, and the empty one
    SCOPED_TRACE(pin);
    const DeviceHandle device = Load(three_, nullptr);
    EXPECT_EQ(Change(device, PIN, pin), 1);
    EXPECT_EQ(State(*device), std::string(pin) + " key3 key0 key7");
    for (int i = 0; i < 3; i++) {
      const ::Keypair& k = *device->keypairs[i];
      const std::string salt = Bytes(k.salt, k.saltLen), iv = Bytes(k.iv, k.ivLen);
      EXPECT_EQ(three_.find(Hex(salt)), std::string::npos);
      EXPECT_EQ(Bytes(k.encryptedPrivateKey, k.encryptedPrivateKeyLen),
                Seal(keys[i]->pair, pin, salt, iv));
    }
    const DeviceHandle again = Rescan();
    EXPECT_EQ(Verify(again, PIN), pin == std::string(PIN) ? 1 : -5);
    EXPECT_EQ(Verify(again, pin), 1);
    EXPECT_EQ(Describe(*again, false), Describe(*device, false));
  }
}

TEST_F(PinTest, AChangeThatCannotBeWrittenHoldsInMemoryOnly) {
  const DeviceHandle device = Load(three_);
  EXPECT_EQ(WithFault({.name = "fwrite"}, [&] { return Change(device, PIN, "new"); }), 0);
  EXPECT_EQ(Verify(device, "new"), 1);
  EXPECT_EQ(Verify(device, PIN), -5);
  EXPECT_TRUE(Read("dev") == three_);
  EXPECT_EQ(Change(device, "new", "newer"), 1) << "and can be written later";
  EXPECT_NE(Rescan("newer"), nullptr);
}
