// Other libraries' SM2, as far as they were there when this was configured: signing and verifying a
// digest, encrypting and decrypting. Key objects and contexts are made beforehand and reused.
#include "keys.h"

#ifdef HAVE_BOTAN
#include <botan/auto_rng.h>
#include <botan/pubkey.h>
#include <botan/sm2.h>
#include <botan/version.h>
#endif
#ifdef HAVE_GCRYPT
#include <gcrypt.h>
#endif

namespace {
enum class Operation { SIGN, VERIFY, ENCRYPT, DECRYPT };

// --- OpenSSL's EVP ---

using EvpFunction = int (*)(EVP_PKEY_CTX*, unsigned char*, size_t*, const unsigned char*, size_t);

struct EvpCall {
  std::shared_ptr<EVP_PKEY_CTX> context;
  EvpFunction function;
  std::string data;
  std::string output = std::string(8192, '\0');

  bool operator()() { return Run() > 0; }
  size_t Run() {
    size_t length = output.size();
    const bool done = function(context.get(), Room(output), &length, Raw(data), data.size()) == 1;
    return done ? length : 0;
  }
  std::string Output() { return output.substr(0, Run()); }
};

Call EvpPeer(Operation operation, const std::string& data) {
  static const std::shared_ptr<EVP_PKEY> KEY(EVP_PKEY_Q_keygen(nullptr, nullptr, "SM2"),
                                             EVP_PKEY_free);
  const auto call = [](int (*init)(EVP_PKEY_CTX*), EvpFunction function, const std::string& input) {
    const std::shared_ptr<EVP_PKEY_CTX> context(EVP_PKEY_CTX_new(KEY.get(), nullptr),
                                                EVP_PKEY_CTX_free);
    Check(init(context.get()) == 1, "EVP SM2");
    return EvpCall{context, function, input};
  };
  EvpCall sign = call(EVP_PKEY_sign_init, EVP_PKEY_sign, data);
  EvpCall encrypt = call(EVP_PKEY_encrypt_init, EVP_PKEY_encrypt, data);
  if (operation == Operation::SIGN) return sign;
  if (operation == Operation::ENCRYPT) return encrypt;
  if (operation == Operation::DECRYPT)
    return call(EVP_PKEY_decrypt_init, EVP_PKEY_decrypt, encrypt.Output());
  const EvpCall verify = call(EVP_PKEY_verify_init, nullptr, data);
  return [verify, signature = sign.Output()] {
    return EVP_PKEY_verify(verify.context.get(), Raw(signature), signature.size(), Raw(verify.data),
                           verify.data.size()) == 1;
  };
}

// --- Botan ---

#ifdef HAVE_BOTAN
Call BotanPeer(Operation operation, const std::string& text) {
  static Botan::AutoSeeded_RNG random;
  static const Botan::SM2_PrivateKey KEY(random, Botan::EC_Group("sm2p256v1"));
  static const std::string PREHASHED = "ALICE123@YAHOO.COM,Raw";
  const std::vector<unsigned char> data(text.begin(), text.end());
  const auto signer = std::make_shared<Botan::PK_Signer>(KEY, random, PREHASHED);
  const auto encryptor = std::make_shared<Botan::PK_Encryptor_EME>(KEY, random, "SM3");
  if (operation == Operation::SIGN)
    return [=] { return !signer->sign_message(data, random).empty(); };
  if (operation == Operation::ENCRYPT)
    return [=] { return !encryptor->encrypt(data, random).empty(); };
  if (operation == Operation::VERIFY) {
    const auto verifier = std::make_shared<Botan::PK_Verifier>(KEY, PREHASHED);
    return [=, signature = signer->sign_message(data, random)] {
      return verifier->verify_message(data, signature);
    };
  }
  const auto decryptor = std::make_shared<Botan::PK_Decryptor_EME>(KEY, random, "SM3");
  return [=, secret = encryptor->encrypt(data, random)] {
    return decryptor->decrypt(secret).size() == data.size();
  };
}
#endif

// --- libgcrypt ---

#ifdef HAVE_GCRYPT
using Sexp = std::shared_ptr<gcry_sexp>;

template <class... Values>
Sexp Build(const char* format, Values... values) {
  gcry_sexp_t made = nullptr;
  Check(gcry_sexp_build(&made, nullptr, format, values...) == 0, format);
  return {made, gcry_sexp_release};
}

Sexp Part(const Sexp& whole, const char* token) {
  Sexp part(gcry_sexp_find_token(whole.get(), token, 0), gcry_sexp_release);
  Check(part != nullptr, token);
  return part;
}

using GcryptFunction = gcry_error_t (*)(gcry_sexp_t*, gcry_sexp_t, gcry_sexp_t);

Sexp Run(GcryptFunction function, const Sexp& data, const Sexp& key) {
  gcry_sexp_t result = nullptr;
  function(&result, data.get(), key.get());
  return {result, gcry_sexp_release};  // empty after a failure
}

Sexp NewGcryptKey() {
  gcry_check_version(nullptr);
  gcry_control(GCRYCTL_DISABLE_SECMEM, 0);
  gcry_control(GCRYCTL_INITIALIZATION_FINISHED, 0);
  gcry_sexp_t key = nullptr;
  gcry_pk_genkey(&key, Build("(genkey (ecc (curve sm2p256v1)))").get());
  return {key, gcry_sexp_release};
}

Call GcryptPeer(Operation operation, const std::string& data) {
  static const Sexp KEY = NewGcryptKey();
  const Sexp secretKey = Part(KEY, "private-key");
  const Sexp publicKey = Part(KEY, "public-key");
  const Sexp value = Build("(data (flags sm2) (value %b))", Len(data), data.data());
  const Sexp digest = Build("(data (flags sm2) (hash sm3 %b))", Len(data), data.data());
  if (operation == Operation::SIGN)
    return [=] { return Run(gcry_pk_sign, digest, secretKey) != nullptr; };
  if (operation == Operation::ENCRYPT)
    return [=] { return Run(gcry_pk_encrypt, value, publicKey) != nullptr; };
  if (operation == Operation::VERIFY)
    return [=, signature = Run(gcry_pk_sign, digest, secretKey)] {
      return gcry_pk_verify(signature.get(), digest.get(), publicKey.get()) == 0;
    };
  // Decryption wants the flags that encryption leaves out.
  const Sexp inner = Part(Run(gcry_pk_encrypt, value, publicKey), "sm2");
  const Sexp secret = Build("(enc-val (flags sm2) %S)", inner.get());
  return [=] { return Run(gcry_pk_decrypt, secret, secretKey) != nullptr; };
}
#endif
}  // namespace

void AddSm2Peers() {
  const struct {
    std::string name;
    Call (*peer)(Operation, const std::string&);
  } peers[] = {
      {"OpenSSL EVP SM2", EvpPeer},
#ifdef HAVE_BOTAN
      {std::string("Botan ") + Botan::short_version_cstr(), BotanPeer},
#endif
#ifdef HAVE_GCRYPT
      {std::string("libgcrypt ") + gcry_check_version(nullptr), GcryptPeer},
#endif
  };
  const struct {
    const char* row;
    Operation operation;
    size_t size;
  } rows[] = {{"sign/SM2", Operation::SIGN, 32},
              {"verify/SM2", Operation::VERIFY, 32},
              {"encrypt/SM2, 32 bytes", Operation::ENCRYPT, 32},
              {"decrypt/SM2, 32 bytes", Operation::DECRYPT, 32},
              {"encrypt/SM2, 4 KB", Operation::ENCRYPT, 4096},
              {"decrypt/SM2, 4 KB", Operation::DECRYPT, 4096}};
  for (const auto& row : rows)
    for (const auto& [name, peer] : peers)
      Add(row.row, name,
          [=, peer = peer] { return Measured{peer(row.operation, std::string(row.size, 'Z'))}; });
}
