// Keys and one call of each key operation, as a copyable object with its own output.
#ifndef VAKRO_BENCH_KEYS_H
#define VAKRO_BENCH_KEYS_H

#include "bench.h"

// A temporary keypair and its public key, made once.
struct Key {
  std::shared_ptr<Keypair> pair;
  std::shared_ptr<PublicKey> pub;
};
Key RsaKeyOf(int bits);
Key EccKeyOf(int curve);

inline unsigned char* Room(std::string& bytes) {
  return reinterpret_cast<unsigned char*>(bytes.data());
}

// `Operation` is DeviceSign or DevicePrivateKeyDecrypt on a keypair, or DevicePublicKeyEncrypt.
template <auto Operation, class Handle>
struct KeyCall {
  std::shared_ptr<Handle> key;
  unsigned int algorithm;
  std::string data;
  std::string output = std::string(8192, '\0');
  int length = 0;

  bool operator()() {
    return Operation(key.get(), algorithm, nullptr, Raw(data), Len(data), Room(output), Len(output),
                     &length) == 1;
  }
  // What it makes.
  std::string Output() {
    Check((*this)(), "a key operation");
    return output.substr(0, static_cast<size_t>(length));
  }
};
using SignCall = KeyCall<DeviceSign, Keypair>;
using EncryptCall = KeyCall<DevicePublicKeyEncrypt, PublicKey>;
using DecryptCall = KeyCall<DevicePrivateKeyDecrypt, Keypair>;

Call VerifyCall(const Key& key, unsigned int algorithm, const std::string& data);

// OpenSSL's ECDSA on P-256, the measure of SM2 too, and a new key on P-256 or on another group.
Call BareEcdsaSign();
Call BareEcdsaVerify();
bool BareEcGeneration(const EC_GROUP* group = nullptr);

#endif
