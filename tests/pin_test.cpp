// The PIN: verification with its roll-back, and change.
#include "tests/support/operations.h"

#include <span>

class PinTest : public OperationsTest {
 protected:
  static int Verify(const DeviceHandle& device, const char* pin) {
    return DeviceVerifyPwd(device.get(), 1, pin, nullptr);
  }
  static int Change(const DeviceHandle& device, const char* from, const char* to) {
    return DeviceChangePwd(device.get(), 1, from, to, nullptr);
  }
};

TEST_F(PinTest, ADeviceWithoutKeypairsKeepsTheFirstPin) {
  const std::string file = StoredDevice{.keypairs = {}}.File();
  const DeviceHandle device = Load(file, "x");
  EXPECT_EQ(Verify(device, "y"), -5);
  EXPECT_EQ(Verify(device, "x"), 1);
  EXPECT_EQ(Change(device, "x", "z"), 0) << "no such file is ever written";
  EXPECT_STREQ(device->pin, "z");
  EXPECT_EQ(Read("dev"), file);
}

TEST_F(PinTest, AChangeHoldsNowAndAfterARescan) {
  const std::string file = Read("dev");
  for (const char* pin : {"new", PIN, ""}) {  // the same again, and the empty one
    SCOPED_TRACE(pin);
    const DeviceHandle device = Load(file, nullptr);
    EXPECT_EQ(Change(device, PIN, pin), 1);
    for (const Keypair* k : std::span(device->keypairs, 3))
      EXPECT_EQ(file.find(Hex(Bytes(k->salt, k->saltLen))), std::string::npos);
    const DeviceHandle again = Rescan();
    EXPECT_EQ(Verify(again, PIN), pin == std::string(PIN) ? 1 : -5);
    EXPECT_EQ(Verify(again, pin), 1);
    EXPECT_EQ(Describe(*again, false), Describe(*device, false));
  }
}

TEST_F(PinTest, AChangeThatCannotBeWrittenHoldsInMemoryOnly) {
  const std::string file = Read("dev");
  EXPECT_EQ(WithFault({.name = "fwrite"}, [&] { return Change(device_, PIN, "new"); }), 0);
  EXPECT_EQ(Verify(device_, "new"), 1);
  EXPECT_EQ(Verify(device_, PIN), -5);
  EXPECT_TRUE(Read("dev") == file);
  EXPECT_EQ(Change(device_, "new", "newer"), 1) << "and can be written later";
  EXPECT_NE(Rescan("newer"), nullptr);
}
