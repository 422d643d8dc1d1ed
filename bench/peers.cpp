#include "peers.h"

#include "operations.h"

#include <openssl/evp.h>

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

// --- OpenSSL's EVP ---

using EvpFunction = int (*)(EVP_PKEY_CTX*, unsigned char*, size_t*, const unsigned char*, size_t);

struct EvpCall {
  std::shared_ptr<EVP_PKEY_CTX> context;
  EvpFunction function;
  Bytes data;
  Bytes output = Bytes(8192);
  size_t length = 0;
  bool operator()() {
    length = output.size();
    return function(context.get(), output.data(), &length, data.data(), data.size()) == 1;
  }
};

Contender EvpPeer(Sm2Operation operation, const Bytes& data) {
  static const std::shared_ptr<EVP_PKEY> KEY(EVP_PKEY_Q_keygen(nullptr, nullptr, "SM2"),
                                             EVP_PKEY_free);
  const auto call = [](int (*init)(EVP_PKEY_CTX*), EvpFunction function, const Bytes& input) {
    const std::shared_ptr<EVP_PKEY_CTX> context(EVP_PKEY_CTX_new(KEY.get(), nullptr),
                                                EVP_PKEY_CTX_free);
    Check(init(context.get()) == 1, "EVP SM2");
    return EvpCall{context, function, input};
  };
  const EvpCall sign = call(EVP_PKEY_sign_init, EVP_PKEY_sign, data);
  const EvpCall encrypt = call(EVP_PKEY_encrypt_init, EVP_PKEY_encrypt, data);
  const std::string name = "OpenSSL EVP SM2";
  switch (operation) {
    case Sm2Operation::SIGN:
      return Timed(name, sign);
    case Sm2Operation::ENCRYPT:
      return Timed(name, encrypt);
    case Sm2Operation::DECRYPT:
      return Timed(name, call(EVP_PKEY_decrypt_init, EVP_PKEY_decrypt, OutputOf(encrypt)));
    case Sm2Operation::VERIFY:
      break;
  }
  const EvpCall verify = call(EVP_PKEY_verify_init, nullptr, data);
  return Timed(name, [verify, signature = OutputOf(sign)] {
    return EVP_PKEY_verify(verify.context.get(), signature.data(), signature.size(),
                           verify.data.data(), verify.data.size()) == 1;
  });
}

// --- Botan ---

#ifdef HAVE_BOTAN
Contender BotanPeer(Sm2Operation operation, const Bytes& data) {
  static Botan::AutoSeeded_RNG random;
  static const Botan::SM2_PrivateKey KEY(random, Botan::EC_Group("sm2p256v1"));
  static const std::string PREHASHED = "ALICE123@YAHOO.COM,Raw";
  const std::string name = std::string("Botan ") + Botan::short_version_cstr();
  const auto signer = std::make_shared<Botan::PK_Signer>(KEY, random, PREHASHED);
  const auto encryptor = std::make_shared<Botan::PK_Encryptor_EME>(KEY, random, "SM3");
  switch (operation) {
    case Sm2Operation::SIGN:
      return Timed(name, [=] { return !signer->sign_message(data, random).empty(); });
    case Sm2Operation::VERIFY: {
      const auto verifier = std::make_shared<Botan::PK_Verifier>(KEY, PREHASHED);
      return Timed(name, [=, signature = signer->sign_message(data, random)] {
        return verifier->verify_message(data, signature);
      });
    }
    case Sm2Operation::ENCRYPT:
      return Timed(name, [=] { return !encryptor->encrypt(data, random).empty(); });
    case Sm2Operation::DECRYPT:
      break;
  }
  const auto decryptor = std::make_shared<Botan::PK_Decryptor_EME>(KEY, random, "SM3");
  return Timed(name, [=, secret = encryptor->encrypt(data, random)] {
    return decryptor->decrypt(secret).size() == data.size();
  });
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

Contender GcryptPeer(Sm2Operation operation, const Bytes& data) {
  static const Sexp KEY = NewGcryptKey();
  const Sexp secretKey = Part(KEY, "private-key");
  const Sexp publicKey = Part(KEY, "public-key");
  const std::string name = std::string("libgcrypt ") + gcry_check_version(nullptr);
  const auto digest = [&] {
    return Build("(data (flags sm2) (hash sm3 %b))", Len(data), data.data());
  };
  const auto value = [&] { return Build("(data (flags sm2) (value %b))", Len(data), data.data()); };
  switch (operation) {
    case Sm2Operation::SIGN:
      return Timed(
          name, [=, input = digest()] { return Run(gcry_pk_sign, input, secretKey) != nullptr; });
    case Sm2Operation::VERIFY:
      return Timed(name, [=, input = digest(), signature = Run(gcry_pk_sign, digest(), secretKey)] {
        return gcry_pk_verify(signature.get(), input.get(), publicKey.get()) == 0;
      });
    case Sm2Operation::ENCRYPT:
      return Timed(
          name, [=, input = value()] { return Run(gcry_pk_encrypt, input, publicKey) != nullptr; });
    case Sm2Operation::DECRYPT:
      break;
  }
  // Decryption wants the flags that encryption leaves out.
  const Sexp inner = Part(Run(gcry_pk_encrypt, value(), publicKey), "sm2");
  const Sexp secret = Build("(enc-val (flags sm2) %S)", inner.get());
  return Timed(name, [=] { return Run(gcry_pk_decrypt, secret, secretKey) != nullptr; });
}
#endif

}  // namespace

std::vector<Contender> Sm2Peers(Sm2Operation operation, size_t size) {
  const Bytes data = SomeBytes(size);
  std::vector<Contender> peers = {EvpPeer(operation, data)};
#ifdef HAVE_BOTAN
  peers.push_back(BotanPeer(operation, data));
#endif
#ifdef HAVE_GCRYPT
  peers.push_back(GcryptPeer(operation, data));
#endif
  return peers;
}
