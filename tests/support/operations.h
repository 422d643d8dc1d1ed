// Key operations as functions from bytes to bytes, on a device of one RSA, one P-256 and one SM2
// keypair, and the same done by OpenSSL's EVP.
#ifndef VAKRO_TESTS_OPERATIONS_H
#define VAKRO_TESTS_OPERATIONS_H

#include "tests/support/world.h"

class OperationsTest : public ModuleTest {
 protected:
  void SetUp() override;
  void TearDown() override;

  // The output, or "result N".
  static std::string Sign(Keypair* keypair, unsigned int algorithm, const std::string& data,
                          int size = 600);
  static std::string Decrypt(Keypair* keypair, unsigned int algorithm, const std::string& data,
                             int size = 600);
  static std::string Encrypt(PublicKey* key, unsigned int algorithm, const std::string& data,
                             int size = 600);
  static int Verify(PublicKey* key, unsigned int algorithm, const std::string& data,
                    const std::string& signature);

  // OpenSSL's, "" on failure; `padding` is set for RSA keys.
  static std::string EvpSign(EVP_PKEY* key, const std::string& data, int padding = 0);
  static std::string EvpEncrypt(EVP_PKEY* key, const std::string& data, int padding = 0);
  static std::string EvpDecrypt(EVP_PKEY* key, const std::string& data, int padding = 0);
  static bool EvpVerify(EVP_PKEY* key, const std::string& data, const std::string& signature);

  DeviceHandle device_;
  Keypair *rsa_, *p256_, *sm2_;  // the device's
  PublicHandle rsaPublic_, p256Public_, sm2Public_;
};

#endif
