// The PIN: how it is verified and changed, and what the record and the file hold of it then.
#include "keypair/keypair.h"
#include "tests/support/answers.h"

class PinTest : public AnswersTest {
 protected:
  static int Verify(Device* device, const char* pin) {
    return DeviceVerifyPwd(device, 1, pin, nullptr);
  }
  static int Change(Device* device, const char* from, const char* to) {
    return DeviceChangePwd(device, 1, from, to, nullptr);
  }
};

TEST_F(PinTest, IsVerified) {
  EXPECT_REFUSED(0, DeviceVerifyPwd(nullptr, 1, PIN, &n_));
  EXPECT_REFUSED_AND_TOLD(-9, -1, DeviceVerifyPwd(closed_, 2, PIN, &n_));
  EXPECT_REFUSED_AND_TOLD(-9, -1, DeviceVerifyPwd(closed_, 0, nullptr, &n_));
  EXPECT_REFUSED_AND_TOLD(0, -1, DeviceVerifyPwd(closed_, 1, nullptr, &n_));
  for (Device* const device : {closed_, device_.get()})
    for (const char* pin : {"", "wrong", "a good PI", "a good PINs", "A good PIN"}) {
      SCOPED_TRACE(pin);
      EXPECT_REFUSED_AND_TOLD(-5, -1, DeviceVerifyPwd(device, 1, pin, &n_));
    }
  for (Device* const device : {closed_, device_.get()}) {
    EXPECT_DONE(DeviceVerifyPwd(device, 1, PIN, &n_));
    EXPECT_EQ(n_, -1);
    EXPECT_DONE(Verify(device, PIN));
  }
}

TEST_F(PinTest, IsChangedInTheRecordAndInTheFile) {
  Device* const device = device_.get();
  EXPECT_REFUSED(0, DeviceChangePwd(nullptr, 1, PIN, "new", &n_));
  EXPECT_REFUSED(-9, DeviceChangePwd(device, 2, PIN, "new", &n_));
  EXPECT_REFUSED_AND_TOLD(0, -1, DeviceChangePwd(device, 1, nullptr, "new", &n_));
  EXPECT_REFUSED_AND_TOLD(0, -1, DeviceChangePwd(device, 1, PIN, nullptr, &n_));
  EXPECT_REFUSED_AND_TOLD(-5, -1, DeviceChangePwd(device, 1, "wrong", "new", &n_));
  EXPECT_WRITTEN(DeviceChangePwd(device, 1, PIN, "new", &n_));
  EXPECT_EQ(n_, -1);
  std::string now = "new";
  for (const std::string next : {"new", "", "newer"}) {  // the same again, and the empty one
    SCOPED_TRACE(next);
    EXPECT_WRITTEN(Change(device, now.c_str(), next.c_str()));
    const DeviceHandle again = Rescan();
    for (Device* const d : {device, again.get()}) {
      for (const std::string& wrong : {std::string(PIN), next == now ? "ne" : now, next + "s"})
        EXPECT_EQ(Verify(d, wrong.c_str()), -5) << wrong;
      EXPECT_EQ(Verify(d, next.c_str()), 1);
    }
    EXPECT_EQ(Describe(*again, false), Describe(*device, false));
    now = next;
  }
}

TEST_F(PinTest, ThatCannotBeWrittenHoldsInTheRecordAloneAndCanBeWrittenLater) {
  Device* const device = device_.get();
  const std::string file = Read("dev");
  EXPECT_EQ(WithFault({"vakro_json_encode"}, [&] { return Change(device, PIN, "unwritten"); }), 0);
  EXPECT_EQ(Read("dev"), file);
  EXPECT_EQ(Verify(device, PIN), -5);
  EXPECT_EQ(Verify(device, "unwritten"), 1);
  EXPECT_WRITTEN(Change(device, "unwritten", "newest"));
  EXPECT_EQ(Describe(*Rescan("newest"), false), Describe(*device, false));
}

TEST_F(PinTest, WithoutKeypairsTheFirstIsTakenAndNoneIsWritten) {
  const DeviceHandle device = Load(StoredDevice{.keypairs = {}}.File(), nullptr);
  EXPECT_DONE(Verify(device.get(), "x"));
  EXPECT_EQ(Verify(device.get(), "y"), -5);
  EXPECT_DONE(Verify(device.get(), "x"));
  const std::string file = Read("dev");
  EXPECT_EQ(Change(device.get(), "x", "z"), 0);
  EXPECT_EQ(Read("dev"), file);
  EXPECT_EQ(Verify(device.get(), "x"), -5);
  EXPECT_EQ(Verify(device.get(), "z"), 1);
}

TEST_F(PinTest, OpensAllKeypairsOrNone) {
  const StoredDevice stored{
      .keypairs = {StoredKeypair().Json(), StoredKeypair{.label = "other", .pin = "other"}.Json()}};
  const DeviceHandle device = Load(stored.File(), nullptr);
  for (const char* pin : {PIN, "other"}) EXPECT_EQ(Verify(device.get(), pin), -5);
  EXPECT_EQ(GetPrivateKey(device->keypairs[0]), nullptr);
  EXPECT_EQ(device->keypairs[0]->curve, -1);
}

// Programs that loaded the device without keypairs, or with others, have a PIN each.
TEST_F(PinTest, OfTheFirstStoredKeypairDecides) {
  Write("dev", StoredDevice{.keypairs = {}}.File());
  const DeviceHandle mine = Rescan(PIN), theirs = Rescan("secret"), late = Rescan("secret");
  EXPECT_NE(Import(theirs.get(), TestP256().pair, 1, "one"), nullptr);
  EXPECT_EQ(Import(mine.get(), TestSm2().pair, 0, "two"), nullptr);
  EXPECT_EQ(Import(device_.get(), TestSm2().pair, 0, "two"), nullptr);
  EXPECT_NE(Import(late.get(), TestSm2().pair, 1, "two"), nullptr);
  EXPECT_EQ(DeviceGetKeypairCount(Rescan("secret").get()), 2);
}
