// Reading key files with OpenSSL's store, and the module's encoding of a private key.
#include "tools/key_files.h"

#include <openssl/core_names.h>
#include <openssl/err.h>
#include <openssl/provider.h>
#include <openssl/store.h>
#include <openssl/ui.h>

#include <string.h>

using Store = std::unique_ptr<OSSL_STORE_CTX, Release<OSSL_STORE_close>>;
using StoreInfo = std::unique_ptr<OSSL_STORE_INFO, Release<OSSL_STORE_INFO_free>>;
using PassphraseMethod = std::unique_ptr<UI_METHOD, Release<UI_destroy_method>>;
using Provider = std::unique_ptr<OSSL_PROVIDER, Release<OSSL_PROVIDER_unload>>;
using KeyContext = std::unique_ptr<EVP_PKEY_CTX, Release<EVP_PKEY_CTX_free>>;

static constexpr int OBJECTS_MAX = 100;  // in one file; more is no key file

// The passphrase, read when the first decoder asks for it and kept for the others.
struct Passphrase {
  const SecretSource& source;
  SecretText text;
  std::exception_ptr problem;  // why it could not be read
};

// Called from C: what goes wrong is kept for the caller instead of thrown.
static int GivePassphrase(char* buffer, int size, int, void* context) {
  Passphrase& passphrase = *static_cast<Passphrase*>(context);
  try {
    if (passphrase.text.empty()) {
      passphrase.text = ReadSecret(passphrase.source, "Passphrase of the file");
    }
  } catch (...) {
    passphrase.problem = std::current_exception();
    return -1;
  }
  const size_t length = passphrase.text.size() - 1;
  if (length > static_cast<size_t>(size)) return -1;
  memcpy(buffer, passphrase.text.data(), length);
  return static_cast<int>(length);
}

static void Keep(KeyFile& file, OSSL_STORE_INFO* info) {
  switch (OSSL_STORE_INFO_get_type(info)) {
    case OSSL_STORE_INFO_PKEY:
      if (!file.privateKey) file.privateKey.reset(OSSL_STORE_INFO_get1_PKEY(info));
      return;
    case OSSL_STORE_INFO_PUBKEY:
      if (!file.publicKey) file.publicKey.reset(OSSL_STORE_INFO_get1_PUBKEY(info));
      return;
    case OSSL_STORE_INFO_CERT:
      file.certs.emplace_back(OSSL_STORE_INFO_get1_CERT(info));
      return;
    default:
      return;  // curve parameters and the like
  }
}

KeyFile ReadKeyFile(const std::string& path, const SecretSource& source) {
  const Secret content = ReadSecretInput(path);
  // PKCS#12 files of older programs use ciphers that OpenSSL keeps apart; it may not be installed.
  const Provider legacy(OSSL_PROVIDER_try_load(nullptr, "legacy", 1));
  if (content.empty()) return {};  // a memory BIO of no bytes can't be made
  Passphrase passphrase{source, {}, {}};
  const PassphraseMethod method(UI_UTIL_wrap_read_pem_callback(GivePassphrase, 0));
  const Bio bio(BIO_new_mem_buf(content.data(), static_cast<int>(content.size())));
  const Store store(OSSL_STORE_attach(bio.get(), "file", nullptr, nullptr, method.get(),
                                      &passphrase, nullptr, nullptr, nullptr));
  if (!store) throw Failure("Can't read keys from " + path + ": " + OpenSslError() + ".");
  KeyFile file;
  for (int i = 0; i < OBJECTS_MAX && OSSL_STORE_eof(store.get()) == 0; i++) {
    const StoreInfo info(OSSL_STORE_load(store.get()));
    if (info) Keep(file, info.get());
  }
  ERR_clear_error();
  if (passphrase.problem) std::rethrow_exception(passphrase.problem);
  if (!passphrase.text.empty() && !file.privateKey && file.certs.empty()) {
    throw Failure("Can't open " + path + " with this passphrase.", "Is it the right one?");
  }
  return file;
}

PublicPart ReadPublicKey(const std::string& path) {
  const KeyFile file = ReadKeyFile(path, {});
  if (file.publicKey) return PublicPartOf(file.publicKey.get());
  if (!file.certs.empty()) return PublicPartOf(X509_get0_pubkey(file.certs.front().get()));
  throw Failure(path + " holds no public key and no certificate.",
                "PEM and DER are read; 'softdevice public-key' writes one.");
}

static Secret TakeOver(unsigned char* raw, int length) {
  const SecretLibBytes encoding(raw, static_cast<size_t>(length));
  return Secret(raw, raw + length);
}

static Secret RsaPairEncoding(EVP_PKEY* key) {
  const int derLen = i2d_PrivateKey(key, nullptr);  // the PKCS#1 RSAPrivateKey
  Secret der(derLen > 0 ? static_cast<size_t>(derLen) : 0);
  unsigned char *end = der.data(), *raw = nullptr;
  int length = 0;
  if (derLen <= 0 || i2d_PrivateKey(key, &end) != derLen ||
      VakroPKICryptoRSAPrivKeyFromDER(der.data(), derLen, &raw, &length) != 1) {
    throw Failure("The RSA private key can't be converted.");
  }
  return TakeOver(raw, length);
}

static Secret EccPairEncoding(EVP_PKEY* key, int curve) {
  FieldNumber x, y, d;
  NumberOf(key, OSSL_PKEY_PARAM_EC_PUB_X, x);
  NumberOf(key, OSSL_PKEY_PARAM_EC_PUB_Y, y);
  NumberOf(key, OSSL_PKEY_PARAM_PRIV_KEY, d);
  unsigned char* raw = nullptr;
  int length = 0;
  if (VakroPKICryptoEncodeECCKeyPair(curve, x.bytes, SM2_FIELD_SIZE, y.bytes, SM2_FIELD_SIZE,
                                     d.bytes, SM2_FIELD_SIZE, &raw, &length) != 1) {
    throw Failure("The elliptic-curve private key can't be converted.");
  }
  return TakeOver(raw, length);
}

Secret KeypairEncoding(EVP_PKEY* key) {
  const bool rsa = EVP_PKEY_get_base_id(key) == EVP_PKEY_RSA;
  const int curve = CurveOf(key);
  if (!rsa && curve == 0) {
    throw Failure("This is no key for a device.",
                  "RSA, P-256 and SM2 are taken; keys on other curves could not be opened again "
                  "once stored.");
  }
  const KeyContext context(EVP_PKEY_CTX_new_from_pkey(nullptr, key, nullptr));
  if (!context || EVP_PKEY_pairwise_check(context.get()) != 1) {
    throw Failure("The private and the public key of the file don't belong together: " +
                  OpenSslError() + ".");
  }
  return rsa ? RsaPairEncoding(key) : EccPairEncoding(key, curve);
}
