// The caller's queue of OpenSSL errors is left as it was found, also by calls that fail inside
// OpenSSL.
#include "tests/support/operations.h"

#include <openssl/err.h>

namespace {

using ErrorQueueTest = OperationsTest;

// The reasons of the queue, which is empty afterwards.
std::vector<int> Reasons() {
  std::vector<int> reasons;
  while (const unsigned long error = ERR_get_error())
    reasons.push_back(ERR_GET_LIB(error) == ERR_LIB_USER ? ERR_GET_REASON(error) : -1);
  return reasons;
}

}  // namespace

TEST_F(ErrorQueueTest, IsLeftAsItWasFound) {
  const std::string junk(256, 'j');
  const std::string badPair = TestRsa().pair.substr(0, 12) + junk;
  std::string badPoint = TestP256().publicKey;
  badPoint.back() ^= 1;
  const DeviceHandle closed = Rescan();
  Keypair* made = nullptr;
  PublicKey* read = nullptr;
  int length = 0;
  unsigned char out[600];
  struct {
    const char* what;
    std::function<void()> call;
  } const rows[] = {
      {"wrong PIN", [&] { EXPECT_EQ(DeviceVerifyPwd(closed.get(), 1, "wrong", nullptr), -5); }},
      {"RSA of 100 bits",
       [&] {
         const RSAKeypairParams params = {nullptr, 0, 1};
         EXPECT_EQ(DeviceGenerateKeypair(device_.get(), 1, 100, &params, 9, "new", &made), 0);
       }},
      {"damaged keypair",
       [&] {
         EXPECT_EQ(DeviceImportKeypair(device_.get(), Raw(badPair), Len(badPair), 9, "n", &made),
                   0);
       }},
      {"no point",
       [&] { EXPECT_EQ(DeviceImportPublicKey(nullptr, Raw(badPoint), Len(badPoint), &read), 0); }},
      {"block too long",
       [&] { EXPECT_EQ(DeviceSign(rsa_, 256, nullptr, Raw(junk), 250, out, 600, &length), 0); }},
      {"no signature", [&] { EXPECT_EQ(Verify(rsaPublic_.get(), 256, junk, junk), 0); }},
      {"no ECDSA signature", [&] { EXPECT_EQ(Verify(p256Public_.get(), 2048, junk, junk), 0); }},
      {"no SM2 signature",
       [&] { EXPECT_EQ(Verify(sm2Public_.get(), 4096, junk.substr(0, 32), junk), 0); }},
      {"no ciphertext", [&] { EXPECT_EQ(Decrypt(rsa_, 16, junk), "result 0"); }},
      {"text too long", [&] { EXPECT_EQ(Encrypt(rsaPublic_.get(), 16, junk), "result 0"); }},
      {"nothing fails",
       [&] { EXPECT_TRUE(Sign(sm2_, 4096, junk.substr(0, 32)).starts_with("0")); }},
  };
  ERR_clear_error();
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    row.call();
    EXPECT_EQ(Reasons(), std::vector<int>());
    for (const int reason : {1, 2, 3}) ERR_raise(ERR_LIB_USER, reason);
    row.call();
    EXPECT_EQ(Reasons(), (std::vector<int>{1, 2, 3}));
    ERR_raise(ERR_LIB_USER, 1);
    ERR_set_mark();
    ERR_raise(ERR_LIB_USER, 2);
    row.call();
    ERR_pop_to_mark();
    EXPECT_EQ(Reasons(), std::vector<int>{1}) << "the caller's own mark";
  }
}
