// Key operations as functions from bytes to bytes, on a device of one RSA, one P-256 and one SM2
// keypair.
#ifndef VAKRO_TESTS_OPERATIONS_H
#define VAKRO_TESTS_OPERATIONS_H

#include "tests/support/world.h"

class OperationsTest : public ModuleTest {
 protected:
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

  DeviceHandle device_ =
      Load(StoredDevice{.keypairs = {StoredKeypair{.key = &TestRsa()}.Json(),
                                     StoredKeypair{.type = 2, .key = &TestP256()}.Json(),
                                     StoredKeypair{.type = 3, .key = &TestSm2()}.Json()}}
               .File());
  Keypair* const rsa_ = device_->keypairs[0];
  Keypair* const p256_ = device_->keypairs[1];
  Keypair* const sm2_ = device_->keypairs[2];
  const PublicHandle rsaPublic_{DeviceGetPublicKeyFromKeypair(rsa_)};
  const PublicHandle p256Public_{DeviceGetPublicKeyFromKeypair(p256_)};
  const PublicHandle sm2Public_{DeviceGetPublicKeyFromKeypair(sm2_)};
};

#endif
