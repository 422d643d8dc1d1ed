// One call of a key operation, through the interface or of OpenSSL's bare function, as a copyable
// object with its own input and output.
#ifndef VAKRO_BENCH_OPERATIONS_H
#define VAKRO_BENCH_OPERATIONS_H

#include "core/openssl_owners.h"
#include "core/secret.h"
#include "harness.h"
#include "world.h"

#include <string>
#include <vector>

using Bytes = std::vector<unsigned char>;
inline int Len(const Bytes& bytes) { return static_cast<int>(bytes.size()); }
inline Bytes SomeBytes(size_t count) { return Bytes(count, 0x5a); }

struct SignCall {
  Key key;
  unsigned int algorithm;
  Bytes data;
  Bytes output = Bytes(1024);
  int length = 0;
  bool operator()() {
    return DeviceSign(key.pair.get(), algorithm, nullptr, data.data(), Len(data), output.data(),
                      Len(output), &length) == 1;
  }
};

struct VerifyCall {
  Key key;
  unsigned int algorithm;
  Bytes data;
  Bytes signature;
  bool operator()() const {
    return DeviceVerify(key.pub.get(), algorithm, nullptr, data.data(), Len(data), signature.data(),
                        Len(signature)) == 1;
  }
};

struct EncryptCall {
  Key key;
  unsigned int algorithm;
  Bytes data;
  Bytes output = Bytes(8192);
  int length = 0;
  bool operator()() {
    return DevicePublicKeyEncrypt(key.pub.get(), algorithm, nullptr, data.data(), Len(data),
                                  output.data(), Len(output), &length) == 1;
  }
};

struct DecryptCall {
  Key key;
  unsigned int algorithm;
  Bytes data;
  Bytes output = Bytes(8192);
  int length = 0;
  bool operator()() {
    return DevicePrivateKeyDecrypt(key.pair.get(), algorithm, nullptr, data.data(), Len(data),
                                   output.data(), Len(output), &length) == 1;
  }
};

// One of OpenSSL's RSA functions with PKCS#1 v1.5 padding. With `expected` it also compares, as a
// verification does.
struct RsaCall {
  int (*function)(int, const unsigned char*, unsigned char*, RSA*, int);
  RSA* rsa;
  Bytes data;
  Bytes expected = {};
  Bytes output = Bytes(1024);
  bool operator()() {
    const int length = function(Len(data), data.data(), output.data(), rsa, RSA_PKCS1_PADDING);
    if (expected.empty()) return length > 0;
    return length == Len(expected) &&
           CRYPTO_memcmp(output.data(), expected.data(), expected.size()) == 0;
  }
};

struct EcdsaSignCall {
  EC_KEY* ec;
  Bytes data;
  Bytes output = Bytes(160);
  bool operator()() {
    unsigned int length = 0;
    return ECDSA_sign(0, data.data(), Len(data), output.data(), &length, ec) == 1;
  }
};

struct EcdsaVerifyCall {
  EC_KEY* ec;
  Bytes data;
  Bytes signature;
  bool operator()() const {
    return ECDSA_verify(0, data.data(), Len(data), signature.data(), Len(signature), ec) == 1;
  }
};

// The output of one signature or encryption.
template <class Call>
Bytes OutputOf(Call call) {
  Check(call(), "preparing");
  call.output.resize(static_cast<size_t>(call.length));
  return call.output;
}

inline RSA* RsaOf(EVP_PKEY* key) { return const_cast<RSA*>(EVP_PKEY_get0_RSA(key)); }
inline EC_KEY* EcOf(EVP_PKEY* key) { return const_cast<EC_KEY*>(EVP_PKEY_get0_EC_KEY(key)); }

// OpenSSL's ECDSA on P-256, the measure of SM2 too.
inline EcdsaSignCall BareEcdsaSign() {
  return {EcOf(EccKeyOf(CURVE_P256).pair->privateKey), SomeBytes(32)};
}
inline EcdsaVerifyCall BareEcdsaVerify() {
  const Key key = EccKeyOf(CURVE_P256);
  return {EcOf(key.pub->key), SomeBytes(32),
          OutputOf(SignCall{key, ALGORITHM_ECDSA_SIGN, SomeBytes(32)})};
}

// A new key on P-256, or on a group of one's own.
inline bool BareEcGeneration(const EC_GROUP* group = nullptr) {
  const EcKey key(group == nullptr ? EC_KEY_new_by_curve_name(NID_X9_62_prime256v1) : EC_KEY_new());
  return key && (group == nullptr || EC_KEY_set_group(key.get(), group) == 1) &&
         EC_KEY_generate_key(key.get()) == 1;
}

#endif
