// encrypt, decrypt.
#include "tools/key_files.h"
#include "tools/session.h"
#include "tools/sm2_cipher.h"

#include <CLI/CLI.hpp>

#include <stdio.h>
#include <algorithm>

struct CipherOptions {
  std::string file;
  std::string publicKey;
  std::string output = "-";
  std::string format = "raw";
  SecretSource pin;
};

static constexpr int RSA_PADDING_OVERHEAD = 11;  // of PKCS#1 v1.5; RFC 8017, 7.2.1

static unsigned int AlgorithmOf(const PublicPart& key) {
  if (key.kind == Kind::RSA_PKCS1) return ALGORITHM_RSA_PKCS1_ENCRYPT;
  if (key.kind == Kind::SM2) return ALGORITHM_SM2_ENCRYPT;
  throw Failure("A P-256 keypair signs only.", "RSA and SM2 keypairs encrypt.");
}

static void RequirePlaintextFits(const PublicPart& key, size_t length) {
  const int modulus = EVP_PKEY_get_size(key.key.get());
  const size_t max = static_cast<size_t>(std::max(0, modulus - RSA_PADDING_OVERHEAD));
  if (key.kind == Kind::RSA_PKCS1 && length > max) {
    throw Failure(
        "RSA-" + std::to_string(key.bits) + " encrypts at most " + std::to_string(max) + " bytes.",
        "Encrypt the file with a random key, and that key with this command; SM2 takes "
        "larger files.");
  }
  if (key.kind == Kind::SM2 && length == 0) throw Failure("SM2 can't encrypt an empty file.");
}

static void EncryptFor(const PublicPart& key, const CipherOptions& options) {
  const unsigned int algorithm = AlgorithmOf(key);
  const Secret plaintext = ReadSecretInput(options.file);
  RequirePlaintextFits(key, plaintext.size());
  const int plaintextLen = static_cast<int>(plaintext.size());
  Bytes ciphertext(plaintext.size() + SM2_CIPHER_OVERHEAD +
                   static_cast<size_t>(EVP_PKEY_get_size(key.key.get())));
  int length = 0;
  if (DevicePublicKeyEncrypt(key.handle.get(), algorithm, nullptr, plaintext.data(), plaintextLen,
                             ciphertext.data(), static_cast<int>(ciphertext.size()),
                             &length) != VAKRO_OK) {
    throw Failure("The encryption failed.");
  }
  ciphertext.resize(static_cast<size_t>(length));
  if (key.kind == Kind::SM2 && options.format == "der") ciphertext = Sm2CipherToDer(ciphertext);
  WriteOutput(options.output, ciphertext, Output::BINARY);
}

static void Encrypt(const Target& target, const CipherOptions& options) {
  CheckFiles(options.file, options.output, Output::BINARY);
  if (options.publicKey.empty()) {
    const KeypairSession session(target);
    return EncryptFor(PublicPartOf(session.keypair.get()), options);
  }
  const Module module(target);
  EncryptFor(ReadPublicKey(options.publicKey), options);
}

static void Decrypt(const Target& target, const CipherOptions& options) {
  CheckFiles(options.file, options.output, Output::SECRET);
  const KeypairSession session(target);
  const PublicPart key = PublicPartOf(session.keypair.get());
  const unsigned int algorithm = AlgorithmOf(key);
  Bytes ciphertext = ReadInput(options.file);
  if (key.kind == Kind::SM2 && IsSm2CipherDer(ciphertext)) {
    ciphertext = Sm2CipherFromDer(ciphertext);
  }
  Unlock(session.device(), options.pin);
  Secret plaintext(ciphertext.size() + 1);
  int length = 0;
  if (DevicePrivateKeyDecrypt(session.keypair.get(), algorithm, nullptr, ciphertext.data(),
                              static_cast<int>(ciphertext.size()), plaintext.data(),
                              static_cast<int>(plaintext.size()), &length) != VAKRO_OK) {
    throw Failure(
        options.file + " does not decrypt with keypair " + LabelOf(session.keypair.get()) + ".",
        "It was encrypted for another key, or is damaged.");
  }
  plaintext.resize(static_cast<size_t>(length));
  WriteOutput(options.output, plaintext, Output::SECRET);
}

static void AddCommon(CLI::App* command, CipherOptions& options, const char* what) {
  command->add_option("file", options.file, what)->required();
  command->add_option("-o,--output", options.output, "File to write [standard output]")
      ->type_name("FILE");
}

void AddCipherCommands(CLI::App& app, Target& target) {
  const auto options = std::make_shared<CipherOptions>();

  CLI::App* encrypt = app.add_subcommand("encrypt", "Encrypt a small file; needs no PIN");
  AddCommon(encrypt, *options, "File to encrypt; - is standard input");
  encrypt
      ->add_option("--format", options->format,
                   "SM2: raw is C1 || C2 || C3, der what openssl reads")
      ->type_name("FORM")
      ->capture_default_str()
      ->check(CLI::IsMember({"raw", "der"}).description(""));
  encrypt
      ->add_option("--public-key", options->publicKey,
                   "Public key or certificate to use instead of a keypair, PEM or DER")
      ->type_name("FILE");
  AddKeypairOptions(*encrypt, target);
  encrypt->callback([&target, options] { Encrypt(target, *options); });

  CLI::App* decrypt = app.add_subcommand("decrypt", "Decrypt a file; SM2 in either format");
  AddCommon(decrypt, *options, "File to decrypt; - is standard input");
  AddKeypairOptions(*decrypt, target);
  AddSecretOptions(*decrypt, options->pin, "pin", "PIN");
  decrypt->callback([&target, options] { Decrypt(target, *options); });
}
