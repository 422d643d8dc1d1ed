// Fuzz targets of what keys are and make: encodings, signatures, ciphertexts.
#include "fuzz/fuzz.h"
#include "sm2/sm2.h"

// Whether the DER within an encoding of an RSA key, is written as it is written here.
static bool IsNormal(const EVP_PKEY* key, std::string_view encoding,
                     int (*encode)(const EVP_PKEY*, unsigned char**)) {
  if (EVP_PKEY_get_base_id(key) != EVP_PKEY_RSA) return true;
  unsigned char* der = nullptr;
  const int length = encode(key, &der);
  const std::string written = View(der, length);
  OPENSSL_free(der);
  return encoding.substr(12) == written;
}

// Whatever the decoder takes is encoded again as the same bytes.
FUZZ(ecc_signature) {
  unsigned char *r = nullptr, *s = nullptr, *again = nullptr;
  int rLen = 0, sLen = 0, againLen = 0;
  if (VakroPKICryptoDecodeECCSignature(Raw(input), Len(input), &r, &rLen, &s, &sLen) != 1) return;
  const LibBytes ownedR(r), ownedS(s);
  DEMAND(rLen > 0 && r[0] != 0 && sLen > 0 && s[0] != 0);
  DEMAND(VakroPKICryptoEncodeECCSignature(r, rLen, s, sLen, &again, &againLen) == 1);
  const LibBytes ownedAgain(again);
  DEMAND(View(again, againLen) == input);
}

// Decrypts into a buffer of exactly the needed size that is full of marks; what does not decrypt
// leaves zeros.
FUZZ(sm2_ciphertext) {
  static const DeviceHandle device = [] {
    StoreFile(StoredDevice{.keypairs = {StoredKeypair{.key = &TestSm2()}.Json()}}.File());
    return LoadDevice(PIN);
  }();
  const KeypairHandle keypair(DeviceGetKeypair(device.get(), 0));
  int length = 0;
  const auto decrypt = [&](unsigned char* buffer, int size) {
    return DevicePrivateKeyDecrypt(keypair.get(), ALGORITHM_SM2_ENCRYPT, nullptr, Raw(input),
                                   Len(input), buffer, size, &length);
  };
  DEMAND(decrypt(nullptr, 0) == (Len(input) > SM2_CIPHER_OVERHEAD ? VAKRO_OK : VAKRO_FAILED));
  std::vector<unsigned char> out(static_cast<size_t>(length), 0xa5);
  const std::vector<unsigned char> zeros(out.size());
  const int result = decrypt(out.data(), length);
  DEMAND(result == VAKRO_OK || (result == VAKRO_FAILED && out == zeros));
}

// A refused keypair changes neither device nor file; an imported one can be used, and the device
// file still loads and opens with the PIN.
FUZZ(keypair_encoding) {
  static const std::string file = StoredDevice{.keypairs = {}}.File();
  StoreFile(file);
  const DeviceHandle device = LoadDevice(PIN);
  Keypair* keypair = nullptr;
  const int result = DeviceImportKeypair(device.get(), Raw(input), Len(input), 1, "fuzz", &keypair);
  const KeypairHandle owned(keypair);
  if (result != VAKRO_OK) {
    DEMAND(result == VAKRO_FAILED || result == VAKRO_NOT_SUPPORTED);
    DEMAND(keypair == nullptr && device->keypairCount == 0 && StoredFile() == file);
    return;
  }
  DEMAND(keypair != nullptr && device->keypairCount == 1 && device->keypairs[0] == keypair);
  DEMAND(IsNormal(keypair->privateKey, input, i2d_PrivateKey));
  Use<DeviceSign>(keypair, keypair->bits);
  DEMAND(Summary(*LoadDevice(PIN)) == Summary(*device));
}

// What is imported exports as the same bytes and can be used.
FUZZ(public_key_encoding) {
  PublicKey* raw = nullptr;
  const int result = DeviceImportPublicKey(nullptr, Raw(input), Len(input), &raw);
  const PublicHandle key(raw);
  DEMAND(result == (key ? VAKRO_OK : VAKRO_FAILED));
  if (!key) return;
  const int bits = DeviceGetPublicKeyBits(key.get());
  DEMAND(View(key->publicKey, key->publicKeyLen) == input && bits > 0);
  DEMAND(IsNormal(key->key, input, i2d_PublicKey));
  Use<DevicePublicKeyEncrypt>(key.get(), static_cast<unsigned int>(bits));
  // Without the key of a pair no signature is known, and this one is of the size that RSA wants.
  const std::string signature(static_cast<size_t>(bits + 7) / 8, '\1'), digest(32, 'e');
  for (const unsigned int by : {ALGORITHM_RSA_PKCS1_SIGN, ALGORITHM_ECDSA_SIGN, ALGORITHM_SM2_SIGN})
    DEMAND(DeviceVerify(key.get(), by, nullptr, Raw(digest), 32, Raw(signature), Len(signature)) !=
           VAKRO_OK);
}
