// encrypt, decrypt.
#include "tools/key_files.h"
#include "tools/options.h"
#include "tools/output.h"
#include "tools/session.h"
#include "tools/sm2_cipher.h"

#include <openssl/rsa.h>

namespace {
struct CipherOptions {
  std::string file;
  std::string publicKey;
  std::string format = "raw";
  bool oaep = false;
  std::string hash = "sha256";
  OutputOptions output;
  SecretSource pin;
};
}  // namespace

static constexpr int RSA_PADDING_OVERHEAD = 11;  // of PKCS#1 v1.5; RFC 8017, 7.2.1

using KeyContext = std::unique_ptr<EVP_PKEY_CTX, Release<EVP_PKEY_CTX_free>>;

static unsigned int AlgorithmOf(const PublicPart& key, bool oaep) {
  if (oaep && key.kind != Kind::RSA_PKCS1) throw Failure(EXIT_USAGE, "--oaep is for RSA keypairs.");
  if (key.kind == Kind::RSA_PKCS1) {
    return oaep ? ALGORITHM_RSA_RAW_ENCRYPT : ALGORITHM_RSA_PKCS1_ENCRYPT;
  }
  if (key.kind == Kind::SM2) return ALGORITHM_SM2_ENCRYPT;
  throw Failure("A P-256 keypair signs only.", "RSA and SM2 keypairs encrypt.");
}

static const EVP_MD* OaepHash(const CipherOptions& options) {
  const EVP_MD* hash = EVP_get_digestbyname(options.hash.c_str());
  if (hash == nullptr) throw Failure("The crypto library has no " + options.hash + ".");
  return hash;
}

// --- encrypt -------------------------------------------------------------------------------------

static void RequirePlaintextFits(const PublicPart& key, const CipherOptions& options,
                                 size_t length) {
  if (key.kind == Kind::SM2 && length == 0) throw Failure("SM2 can't encrypt an empty file.");
  if (key.kind != Kind::RSA_PKCS1) return;
  const int overhead = options.oaep ? 2 * EVP_MD_get_size(OaepHash(options)) + 2  // 7.1.1
                                    : RSA_PADDING_OVERHEAD;
  const int room = EVP_PKEY_get_size(key.key.get()) - overhead;
  if (room < 0) throw Failure("The key is too short for OAEP with this hash.");
  const auto max = static_cast<size_t>(room);
  if (length <= max) return;
  throw Failure(
      "RSA-" + std::to_string(key.bits) + " encrypts at most " + std::to_string(max) + " bytes.",
      "Encrypt the file with a random key, and that key with this command; SM2 takes "
      "larger files.");
}

static Bytes EncryptOaep(const PublicPart& key, const CipherOptions& options,
                         const Secret& plaintext) {
  const KeyContext context(EVP_PKEY_CTX_new(key.key.get(), nullptr));
  Bytes ciphertext(static_cast<size_t>(EVP_PKEY_get_size(key.key.get())));
  size_t length = ciphertext.size();
  if (!context || EVP_PKEY_encrypt_init(context.get()) != 1 ||
      EVP_PKEY_CTX_set_rsa_padding(context.get(), RSA_PKCS1_OAEP_PADDING) != 1 ||
      EVP_PKEY_CTX_set_rsa_oaep_md(context.get(), OaepHash(options)) != 1 ||
      EVP_PKEY_encrypt(context.get(), ciphertext.data(), &length, plaintext.data(),
                       plaintext.size()) != 1) {
    throw Failure("The encryption failed: " + OpenSslError() + ".");
  }
  return ciphertext;
}

static Bytes EncryptFor(const PublicPart& key, const CipherOptions& options) {
  const unsigned int algorithm = AlgorithmOf(key, options.oaep);
  const Secret plaintext = ReadSecretInput(options.file);
  RequirePlaintextFits(key, options, plaintext.size());
  if (options.oaep) return EncryptOaep(key, options, plaintext);
  Bytes ciphertext(plaintext.size() + SM2_CIPHER_OVERHEAD +
                   static_cast<size_t>(EVP_PKEY_get_size(key.key.get())));
  int length = 0;
  if (DevicePublicKeyEncrypt(key.handle.get(), algorithm, nullptr, plaintext.data(),
                             static_cast<int>(plaintext.size()), ciphertext.data(),
                             static_cast<int>(ciphertext.size()), &length) != VAKRO_OK) {
    throw Failure("The encryption failed.");
  }
  ciphertext.resize(static_cast<size_t>(length));
  const bool der = key.kind == Kind::SM2 && options.format == "der";
  return der ? Sm2CipherToDer(ciphertext) : ciphertext;
}

static void Encrypt(const Target& target, const CipherOptions& options) {
  const OutputFile output(options.output, Output::BINARY, target,
                          {options.file, options.publicKey});
  if (options.publicKey.empty()) {
    const KeypairSession session(target);
    return output.Write(EncryptFor(PublicPartOf(session.keypair.get()), options));
  }
  const Module module(target);
  output.Write(EncryptFor(ReadPublicKey(options.publicKey), options));
}

// --- decrypt -------------------------------------------------------------------------------------

// What the module leaves of the padding is taken off here, in a time that does not tell.
static int TakeOffOaep(const CipherOptions& options, Secret& block) {
  const EVP_MD* hash = OaepHash(options);
  const int size = static_cast<int>(block.size());
  Secret message(block.size());
  const int length = RSA_padding_check_PKCS1_OAEP_mgf1(message.data(), size, block.data(), size,
                                                       size, nullptr, 0, hash, hash);
  block.swap(message);
  return length;
}

static Secret DecryptWith(Keypair* keypair, unsigned int algorithm, const Bytes& ciphertext,
                          const CipherOptions& options) {
  Secret plaintext(ciphertext.size() + 1);
  int length = 0;
  const bool done =
      DevicePrivateKeyDecrypt(keypair, algorithm, nullptr, ciphertext.data(),
                              static_cast<int>(ciphertext.size()), plaintext.data(),
                              static_cast<int>(plaintext.size()), &length) == VAKRO_OK;
  if (done) plaintext.resize(static_cast<size_t>(length));
  if (done && options.oaep) length = TakeOffOaep(options, plaintext);
  if (!done || length < 0) {
    throw Failure(options.file + " does not decrypt with keypair " + NameOf(keypair) + ".",
                  "It was encrypted for another key or with another padding, or is damaged.");
  }
  plaintext.resize(static_cast<size_t>(length));
  return plaintext;
}

static void Decrypt(const Target& target, const CipherOptions& options) {
  const OutputFile output(options.output, Output::SECRET, target, {options.file, options.pin.file});
  KeypairSession session(target);
  const PublicPart key = PublicPartOf(session.keypair.get());
  const unsigned int algorithm = AlgorithmOf(key, options.oaep);
  Bytes ciphertext = ReadInput(options.file);
  if (key.kind == Kind::SM2 && IsSm2CipherDer(ciphertext)) {
    ciphertext = Sm2CipherFromDer(ciphertext);
  }
  Unlock(session, options.pin);
  output.Write(DecryptWith(session.keypair.get(), algorithm, ciphertext, options));
}

// --- Options -------------------------------------------------------------------------------------

static void AddCommon(CLI::App& command, CipherOptions& options, const char* what) {
  AddArgument(command, "file", &options.file, what);
  AddOutputOptions(command, options.output, "File to write");
  Add(command, {.name = "--oaep",
                .into = &options.oaep,
                .help = "RSA: OAEP instead of PKCS#1 v1.5 padding"});
  Add(command, {.name = "--hash",
                .into = &options.hash,
                .help = "Hash of OAEP: sha1, sha256, sha384 or sha512",
                .value = "HASH",
                .showsDefault = true,
                .oneOf = {"sha1", "sha256", "sha384", "sha512"}});
}

void AddCipherCommands(CLI::App& app, Target& target) {
  const auto options = std::make_shared<CipherOptions>();

  CLI::App& encrypt = AddCommand(app, "encrypt", "Encrypt a small file; needs no PIN",
                                 [&target, options] { Encrypt(target, *options); });
  AddCommon(encrypt, *options, "File to encrypt; - is standard input");
  Add(encrypt, {.name = "--format",
                .into = &options->format,
                .help = "SM2: raw is C1 || C2 || C3, der what openssl reads",
                .value = "FORM",
                .showsDefault = true,
                .oneOf = {"raw", "der"}});
  Add(encrypt, {.name = "--public-key",
                .into = &options->publicKey,
                .help = "Public key or certificate to use instead of a keypair, PEM or DER",
                .value = "FILE"});
  AddKeypairOptions(encrypt, target);

  CLI::App& decrypt = AddCommand(app, "decrypt", "Decrypt a file; SM2 in either format",
                                 [&target, options] { Decrypt(target, *options); });
  AddCommon(decrypt, *options, "File to decrypt; - is standard input");
  AddKeypairOptions(decrypt, target);
  AddSecretOptions(decrypt, options->pin, "pin", "PIN");
}
