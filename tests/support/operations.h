// Key operations as functions from bytes to bytes, on a device of one RSA, one P-256 and one SM2
// keypair, and the same done by OpenSSL's EVP.
#ifndef VAKRO_TESTS_OPERATIONS_H
#define VAKRO_TESTS_OPERATIONS_H

#include "tests/support/world.h"

#include <openssl/rsa.h>

class OperationsTest : public ModuleTest {
 protected:
  void SetUp() override {
    ModuleTest::SetUp();
    device_ = Load(StoredDevice{.keypairs = {StoredKeypair{.key = &TestRsa()}.Json(),
                                             StoredKeypair{.type = 2, .key = &TestP256()}.Json(),
                                             StoredKeypair{.type = 3, .key = &TestSm2()}.Json()}}
                       .File());
    ASSERT_EQ(device_->keypairCount, 3);
    rsaPublic_.reset(DeviceGetPublicKeyFromKeypair(rsa_ = device_->keypairs[0]));
    p256Public_.reset(DeviceGetPublicKeyFromKeypair(p256_ = device_->keypairs[1]));
    sm2Public_.reset(DeviceGetPublicKeyFromKeypair(sm2_ = device_->keypairs[2]));
  }
  void TearDown() override {
    for (PublicHandle* key : {&rsaPublic_, &p256Public_, &sm2Public_}) key->reset();
    device_.reset();
    ModuleTest::TearDown();
  }

  // The output, in a buffer just as long as the size query says, or "result N".
  template <auto Operation, class Key>
  static std::string Perform(Key* key, unsigned int algorithm, std::string_view data) {
    int length = 0;
    const auto call = [&](unsigned char* out, int size) {
      return Operation(key, algorithm, nullptr, Raw(data), Len(data), out, size, &length);
    };
    int result = call(nullptr, 0);
    std::vector<unsigned char> out(static_cast<size_t>(length));
    if (result == 1) result = call(out.data(), length);
    return result == 1 ? Bytes(out.data(), length) : "result " + std::to_string(result);
  }
  static constexpr auto Sign = Perform<DeviceSign, Keypair>;
  static constexpr auto Decrypt = Perform<DevicePrivateKeyDecrypt, Keypair>;
  static constexpr auto Encrypt = Perform<DevicePublicKeyEncrypt, PublicKey>;

  static int Verify(PublicKey* key, unsigned int algorithm, std::string_view data,
                    std::string_view signature) {
    return DeviceVerify(key, algorithm, nullptr, Raw(data), Len(data), Raw(signature),
                        Len(signature));
  }

  // OpenSSL's, "" on failure; `padding` is set for RSA keys.
  static std::string EvpSign(EVP_PKEY* key, const std::string& data, int padding = 0) {
    return RunEvp(key, EVP_PKEY_sign_init, EVP_PKEY_sign, data, padding);
  }
  static std::string EvpEncrypt(EVP_PKEY* key, const std::string& data, int padding = 0) {
    return RunEvp(key, EVP_PKEY_encrypt_init, EVP_PKEY_encrypt, data, padding);
  }
  static std::string EvpDecrypt(EVP_PKEY* key, const std::string& data, int padding = 0) {
    return RunEvp(key, EVP_PKEY_decrypt_init, EVP_PKEY_decrypt, data, padding);
  }
  static bool EvpVerify(EVP_PKEY* key, std::string_view data, std::string_view signature) {
    const EvpContext context(EVP_PKEY_CTX_new(key, nullptr));
    return EVP_PKEY_verify_init(context.get()) == 1 &&
           EVP_PKEY_verify(context.get(), Raw(signature), signature.size(), Raw(data),
                           data.size()) == 1;
  }

  DeviceHandle device_;
  Keypair *rsa_, *p256_, *sm2_;  // the device's
  PublicHandle rsaPublic_, p256Public_, sm2Public_;

 private:
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
};

#endif
