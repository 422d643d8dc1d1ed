// Reading key files with OpenSSL's store, and the module's encoding of a private key.
#include "tools/key_files.h"

#include "tools/report.h"

#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/pkcs12.h>
#include <openssl/pkcs7.h>
#include <openssl/provider.h>
#include <openssl/store.h>
#include <openssl/ui.h>

#include <string.h>

using Store = std::unique_ptr<OSSL_STORE_CTX, Release<OSSL_STORE_close>>;
using StoreInfo = std::unique_ptr<OSSL_STORE_INFO, Release<OSSL_STORE_INFO_free>>;
using PassphraseMethod = std::unique_ptr<UI_METHOD, Release<UI_destroy_method>>;
using KeyInfo = std::unique_ptr<PKCS8_PRIV_KEY_INFO, Release<PKCS8_PRIV_KEY_INFO_free>>;
using Pkcs7 = std::unique_ptr<PKCS7, Release<PKCS7_free>>;
using Pkcs12 = std::unique_ptr<PKCS12, Release<PKCS12_free>>;
static void FreeSafes(STACK_OF(PKCS7) * safes) { sk_PKCS7_pop_free(safes, PKCS7_free); }
static void FreeBags(STACK_OF(PKCS12_SAFEBAG) * bags) {
  sk_PKCS12_SAFEBAG_pop_free(bags, PKCS12_SAFEBAG_free);
}
using Safes = std::unique_ptr<STACK_OF(PKCS7), Release<FreeSafes>>;
using Bags = std::unique_ptr<STACK_OF(PKCS12_SAFEBAG), Release<FreeBags>>;
using KeyContext = std::unique_ptr<EVP_PKEY_CTX, Release<EVP_PKEY_CTX_free>>;

static constexpr int OBJECTS_MAX = 100;  // in one file; more is no key file

namespace {
// The passphrase, read when the first decoder asks for it and kept for the others.
struct Passphrase {
  const SecretSource& source;
  SecretText text;
  std::exception_ptr problem;  // why it could not be read
};
}  // namespace

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

static void KeepPrivate(KeyFile& file, EvpKey key) {
  if (!key) return;
  const bool known = file.privateKey && EVP_PKEY_eq(file.privateKey.get(), key.get()) == 1;
  if (!known) file.privateKeys++;
  if (!file.privateKey) file.privateKey = std::move(key);
}

static void Keep(KeyFile& file, OSSL_STORE_INFO* info) {
  switch (OSSL_STORE_INFO_get_type(info)) {
    case OSSL_STORE_INFO_PKEY:
      return KeepPrivate(file, EvpKey(OSSL_STORE_INFO_get1_PKEY(info)));
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

static void ReadWithStore(const Secret& content, Passphrase& passphrase, KeyFile& file) {
  const PassphraseMethod method(UI_UTIL_wrap_read_pem_callback(GivePassphrase, 0));
  const Bio bio(BIO_new_mem_buf(content.data(), static_cast<int>(content.size())));
  const Store store(OSSL_STORE_attach(bio.get(), "file", nullptr, nullptr, method.get(),
                                      &passphrase, nullptr, nullptr, nullptr));
  if (!store) return;
  for (int i = 0; i < OBJECTS_MAX && OSSL_STORE_eof(store.get()) == 0; i++) {
    const StoreInfo info(OSSL_STORE_load(store.get()));
    if (info) Keep(file, info.get());
  }
}

// --- PKCS#12 without a MAC, which OpenSSL's store does not open ----------------------------------

static void KeepBag(KeyFile& file, const PKCS12_SAFEBAG* bag, const char* text) {
  switch (PKCS12_SAFEBAG_get_nid(bag)) {
    case NID_keyBag:
      return KeepPrivate(file, EvpKey(EVP_PKCS82PKEY(PKCS12_SAFEBAG_get0_p8inf(bag))));
    case NID_pkcs8ShroudedKeyBag: {
      const KeyInfo info(PKCS12_decrypt_skey(bag, text, static_cast<int>(strlen(text))));
      if (info) KeepPrivate(file, EvpKey(EVP_PKCS82PKEY(info.get())));
      return;
    }
    case NID_certBag:
      if (Certificate cert{PKCS12_SAFEBAG_get1_cert(bag)}) file.certs.push_back(std::move(cert));
      return;
    default:
      return;
  }
}

static void ReadWithoutMac(const Secret& content, Passphrase& passphrase, KeyFile& file) {
  const unsigned char* at = content.data();
  const Pkcs12 p12(d2i_PKCS12(nullptr, &at, static_cast<long>(content.size())));
  if (!p12 || PKCS12_mac_present(p12.get()) == 1) return;
  char buffer[SECRET_MAX + 1];
  if (GivePassphrase(buffer, sizeof buffer, 0, &passphrase) < 0) return;
  OPENSSL_cleanse(buffer, sizeof buffer);
  const char* text = passphrase.text.data();
  const Safes safes(PKCS12_unpack_authsafes(p12.get()));
  for (int i = 0; safes && i < sk_PKCS7_num(safes.get()); i++) {
    PKCS7* safe = sk_PKCS7_value(safes.get(), i);
    const bool encrypted = OBJ_obj2nid(safe->type) == NID_pkcs7_encrypted;
    const Bags bags(encrypted ? PKCS12_unpack_p7encdata(safe, text, static_cast<int>(strlen(text)))
                              : PKCS12_unpack_p7data(safe));
    for (int k = 0; bags && k < sk_PKCS12_SAFEBAG_num(bags.get()); k++) {
      KeepBag(file, sk_PKCS12_SAFEBAG_value(bags.get(), k), text);
    }
  }
}

// --- PKCS#7, a bag of certificates ---------------------------------------------------------------

static void ReadPkcs7(const Secret& content, KeyFile& file) {
  const Bio bio(BIO_new_mem_buf(content.data(), static_cast<int>(content.size())));
  Pkcs7 bag(PEM_read_bio_PKCS7(bio.get(), nullptr, nullptr, nullptr));
  const unsigned char* at = content.data();
  if (!bag) bag.reset(d2i_PKCS7(nullptr, &at, static_cast<long>(content.size())));
  if (!bag || PKCS7_type_is_signed(bag.get()) == 0) return;
  const STACK_OF(X509)* certs = bag->d.sign->cert;
  for (int i = 0; i < sk_X509_num(certs); i++) {
    X509* cert = sk_X509_value(certs, i);
    X509_up_ref(cert);
    file.certs.emplace_back(cert);
  }
}

static OSSL_PROVIDER *g_usual, *g_legacy;

static void UnloadProviders() {
  if (g_legacy != nullptr) OSSL_PROVIDER_unload(g_legacy);
  if (g_usual != nullptr) OSSL_PROVIDER_unload(g_usual);
}

// Files of older programs use ciphers that OpenSSL keeps apart; they may not be installed. Once
// they are asked for, what is usual has to be asked for, too. Both stay loaded until OpenSSL cleans
// up at the program's end: keys refer to them.
static void LoadProviders() {
  if (g_usual != nullptr || OPENSSL_atexit(UnloadProviders) != 1) return;
  g_usual = OSSL_PROVIDER_load(nullptr, "default");
  if (g_usual != nullptr) g_legacy = OSSL_PROVIDER_try_load(nullptr, "legacy", 1);
}

static std::string FirstBlock(const Secret& content) {
  static constexpr std::string_view BEGIN = "-----BEGIN ", END = "-----";
  const std::string_view text(reinterpret_cast<const char*>(content.data()), content.size());
  const size_t at = text.find(BEGIN);
  const size_t end = at == text.npos ? at : text.find(END, at + BEGIN.size());
  if (end == text.npos || end > at + NAME_SIZE) return {};
  return std::string(text.substr(at + BEGIN.size(), end - at - BEGIN.size()));
}

KeyFile ReadKeyFile(const std::string& path, const SecretSource& source) {
  const Secret content = ReadSecretInput(path);
  LoadProviders();
  KeyFile file;
  if (content.empty()) return file;  // a memory BIO of no bytes can't be made
  file.block = FirstBlock(content);
  Passphrase passphrase{source, {}, {}};
  ReadWithStore(content, passphrase, file);
  const auto isEmpty = [&] { return !file.privateKey && !file.publicKey && file.certs.empty(); };
  if (isEmpty() && !passphrase.problem) ReadWithoutMac(content, passphrase, file);
  if (isEmpty()) ReadPkcs7(content, file);
  ERR_clear_error();
  if (passphrase.problem) std::rethrow_exception(passphrase.problem);
  if (!passphrase.text.empty() && !file.privateKey && file.certs.empty()) {
    throw Failure(EXIT_WRONG_PIN, "Can't open " + path + " with this passphrase.",
                  "Is it the right one?");
  }
  return file;
}

EVP_PKEY* RequirePrivateKey(const KeyFile& file, const std::string& path) {
  EVP_PKEY* key = file.privateKey.get();
  if (key == nullptr) {
    const bool isSsh = file.block == "OPENSSH PRIVATE KEY";
    throw Failure(
        path + " holds no private key that can be read" +
            (file.block.empty() ? "." : ", but begins with the PEM block " + file.block + "."),
        isSsh ? "'ssh-keygen -p -m PEM -f FILE' rewrites a copy of it in a common form."
              : "PEM and DER are read: PKCS#8, PKCS#1, SEC1 and PKCS#12.");
  }
  if (EVP_PKEY_get_base_id(key) != EVP_PKEY_RSA && CurveOf(key) == 0) {
    throw Failure(
        path + " holds a private key of the kind " + KindName(key) + "; a device can't use it.",
        "RSA, P-256 and SM2 keys are taken.");
  }
  if (file.privateKeys > 1) {
    Remark(path + " holds " + std::to_string(file.privateKeys) +
           " private keys; the first is taken.");
  }
  return key;
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
  const KeyContext context(EVP_PKEY_CTX_new_from_pkey(nullptr, key, nullptr));
  if (!context || EVP_PKEY_pairwise_check(context.get()) != 1) {
    throw Failure("The private and the public key of the file don't belong together: " +
                  OpenSslError() + ".");
  }
  return rsa ? RsaPairEncoding(key) : EccPairEncoding(key, curve);
}
