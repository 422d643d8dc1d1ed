// sign, verify.
#include "tools/key_files.h"
#include "tools/options.h"
#include "tools/output.h"
#include "tools/session.h"
#include "tools/signing.h"

namespace {
struct SigningOptions {
  std::string file;
  std::string signature;
  std::string publicKey;
  OutputOptions output;
  Scheme scheme;
  SecretSource pin;
};
}  // namespace

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

static void AddCommon(CLI::App& command, SigningOptions& options) {
  AddArgument(command, "file", &options.file, "File that is signed; - is standard input");
  AddHashOption(command, options.scheme.hash);
  Add(command, {.name = "--pss",
                .into = &options.scheme.pss,
                .help = "RSA: PSS instead of PKCS#1 v1.5 padding"});
  Add(command, {.name = "--digest",
                .into = &options.scheme.isDigest,
                .help = "The file holds the digest itself, in binary (SM2: e)"});
  AddIdOption(command, options.scheme.id);
}

void AddSigningCommands(CLI::App& app, Target& target) {
  const auto options = std::make_shared<SigningOptions>();

  CLI::App& sign =
      AddCommand(app, "sign", "Sign a file", [&target, options] { Sign(target, *options); });
  AddNote(sign,
          "An RSA signature has as many bytes as the modulus, ECDSA and SM2 are DER. What is "
          "signed is checked\nwith the public key before it is given out.");
  AddCommon(sign, *options);
  AddOutputOptions(sign, options->output, "Signature file");
  AddKeypairOptions(sign, target);
  AddSecretOptions(sign, options->pin, "pin", "PIN");

  CLI::App& verify = AddCommand(app, "verify", "Check a signature; needs no PIN",
                                [&target, options] { Verify(target, *options); });
  AddCommon(verify, *options);
  AddArgument(verify, "signature", &options->signature, "Signature file");
  Add(verify, {.name = "--public-key",
               .into = &options->publicKey,
               .help = "Public key or certificate to use instead of a keypair, PEM or DER",
               .value = "FILE"});
  AddKeypairOptions(verify, target);
  NoteJson(verify, "{valid, scheme}");
}
