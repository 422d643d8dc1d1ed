// sign, verify.
#include "tools/key_files.h"
#include "tools/options.h"
#include "tools/output.h"
#include "tools/session.h"
#include "tools/signing.h"

#include <CLI/CLI.hpp>

struct SigningOptions {
  std::string file;
  std::string signature;
  std::string publicKey;
  OutputOptions output;
  Scheme scheme;
  SecretSource pin;
};

static void Sign(const Target& target, const SigningOptions& options) {
  const OutputFile output(options.output, Output::BINARY, target, {options.file, options.pin.file});
  KeypairSession session(target);
  const PublicPart key = PublicPartOf(session.keypair.get());
  RequireFitting(options.scheme, key.kind);
  Unlock(session, options.pin);
  Keypair* keypair = session.keypair.get();
  const Bytes signature = SignMessage(keypair, key, options.scheme, FileMessage(options.file));
  output.Write(signature);
  Remark("Signed " + options.file + " with " + NameOf(keypair) + ": " +
         SchemeName(options.scheme, key.kind) + ", " + Count(signature.size(), "byte") + ".");
}

static void RequireValid(const PublicPart& key, const SigningOptions& options) {
  RequireFitting(options.scheme, key.kind);
  const Bytes signature = ReadInput(options.signature);
  const bool valid = IsSignatureValid(key, options.scheme, FileMessage(options.file), signature);
  const std::string scheme = SchemeName(options.scheme, key.kind);
  const Fields facts = {{"valid", valid}, {"scheme", scheme}};
  if (valid) return Show("The signature is valid: " + scheme + ".", facts);
  if (g_manner.json) Show("", facts);
  throw Failure(EXIT_BAD_SIGNATURE, "The signature is NOT valid.",
                "Another file, another key, another hash or padding, or, for SM2, another --id was "
                "signed.");
}

static void Verify(const Target& target, const SigningOptions& options) {
  CheckInput(options.file);
  CheckInput(options.signature);
  if (options.publicKey.empty()) {
    const KeypairSession session(target);
    return RequireValid(PublicPartOf(session.keypair.get()), options);
  }
  const Module module(target);
  RequireValid(ReadPublicKey(options.publicKey), options);
}

static void AddCommon(CLI::App* command, SigningOptions& options) {
  command->add_option("file", options.file, "File that is signed; - is standard input")->required();
  command->add_option("--hash", options.scheme.hash, "sha256, sha384 or sha512; SM2 takes SM3")
      ->type_name("HASH")
      ->capture_default_str()
      ->check(CLI::IsMember({"sha256", "sha384", "sha512"}, CLI::ignore_case).description(""))
      ->transform(Lower);
  command->add_flag("--pss", options.scheme.pss, "RSA: PSS instead of PKCS#1 v1.5 padding");
  command->add_flag("--digest", options.scheme.isDigest,
                    "The file holds the digest itself, in binary (SM2: e)");
  command->add_option("--id", options.scheme.id, "User id that an SM2 signature covers")
      ->capture_default_str()
      ->type_name("ID");
}

void AddSigningCommands(CLI::App& app, Target& target) {
  const auto options = std::make_shared<SigningOptions>();

  CLI::App* sign = app.add_subcommand("sign", "Sign a file");
  sign->footer(
      "An RSA signature has as many bytes as the modulus, ECDSA and SM2 are DER. What is signed is "
      "checked\nwith the public key before it is given out.");
  AddCommon(sign, *options);
  AddOutputOptions(*sign, options->output, "Signature file");
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
  NoteJson(*verify, "{valid, scheme}");
  verify->callback([&target, options] { Verify(target, *options); });
}
