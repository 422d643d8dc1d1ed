// Keypair handles, certificates and deletion.
#include "keypair/keypair.h"
#include "tests/support/world.h"

class AccessTest : public ModuleTest {
 protected:
  const std::string three_ =
      StoredDevice{.keypairs = {StoredKeypair().Json(), StoredKeypair{.label = "b"}.Json(),
                                StoredKeypair{.label = "c", .certs = {"1", "2", "3"}}.Json()}}
          .File();
  static std::string Certs(Keypair* keypair) {
    std::string list;
    for (int i = 0; i < DeviceGetCertificateCount(keypair); i++) {
      unsigned char buffer[16];
      int length = 0;
      EXPECT_EQ(DeviceGetCertificate(keypair, i, buffer, sizeof(buffer), &length), 1);
      list += Bytes(buffer, length) + " ";
    }
    return list;
  }
  static int Add(Keypair* keypair, const std::string& cert) {
    return DeviceAddCertificate(keypair, Raw(cert), Len(cert));
  }
};

TEST_F(AccessTest, KeypairsAreFoundByTypeAndExactLabel) {
  const DeviceHandle device = Load(three_);
  EXPECT_EQ(HasKeypair(device.get(), 1, "sign"), 1);
  EXPECT_EQ(HasKeypair(device.get(), 1, "c"), 1);
  for (const char* label : {"Sign", "sig", "sign ", ""})
    EXPECT_EQ(HasKeypair(device.get(), 1, label), 0) << label;
  EXPECT_EQ(HasKeypair(device.get(), 2, "sign"), 0);
}

TEST_F(AccessTest, CertificatesComeAndGoInOrder) {
  const DeviceHandle device = Load(three_);
  const KeypairHandle keypair(DeviceGetKeypair(device.get(), 2));
  EXPECT_EQ(Certs(keypair.get()), "1 2 3 ");
  EXPECT_EQ(DeviceDeleteCertificate(keypair.get(), 0), 1);
  EXPECT_EQ(Certs(keypair.get()), "2 3 ");
  EXPECT_EQ(Add(keypair.get(), "4"), 1);
  EXPECT_EQ(Certs(keypair.get()), "2 3 4 ");
  EXPECT_EQ(Certs(Rescan()->keypairs[2]), "2 3 4 ");
  EXPECT_EQ(DeviceDeleteCertificate(keypair.get(), 1), 1);
  EXPECT_EQ(Certs(Rescan()->keypairs[2]), "2 4 ");
  EXPECT_EQ(Certs(keypair.get()), "2 4 ");
  EXPECT_EQ(Certs(device->keypairs[0]), "");
  EXPECT_EQ(Add(keypair.get(), "2"), 1);  // once more: twice in the record, once in the file
  EXPECT_EQ(Certs(keypair.get()), "2 4 2 ");
  EXPECT_EQ(Certs(Rescan()->keypairs[2]), "2 4 ");
}

TEST_F(AccessTest, TenCertificatesAndNoMore) {
  const DeviceHandle device = Load(three_);
  const KeypairHandle keypair(DeviceGetKeypair(device.get(), 0));
  std::string all;
  for (char c = 'a'; c < 'k'; c++) {
    EXPECT_EQ(Add(keypair.get(), std::string(1, c)), 1);
    all += std::string(1, c) + " ";
  }
  Refuses(0, device.get(), [&] { return Add(keypair.get(), "z"); });
  EXPECT_EQ(Certs(Rescan()->keypairs[0]), all);
}

TEST_F(AccessTest, ADeletedKeypairIsGoneFromRecordAndFile) {
  const DeviceHandle device = Load(three_);
  KeypairHandle second(DeviceGetKeypair(device.get(), 1));
  EXPECT_EQ(DeviceDeleteKeypair(second.get()), 1);
  EXPECT_EQ(second->device, nullptr);
  EXPECT_EQ(DeviceGetKeypairCount(device.get()), 2);
  EXPECT_STREQ(device->keypairs[0]->label, "sign");
  EXPECT_STREQ(device->keypairs[1]->label, "c");
  EXPECT_EQ(HasKeypair(device.get(), 1, "b"), 0);
  EXPECT_EQ(Add(second.get(), "x"), 0) << "detached";
  EXPECT_EQ(DeviceDeleteCertificate(second.get(), 0), 0);
  const DeviceHandle again = Rescan(PIN);
  EXPECT_EQ(DeviceGetKeypairCount(again.get()), 2);
  EXPECT_STREQ(again->keypairs[1]->label, "c");
  EXPECT_EQ(DeleteKeypairFromDevice(device.get(), second.get()), 1) << "not in the list";
  EXPECT_EQ(DeleteKeypairFromDevice(nullptr, second.get()), 0);
  EXPECT_EQ(DeviceGetKeypairCount(device.get()), 2);
}
