// sign, verify.
#include "tools/key_files.h"
#include "tools/session.h"
#include "tools/signing.h"

#include <CLI/CLI.hpp>

#include <stdio.h>
#include <optional>

struct SigningOptions {
  std::string file;
  std::string signature;
  std::string publicKey;
  std::string output = "-";
  std::string id = SM2_DEFAULT_ID;
  SecretSource pin;
};

static void Sign(const Target& target, const SigningOptions& options) {
  CheckFiles(options.file, options.output, Output::BINARY);
  const KeypairSession session(target);
  const PublicPart key = PublicPartOf(session.keypair.get());
  Unlock(session.device(), options.pin);
  const Bytes signature =
      SignMessage(session.keypair.get(), key, options.id, FileMessage(options.file));
  WriteOutput(options.output, signature, Output::BINARY);
  fprintf(stderr, "Signed %s with %s: %s, %zu bytes.\n", options.file.c_str(),
          LabelOf(session.keypair.get()).c_str(), SchemeName(key.kind), signature.size());
}

static void RequireValid(const PublicPart& key, const SigningOptions& options) {
  const Bytes signature = ReadInput(options.signature);
  if (!IsSignatureValid(key, options.id, FileMessage(options.file), signature)) {
    throw Failure("The signature is NOT valid.",
                  "Another file, another key, or, for SM2, another --id was signed.");
  }
  printf("The signature is valid: %s.\n", SchemeName(key.kind));
}

static void Verify(const Target& target, const SigningOptions& options) {
  if (options.publicKey.empty()) {
    const KeypairSession session(target);
    return RequireValid(PublicPartOf(session.keypair.get()), options);
  }
  const Module module(target);
  RequireValid(ReadPublicKey(options.publicKey), options);
}

static void AddCommon(CLI::App* command, SigningOptions& options) {
  command->add_option("file", options.file, "File that is signed; - is standard input")->required();
  command->add_option("--id", options.id, "User id that an SM2 signature covers")
      ->capture_default_str()
      ->type_name("ID");
}

void AddSigningCommands(CLI::App& app, Target& target) {
  const auto options = std::make_shared<SigningOptions>();

  CLI::App* sign = app.add_subcommand("sign", "Sign a file");
  sign->footer(
      "RSA: PKCS#1 v1.5 with SHA-256, as many bytes as the modulus. P-256: ECDSA with SHA-256, "
      "DER.\n"
      "SM2: with SM3, DER.");
  AddCommon(sign, *options);
  sign->add_option("-o,--output", options->output, "Signature file [standard output]")
      ->type_name("FILE");
  AddKeypairOptions(*sign, target);
  AddSecretOptions(*sign, options->pin, "pin", "PIN");
  sign->callback([&target, options] { Sign(target, *options); });

  CLI::App* verify = app.add_subcommand("verify", "Check a signature; needs no PIN");
  AddCommon(verify, *options);
  verify->add_option("signature", options->signature, "Signature file")->required();
  verify
      ->add_option("--public-key", options->publicKey,
                   "Public key or certificate to use instead of a keypair, PEM or DER")
      ->type_name("FILE");
  AddKeypairOptions(*verify, target);
  verify->callback([&target, options] { Verify(target, *options); });
}
