// Keypairs that are generated, imported and deleted: what the calls answer, in the order of their
// checks, and what they write. What is made is keys_test.cpp's.
#include "keypair/keypair.h"
#include "store/store.h"
#include "tests/support/answers.h"

class KeypairsTest : public AnswersTest {
 protected:
  int Generate(Device* device, unsigned int algorithm, int bits, const void* params, int type,
               const char* label) {
    return DeviceGenerateKeypair(device, algorithm, bits, params, static_cast<unsigned int>(type),
                                 label, &made_);
  }
  int Import(Device* device, const unsigned char* encoding, int length, int type,
             const char* label) {
    return DeviceImportKeypair(device, encoding, length, static_cast<unsigned int>(type), label,
                               &made_);
  }
  // The handle of the keypair made last.
  KeypairHandle Made() { return KeypairHandle(std::exchange(made_, nullptr)); }

  const ECCKeypairParams p256Params_ = {CURVE_P256, 0}, temporary_ = {CURVE_P256, 1};
  const std::string pair_ = TestP256().pair, longest_ = std::string(63, 'l');
  const std::string tooLong_ = longest_ + 'l';
};

TEST_F(KeypairsTest, AreGenerated) {
  Device* const device = device_.get();
  const ECCKeypairParams p384 = {CURVE_P384, 0}, other = {CURVE_192, 0}, otherOnce = {CURVE_192, 1};
  const RSAKeypairParams noExponent = {Raw(""), 0, 0}, rsaOnce = {nullptr, 0, 1};
  const void* const p256 = &p256Params_;
  EXPECT_REFUSED(0, Generate(nullptr, 4, 256, p256, 9, "new"));
  EXPECT_REFUSED(-9, Generate(device, 3, 256, p256, 9, "new"));
  EXPECT_REFUSED(0, Generate(device, 4, 256, nullptr, 9, "new"));
  EXPECT_REFUSED(0, Generate(device, 4, 256, p256, 9, nullptr));
  EXPECT_REFUSED(0, DeviceGenerateKeypair(device, 4, 256, p256, 9, "new", nullptr));
  EXPECT_REFUSED(-8, Generate(closed_, 4, 256, p256, 9, "new"));
  EXPECT_REFUSED(-8, Generate(closed_, 4, 256, p256, 9, tooLong_.c_str()));
  EXPECT_REFUSED(-6, Generate(closed_, 4, 256, p256, 1, "sign"));
  EXPECT_REFUSED(0, Generate(device, 4, 256, p256, 0x109, tooLong_.c_str()));
  EXPECT_REFUSED(0, Generate(device, 4, 256, p256, 0, "new"));
  EXPECT_REFUSED(0, Generate(device, 4, 384, p256, 9, "new"));
  EXPECT_REFUSED(0, Generate(device, 4, 256, &p384, 9, "new"));
  EXPECT_REFUSED(0, Generate(device, 4, 192, &other, 9, "new"));
  EXPECT_REFUSED(0, Generate(closed_, 4, 192, &otherOnce, 0, nullptr));
  for (const int bits : {10, -1, 99999})
    EXPECT_REFUSED(0, Generate(device, 1, bits, nullptr, 9, "new"));
  EXPECT_REFUSED(0, Generate(device, 1, 1024, &noExponent, 9, "new"));

  EXPECT_DONE(Generate(closed_, 4, 256, &temporary_, 0, nullptr));
  Made();
  EXPECT_DONE(Generate(closed_, 1, 512, &rsaOnce, 0, nullptr));
  Made();
  EXPECT_WRITTEN(Generate(device, 4, 384, &p384, 9, "one"));
  Made();
  EXPECT_WRITTEN(Generate(device, 4, 256, p256, 9, "two"));
  Made();
  EXPECT_EQ(DeviceGetKeypairCount(device), 5);
}

TEST_F(KeypairsTest, AreImported) {
  Device* const device = device_.get();
  const unsigned char* const pair = Raw(pair_);
  const std::string algorithm2 = Flipped(pair_, 11, 4 ^ 2);
  EXPECT_REFUSED(-2, Import(nullptr, pair, 124, 9, nullptr));
  EXPECT_REFUSED(0, Import(device, pair, 124, 9, nullptr));
  EXPECT_REFUSED(0, DeviceImportKeypair(device, pair, 124, 9, "new", nullptr));
  EXPECT_REFUSED(-6, Import(closed_, nullptr, 0, 1, "sign"));
  EXPECT_REFUSED(0, Import(closed_, Raw(TestP256().publicKey), 88, 9, "new"));
  EXPECT_REFUSED(-8, Import(closed_, pair, 124, 9, "new"));
  EXPECT_REFUSED(0, Import(device, nullptr, 124, 9, "new"));
  for (const int length : {-1, 0, 15, 16})
    EXPECT_REFUSED(0, Import(device, pair, length, 9, "new"));
  EXPECT_REFUSED(-9, Import(device, Raw(algorithm2), 124, 9, "new"));
  const std::string damaged = Flipped(TestRsa().pair, 12);
  EXPECT_REFUSED(0, Import(device, Raw(damaged), Len(damaged), 9, "new"));
  EXPECT_REFUSED(0, Import(device, pair, 124, 0x109, tooLong_.c_str()));
  EXPECT_REFUSED(0, Import(device, pair, 124, 0, "new"));
  EXPECT_WRITTEN(Import(device, pair, 124, 9, longest_.c_str()));
  Made();
  EXPECT_EQ(DeviceGetKeypairCount(device), 4);
}

TEST_F(KeypairsTest, AreDeleted) {
  EXPECT_REFUSED(-2, DeviceDeleteKeypair(nullptr));
  EXPECT_REFUSED(-8, DeviceDeleteKeypair(closed_->keypairs[1]));
  EXPECT_DONE(Generate(device_.get(), 4, 256, &temporary_, 4, ""));
  const KeypairHandle temporary = Made();
  EXPECT_REFUSED(0, DeviceDeleteKeypair(temporary.get()));
  EXPECT_WRITTEN(Generate(device_.get(), 4, 256, &p256Params_, 4, "sign"));
  const KeypairHandle fourth = Made();
  EXPECT_EQ(HasKeypair(device_.get(), 4, "sign"), 1);
  EXPECT_WRITTEN(DeviceDeleteKeypair(fourth.get()));
  EXPECT_EQ(TextOf(Read("dev")), text_);
  EXPECT_EQ(HasKeypair(device_.get(), 4, "sign"), 0);
  EXPECT_REFUSED(0, DeviceDeleteKeypair(fourth.get()));
  EXPECT_DONE(DeleteKeypairFromDevice(device_.get(), fourth.get()));
  EXPECT_REFUSED(0, DeleteKeypairFromDevice(nullptr, fourth.get()));
}

// --- What the file holds besides ---

TEST_F(KeypairsTest, ComeAndGoBesideAnItemThatNoReaderKnows) {
  const std::string text = Replaced(text_, "[[", R"([["skipped",1.50,{"a":null}],[)");
  WriteText(text);
  const DeviceHandle device = Rescan(PIN);
  EXPECT_WRITTEN(Import(device.get(), Raw(pair_), 124, 9, "one"));
  KeypairHandle one = Made();
  EXPECT_WRITTEN(Import(device.get(), Raw(TestSm2().pair), 124, 9, "two"));
  Made();
  EXPECT_WRITTEN(DeviceDeleteKeypair(one.get()));
  one.reset();
  EXPECT_EQ(Describe(*Rescan(PIN), false), Describe(*device, false));
  const KeypairHandle two(DeviceGetKeypair(device.get(), 3));
  EXPECT_WRITTEN(DeviceDeleteKeypair(two.get()));
  EXPECT_EQ(TextOf(Read("dev")), text);
  // One that is not stored any more.
  EXPECT_WRITTEN(Import(device.get(), Raw(pair_), 124, 9, "one"));
  const KeypairHandle gone = Made();
  WriteText(text);
  EXPECT_DONE(DeviceDeleteKeypair(gone.get()));
  EXPECT_EQ(TextOf(Read("dev")), text);
}

TEST_F(KeypairsTest, ADeviceThatHoldsAKeyTwiceOpensAndTakesOthers) {
  const StoredDevice stored = {
      .keypairs = {StoredKeypair().Json(), StoredKeypair{.salt = std::string(32, 't')}.Json()}};
  const DeviceHandle device = Load(stored.File());
  EXPECT_EQ(DeviceGetKeypairCount(device.get()), 2);
  EXPECT_WRITTEN(Import(device.get(), Raw(TestSm2().pair), 124, 9, "one"));
  Made();
}

TEST_F(KeypairsTest, AreNotDeletedBesideDataObjectsEvenNone) {
  for (const char* list : {"[]", R"([[5,1,0,0,"00"]])"}) {
    WriteText(text_.substr(0, text_.size() - 1) + "," + list + "]");
    EXPECT_REFUSED(0, DeviceDeleteKeypair(p256_));
    EXPECT_REFUSED(0, UpdateKeypairToFile(p256_));
  }
  EXPECT_WRITTEN(DeviceAddCertificate(p256_, Raw("cert"), 4));
  EXPECT_REFUSED(0, UpdateKeypairToFile(p256_));
}

TEST_F(KeypairsTest, AreFoundByTheFirstEightItems) {
  const std::pair<const char*, const char*> differences[] = {
      {R"("sign",2,4,256)", R"("Sign",2,4,256)"},
      {R"("sign",2,4,256)", R"("sign",9,4,256)"},
      {",2,4,256", ",2,1,256"},
      {",2,4,256", ",2,4,255"},
      {R"(2,4,256,"73)", R"(2,4,256,"74)"},
      {R"(69","5f5055424b45595f0000000400000003)", R"(6a","5f5055424b45595f0000000400000003)"},
      {"5f5055424b45595f000000040000000300000020", "5f5055424b45595f000000040000000300000021"},
      {R"(412d","e4f9)", R"(412d","e4f8)"}};
  EXPECT_WRITTEN(DeviceAddCertificate(p256_, Raw("one"), 3));
  const std::string text = TextOf(Read("dev"));
  for (const auto& [from, to] : differences) {
    SCOPED_TRACE(to);
    WriteText(Replaced(text, from, to));
    EXPECT_REFUSED(0, DeviceAddCertificate(p256_, Raw("cert"), 4));
    EXPECT_REFUSED(0, DeviceDeleteCertificate(p256_, 0));
    EXPECT_REFUSED(0, UpdateKeypairToFile(p256_));
  }
  // The last is p256 under another PIN, beside which nothing new is stored.
  EXPECT_DONE(AddhKeypairToFile(device_.get(), rsa_));
  const std::string pair = TestSm2().pair;
  EXPECT_REFUSED(0, Import(device_.get(), Raw(pair), Len(pair), 9, "new"));
}

TEST_F(KeypairsTest, NeedAFileThatIsADevice) {
  EXPECT_WRITTEN(DeviceAddCertificate(p256_, Raw("one"), 3));
  const auto calls = [&] {
    EXPECT_REFUSED(0, DeviceAddCertificate(p256_, Raw("cert"), 4));
    EXPECT_REFUSED(0, DeviceDeleteCertificate(p256_, 0));
    EXPECT_REFUSED(0, DeviceDeleteKeypair(p256_));
    EXPECT_REFUSED(0, Import(device_.get(), Raw(pair_), 124, 9, "new"));
    EXPECT_REFUSED(0, Generate(device_.get(), 4, 256, &p256Params_, 9, "new"));
  };
  const std::string good = Read("dev");
  Write("dev", Flipped(good, 15));  // a wrong digest is not made right
  calls();
  EXPECT_REFUSED(0, DeviceChangePwd(device_.get(), 1, PIN, "new", nullptr));
  Write("dev.bak", good);  // the only good copy
  EXPECT_REFUSED(0, AddhKeypairToFile(device_.get(), p256_));
  remove(Path("dev.bak").c_str());
  for (const std::string& bytes :
       {std::string("short"), Word(1) + Word(0xfffffff8) + "[]", Container(TAG, R"(["a","b"])"),
        Container(TAG, R"(["a","b",5])"), Container(TAG, "{}"), Container(TAG, "[")}) {
    SCOPED_TRACE(bytes);
    Write("dev", bytes);
    calls();
    EXPECT_REFUSED(0, UpdateKeypairToFile(p256_));
    EXPECT_REFUSED(0, AddhKeypairToFile(device_.get(), p256_));
  }
}
