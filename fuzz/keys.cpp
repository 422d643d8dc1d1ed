// Fuzz targets of what keys are and make: encodings, signatures, ciphertexts.
#include "fuzz/fuzz.h"
#include "sm2/sm2.h"

static PublicHandle Import(std::string_view encoding) {
  StoreFile("");
  PublicKey* key = nullptr;
  const int result = DeviceImportPublicKey(nullptr, Raw(encoding), Len(encoding), &key);
  DEMAND(result == (key != nullptr ? VAKRO_OK : VAKRO_FAILED));
  return PublicHandle(key);
}

// The module and OpenSSL agree on which signatures of 32 zero bytes are valid.
static void CheckVerify(const TestKey& key, PublicKey* handle, unsigned int algorithm,
                        std::string_view signature) {
  static const unsigned char digest[32] = {};
  const int valid = DeviceVerify(handle, algorithm, nullptr, digest, sizeof(digest), Raw(signature),
                                 Len(signature));
  using Context = std::unique_ptr<EVP_PKEY_CTX, Release<EVP_PKEY_CTX_free>>;
  const Context context(EVP_PKEY_CTX_new(key.key, nullptr));
  DEMAND(context && EVP_PKEY_verify_init(context.get()) == 1);
  DEMAND(valid == (EVP_PKEY_verify(context.get(), Raw(signature), signature.size(), digest,
                                   sizeof(digest)) == 1));
}

// Whatever the decoder takes is encoded again as the same bytes.
void FuzzEccSignature(std::string_view input) {
  static const PublicHandle p256 = Import(TestP256().publicKey), sm2 = Import(TestSm2().publicKey);
  CheckVerify(TestP256(), p256.get(), ALGORITHM_ECDSA_SIGN, input);
  CheckVerify(TestSm2(), sm2.get(), ALGORITHM_SM2_SIGN, input);
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
static std::string Decrypt(Keypair* keypair, std::string_view input) {
  int length = 0;
  const auto decrypt = [&](unsigned char* buffer, int size) {
    return DevicePrivateKeyDecrypt(keypair, ALGORITHM_SM2_ENCRYPT, nullptr, Raw(input), Len(input),
                                   buffer, size, &length);
  };
  DEMAND(decrypt(nullptr, 0) == (Len(input) > SM2_CIPHER_OVERHEAD ? VAKRO_OK : VAKRO_FAILED));
  std::string out(static_cast<size_t>(length), '\xa5');
  const int result = decrypt(reinterpret_cast<unsigned char*>(out.data()), length);
  DEMAND(result == VAKRO_OK || (result == VAKRO_FAILED && out == std::string(out.size(), '\0')));
  return out;
}

// An input that is too short for a ciphertext is a plaintext too: what the module encrypts, it
// decrypts.
void FuzzSm2Ciphertext(std::string_view input) {
  static const DeviceHandle device = [] {
    StoreFile(StoredDevice{.keypairs = {StoredKeypair{.key = &TestSm2()}.Json()}}.File());
    return LoadDevice(PIN);
  }();
  const KeypairHandle keypair(DeviceGetKeypair(device.get(), 0));
  const PublicHandle key(DeviceGetPublicKeyFromKeypair(keypair.get()));
  Decrypt(keypair.get(), input);
  if (input.empty() || Len(input) > SM2_CIPHER_OVERHEAD) return;
  unsigned char bytes[2 * SM2_CIPHER_OVERHEAD];
  int length = 0;
  DEMAND(DevicePublicKeyEncrypt(key.get(), ALGORITHM_SM2_ENCRYPT, nullptr, Raw(input), Len(input),
                                bytes, sizeof(bytes), &length) == 1);
  DEMAND(length == Len(input) + SM2_CIPHER_OVERHEAD);
  DEMAND(Decrypt(keypair.get(), View(bytes, length)) == input);
}

// A refused keypair changes neither device nor file; an imported one can be used, and the device
// file still loads and opens with the PIN.
void FuzzKeypairEncoding(std::string_view input) {
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
  UsePrivateKey(keypair);
  DEMAND(Summary(*LoadDevice(PIN)) == Summary(*device));
}

// What is imported exports as the same bytes and can be used.
void FuzzPublicKeyEncoding(std::string_view input) {
  const PublicHandle key = Import(input);
  if (!key) return;
  std::string exported(input.size(), '\0');
  int length = 0;
  DEMAND(DeviceExportPublicKey(key.get(), reinterpret_cast<unsigned char*>(exported.data()),
                               Len(exported), &length) == 1);
  DEMAND(exported == input && length == Len(exported) && DeviceGetPublicKeyBits(key.get()) > 0);
  UsePublicKey(key.get());
}
