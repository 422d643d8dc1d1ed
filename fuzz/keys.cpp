// Fuzz targets of what keys are and make: encodings, signatures, ciphertexts.
#include "fuzz/fuzz.h"

// --- Encodings -----------------------------------------------------------------------------------

// An encoding that was accepted as it is written: the numbers of elliptic-curve keys then have 32
// bytes. Throws where one does not end within the encoding.
static std::string Normal(std::string_view encoding) {
  if (be2int(Raw(encoding) + 8) == ALGORITHM_RSA) return std::string(encoding);
  std::string normal(encoding.substr(0, 16));
  for (std::string_view rest = encoding.substr(16); !rest.empty();) {
    const std::string number(rest.substr(4, be2int(Raw(rest))));
    normal += Word(32) + (std::string(32, '\0') + number).substr(number.size());
    rest = rest.substr(size_t{4} + be2int(Raw(rest)));
  }
  return normal;
}

// A refused keypair changes neither device nor file; an imported one can be used, and is found in
// the device file as it was given.
FUZZ(keypair_encoding) {
  static const std::string empty = StoredDevice{.keypairs = {}}.File();
  const DeviceHandle device = Load(empty);
  Keypair* keypair = nullptr;
  const int result = DeviceImportKeypair(device.get(), Raw(input), Len(input), 1, "fuzz", &keypair);
  EXPECT_EQ(device->keypairCount, result == VAKRO_OK ? 1 : 0);
  EXPECT_EQ(keypair, device->keypairs[0]);
  if (result != VAKRO_OK) {
    EXPECT_TRUE(result == VAKRO_FAILED || result == VAKRO_NOT_SUPPORTED);
    EXPECT_EQ(Read("dev"), empty);
    return false;
  }
  Use<DeviceSign>(keypair, keypair->bits);
  EXPECT_EQ(DeviceFreeKeypair(keypair), VAKRO_OK);
  const DeviceHandle again = Rescan(PIN);
  EXPECT_EQ(Describe(*again, false), Describe(*device, false));
  const Keypair& stored = *again->keypairs[0];
  EXPECT_EQ(PairEncoding(stored.privateKey, stored.curve), Normal(input));
  EXPECT_EQ(PublicEncoding(stored.privateKey, stored.curve),
            Bytes(stored.publicKey, stored.publicKeyLen));
  const std::string more = std::string(input.substr(KEY_HEADER_SIZE)) + '\0';
  EXPECT_EQ(EvpKey(DecodeRSAPair(Raw(more), Len(more))), nullptr);
  return true;
}

// What is imported exports as the same bytes, is the key that they say, and can be used.
FUZZ(public_key_encoding) {
  PublicKey* raw = nullptr;
  const int result = DeviceImportPublicKey(nullptr, Raw(input), Len(input), &raw);
  const PublicHandle key(raw);
  EXPECT_EQ(result, key ? VAKRO_OK : VAKRO_FAILED);
  if (!key) return false;
  const int bits = DeviceGetPublicKeyBits(key.get());
  EXPECT_EQ(Bytes(key->publicKey, key->publicKeyLen), input);
  EXPECT_EQ(PublicEncoding(key->key, key->curve), Normal(input));
  EXPECT_GT(bits, 0);
  Use<DevicePublicKeyEncrypt>(key.get(), static_cast<unsigned int>(bits));
  // Without the key of a pair no signature is known, and this one is of the size that RSA wants.
  const std::string signature(static_cast<size_t>(bits + 7) / 8, '\1'), digest(32, 'e');
  for (const unsigned int by : {ALGORITHM_RSA_PKCS1_SIGN, ALGORITHM_ECDSA_SIGN, ALGORITHM_SM2_SIGN})
    EXPECT_NE(Verify(key.get(), by, digest, signature), VAKRO_OK);
  return true;
}

// --- Signatures and ciphertexts ------------------------------------------------------------------

static bool EvpVerify(EVP_PKEY* key, std::string_view digest, std::string_view signature) {
  const std::unique_ptr<EVP_PKEY_CTX, Release<EVP_PKEY_CTX_free>> context(
      EVP_PKEY_CTX_new(key, nullptr));
  return EVP_PKEY_verify_init(context.get()) == 1 &&
         EVP_PKEY_verify(context.get(), Raw(signature), signature.size(), Raw(digest),
                         digest.size()) == 1;
}

// A signature that verifies does so for OpenSSL, too, and for no other digest.
FUZZ(signature) {
  const std::string digest(32, 'e'), other = Flipped(digest, 31);
  const auto verifies = [&](PublicKey* key, unsigned int algorithm, EVP_PKEY* same) {
    const int result = Verify(key, algorithm, digest, input);
    const bool valid = result == VAKRO_OK && EvpVerify(same, digest, input) &&
                       Verify(key, algorithm, other, input) == VAKRO_FAILED;
    EXPECT_EQ(result, valid ? VAKRO_OK : VAKRO_FAILED);
    return valid;
  };
  return verifies(rsaPublic_.get(), ALGORITHM_RSA_PKCS1_SIGN, TestRsa().key) ||
         verifies(p256Public_.get(), ALGORITHM_ECDSA_SIGN, TestP256().key) ||
         verifies(sm2Public_.get(), ALGORITHM_SM2_SIGN, TestSm2().key);
}

// The kept ciphertexts were made with one k, and a fuzzer makes no others: what decrypts is
// encrypted again as the same bytes.
FUZZ(sm2_ciphertext) {
  const std::string text = Decrypt(sm2_, ALGORITHM_SM2_ENCRYPT, input);
  if (text == "result 0") return false;
  FixRandom(std::string(31, '\0') + '\x5e');
  EXPECT_EQ(Encrypt(sm2Public_.get(), ALGORITHM_SM2_ENCRYPT, text), input);
  return true;
}
