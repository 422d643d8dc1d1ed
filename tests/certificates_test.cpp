// Certificates of a keypair: what the calls answer, and what they write.
#include "keypair/keypair.h"
#include "store/store.h"
#include "tests/support/answers.h"

class CertificatesTest : public AnswersTest {
 protected:
  static int Add(Keypair* keypair, std::string_view cert) {
    return DeviceAddCertificate(keypair, Raw(cert), Len(cert));
  }
  std::string CertOf(Keypair* keypair, int index, int length) {
    return Output(length,
                  [&](auto... out) { return DeviceGetCertificate(keypair, index, out...); });
  }
  Keypair* const locked_ = closed_->keypairs[1];
};

TEST_F(CertificatesTest, AreAddedReadAndDeleted) {
  EXPECT_REFUSED(-2, Add(nullptr, "cert"));
  EXPECT_REFUSED(0, DeviceAddCertificate(p256_, nullptr, 4));
  for (const int length : {0, -1}) EXPECT_REFUSED(0, DeviceAddCertificate(p256_, out_, length));
  EXPECT_REFUSED(-8, Add(locked_, "cert"));
  EXPECT_WRITTEN(Add(p256_, "cert"));
  EXPECT_WRITTEN(Add(p256_, "second"));

  EXPECT_REFUSED(-2, DeviceGetCertificateCount(nullptr));
  EXPECT_EQ(DeviceGetCertificateCount(p256_), 2);
  EXPECT_REFUSED(-2, DeviceGetCertificate(nullptr, 0, nullptr, 0, &n_));
  for (const int index : {-1, 2})
    EXPECT_REFUSED(0, DeviceGetCertificate(p256_, index, nullptr, 0, &n_));
  EXPECT_EQ(CertOf(p256_, 0, 4), "cert");
  EXPECT_EQ(CertOf(p256_, 1, 6), "second");

  EXPECT_REFUSED(-2, DeviceDeleteCertificate(nullptr, 0));
  EXPECT_REFUSED(-8, DeviceDeleteCertificate(locked_, 99));
  for (const int index : {-1, 2}) EXPECT_REFUSED(0, DeviceDeleteCertificate(p256_, index));
  EXPECT_WRITTEN(DeviceDeleteCertificate(p256_, 0));
  EXPECT_EQ(CertOf(p256_, 0, 6), "second");
}

TEST_F(CertificatesTest, BelongToStoredKeypairs) {
  const ECCKeypairParams temporary = {CURVE_P256, 1}, stored = {CURVE_P256, 0};
  const KeypairHandle made = Generate(device_.get(), 4, 256, &temporary);
  EXPECT_REFUSED(0, Add(made.get(), "cert"));
  EXPECT_REFUSED(0, DeviceDeleteCertificate(made.get(), 0));
  const KeypairHandle deleted = Generate(device_.get(), 4, 256, &stored);
  EXPECT_WRITTEN(DeviceDeleteKeypair(deleted.get()));
  EXPECT_REFUSED(0, Add(deleted.get(), "cert"));
  EXPECT_REFUSED(0, DeviceDeleteCertificate(deleted.get(), 0));
}

// The text of the file, change by change; one that is there already is stored once.
TEST_F(CertificatesTest, AreWrittenInOrder) {
  EXPECT_CHANGE(R"([]],["sign",2)", R"(["b25l"]],["sign",2)", Add(rsa_, "one"));
  EXPECT_CHANGE(R"("b25l"])", R"("b25l","dHdv"])", Add(rsa_, "two"));
  EXPECT_CHANGE(R"("dHdv"])", R"("dHdv","dGhyZWU="])", Add(rsa_, "three"));
  EXPECT_CHANGE(R"("dGhyZWU="])", R"("dGhyZWU=","Zm91cg=="])", Add(rsa_, "four"));
  EXPECT_CHANGE(R"("dHdv",)", "", DeviceDeleteCertificate(rsa_, 1));
  EXPECT_DONE(Add(rsa_, "one"));
  EXPECT_EQ(DeviceGetCertificateCount(rsa_), 4);
  // Of one that the record does not hold nothing goes: the file then lists what the record does.
  const OwnedCert other(NewCert(Raw("other"), 5));
  EXPECT_CHANGE(R"("Zm91cg=="])", R"("Zm91cg==","b25l"])", DeleteCertFromFile(rsa_, other.get()));
  // Of equal ones the first goes.
  EXPECT_CHANGE(R"("b25l","dGhyZWU=")", R"("dGhyZWU=")", DeviceDeleteCertificate(rsa_, 3));
  EXPECT_REFUSED(0, WithFault({"fwrite", 3}, [&] { return UpdateKeypairToFile(rsa_); }));
  EXPECT_CHANGE(R"(["dGhyZWU=","Zm91cg==","b25l"])", R"(["b25l","dGhyZWU=","Zm91cg=="])",
                UpdateKeypairToFile(rsa_));
}

TEST_F(CertificatesTest, AreTenAtMost) {
  for (const char* cert : {"a", "b", "c", "d", "e", "f", "g", "h", "i", "j"})
    EXPECT_WRITTEN(Add(rsa_, cert));
  EXPECT_REFUSED(0, Add(rsa_, "eleventh"));
  EXPECT_EQ(DeviceGetCertificateCount(rsa_), 10);
  for (int left = 10; left > 0; left--) EXPECT_WRITTEN(DeviceDeleteCertificate(rsa_, 0));
  EXPECT_EQ(TextOf(Read("dev")), text_);
}
