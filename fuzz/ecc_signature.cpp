// ECC signatures: whatever the decoder takes is encoded again as the same bytes, and the module and
// OpenSSL agree on what is valid.
#include "fuzz/fuzz.h"

static void CheckCodec(const unsigned char* data, int length) {
  unsigned char* r = nullptr;
  unsigned char* s = nullptr;
  int rLen = 0;
  int sLen = 0;
  if (VakroPKICryptoDecodeECCSignature(data, length, &r, &rLen, &s, &sLen) != 1) return;
  const LibBytes ownedR(r);
  const LibBytes ownedS(s);
  DEMAND(rLen > 0 && r[0] != 0 && sLen > 0 && s[0] != 0);
  unsigned char* again = nullptr;
  int againLen = 0;
  DEMAND(VakroPKICryptoEncodeECCSignature(r, rLen, s, sLen, &again, &againLen) == 1);
  const LibBytes ownedAgain(again);
  DEMAND(View(again, static_cast<size_t>(againLen)) == View(data, static_cast<size_t>(length)));
}

static PublicHandle Import(const TestKey& key) {
  const World world;
  PublicKey* handle = nullptr;
  DEMAND(DeviceImportPublicKey(nullptr, Raw(key.publicKey), Len(key.publicKey), &handle) == 1);
  return PublicHandle(handle);
}

// Verifies a signature of 32 zero bytes.
static void CheckVerify(const TestKey& key, PublicKey* handle, unsigned int algorithm,
                        const unsigned char* data, size_t size) {
  static const unsigned char digest[32] = {};
  const int valid = DeviceVerify(handle, algorithm, nullptr, digest, sizeof(digest), data,
                                 static_cast<int>(size));
  using Context = std::unique_ptr<EVP_PKEY_CTX, Release<EVP_PKEY_CTX_free>>;
  const Context context(EVP_PKEY_CTX_new(key.key, nullptr));
  DEMAND(context && EVP_PKEY_verify_init(context.get()) == 1);
  const bool known = EVP_PKEY_verify(context.get(), data, size, digest, sizeof(digest)) == 1;
  DEMAND(valid == (known ? VAKRO_OK : VAKRO_FAILED));
}

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size) {
  static const PublicHandle p256 = Import(TestP256());
  static const PublicHandle sm2 = Import(TestSm2());
  CheckCodec(data, static_cast<int>(size));
  CheckVerify(TestP256(), p256.get(), ALGORITHM_ECDSA_SIGN, data, size);
  CheckVerify(TestSm2(), sm2.get(), ALGORITHM_SM2_SIGN, data, size);
  return 0;
}
