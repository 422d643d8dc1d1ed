#include "tests/support/operations.h"

#include <openssl/rsa.h>

void OperationsTest::SetUp() {
  ModuleTest::SetUp();
  device_ = Load(StoredDevice{.keypairs = {StoredKeypair{.key = &TestRsa()}.Json(),
                                           StoredKeypair{.type = 2, .key = &TestP256()}.Json(),
                                           StoredKeypair{.type = 3, .key = &TestSm2()}.Json()}}
                     .File());
  ASSERT_EQ(device_->keypairCount, 3);
  rsa_ = device_->keypairs[0];
  p256_ = device_->keypairs[1];
  sm2_ = device_->keypairs[2];
  rsaPublic_.reset(DeviceGetPublicKeyFromKeypair(rsa_));
  p256Public_.reset(DeviceGetPublicKeyFromKeypair(p256_));
  sm2Public_.reset(DeviceGetPublicKeyFromKeypair(sm2_));
}

void OperationsTest::TearDown() {
  for (PublicHandle* key : {&rsaPublic_, &p256Public_, &sm2Public_}) key->reset();
  device_.reset();
  ModuleTest::TearDown();
}

template <class Handle, class Operation>
static std::string Perform(Operation operation, Handle* key, unsigned int algorithm,
                           const std::string& data, int size) {
  unsigned char buffer[600];
  int length = 0;
  const int result =
      operation(key, algorithm, nullptr, Raw(data), Len(data), buffer, size, &length);
  return result == 1 ? Bytes(buffer, length) : "result " + std::to_string(result);
}

std::string OperationsTest::Sign(Keypair* keypair, unsigned int algorithm, const std::string& data,
                                 int size) {
  return Perform(DeviceSign, keypair, algorithm, data, size);
}
std::string OperationsTest::Decrypt(Keypair* keypair, unsigned int algorithm,
                                    const std::string& data, int size) {
  return Perform(DevicePrivateKeyDecrypt, keypair, algorithm, data, size);
}
std::string OperationsTest::Encrypt(PublicKey* key, unsigned int algorithm, const std::string& data,
                                    int size) {
  return Perform(DevicePublicKeyEncrypt, key, algorithm, data, size);
}
int OperationsTest::Verify(PublicKey* key, unsigned int algorithm, const std::string& data,
                           const std::string& signature) {
  return DeviceVerify(key, algorithm, nullptr, Raw(data), Len(data), Raw(signature),
                      Len(signature));
}

using EvpContext = std::unique_ptr<EVP_PKEY_CTX, Release<EVP_PKEY_CTX_free>>;

template <class Init, class Operation>
static std::string RunEvp(EVP_PKEY* key, Init init, Operation operation, const std::string& data,
                          int padding) {
  const EvpContext context(EVP_PKEY_CTX_new(key, nullptr));
  unsigned char out[600];
  size_t length = sizeof(out);
  if (init(context.get()) != 1 ||
      (padding != 0 && EVP_PKEY_CTX_set_rsa_padding(context.get(), padding) != 1) ||
      operation(context.get(), out, &length, Raw(data), data.size()) != 1)
    return "";
  return Bytes(out, static_cast<long>(length));
}

std::string OperationsTest::EvpSign(EVP_PKEY* key, const std::string& data, int padding) {
  return RunEvp(key, EVP_PKEY_sign_init, EVP_PKEY_sign, data, padding);
}
std::string OperationsTest::EvpEncrypt(EVP_PKEY* key, const std::string& data, int padding) {
  return RunEvp(key, EVP_PKEY_encrypt_init, EVP_PKEY_encrypt, data, padding);
}
std::string OperationsTest::EvpDecrypt(EVP_PKEY* key, const std::string& data, int padding) {
  return RunEvp(key, EVP_PKEY_decrypt_init, EVP_PKEY_decrypt, data, padding);
}
bool OperationsTest::EvpVerify(EVP_PKEY* key, const std::string& data,
                               const std::string& signature) {
  const EvpContext context(EVP_PKEY_CTX_new(key, nullptr));
  return EVP_PKEY_verify_init(context.get()) == 1 &&
         EVP_PKEY_verify(context.get(), Raw(signature), signature.size(), Raw(data), data.size()) ==
             1;
}
