// Fuzz targets: tests of one kind of foreign bytes each. They expect the contract of what they
// call, not only that nothing crashes. How an input came about they don't know, so of everything
// that is accepted they expect what only valid bytes fulfil: the module makes the same bytes again,
// or OpenSSL accepts them too.
#ifndef VAKRO_FUZZ_FUZZ_H
#define VAKRO_FUZZ_FUZZ_H

#include "keypair/keypair.h"
#include "sm2/sm2.h"
#include "tests/support/operations.h"

#include <functional>
#include <optional>

class FuzzTest : public OperationsTest {
 public:
  // Runs the target on a copy behind whose last byte a sanitizer sees, with the same random bytes
  // each time. Says whether the input was accepted.
  bool Try(std::string_view input);

 protected:
  virtual bool Run(std::string_view input) = 0;

  // Calls with every algorithm, on zeros. Nothing is expected of a key made by hostile bytes but
  // that the size query was right. The bits come from a file and may say anything.
  template <auto Operation, class Key>
  static void Use(Key* key, unsigned int bits) {
    const std::string digest(32, '\0'), block(std::min(bits / 8 + (bits % 8 != 0), 4096u), '\0');
    for (const unsigned int algorithm : {16u, 48u, 64u, 256u, 768u, 2048u, 4096u})
      for (const std::string& data : {digest, block}) {
        const std::string out = Perform<Operation, Key>(key, algorithm, data);
        EXPECT_TRUE(!out.empty() && out != "result -4") << algorithm;
      }
  }

 private:
  void TestBody() override;  // tries what is kept of the target's inputs, and small changes of that
};

// FUZZ begins the definition of a target: the body of its Run.
#define FUZZ(name)                                                                             \
  class name : public FuzzTest {                                                               \
    bool Run(std::string_view input) override;                                                 \
  };                                                                                           \
  FuzzTest* Make_##name() { return new (name)(); }                                             \
  [[maybe_unused]] static const auto* const g_##name =                                         \
      testing::RegisterTest("fuzz", #name, nullptr, nullptr, __FILE__, __LINE__, Make_##name); \
  bool name::Run(std::string_view input)

// What a function hands out through its last two arguments; no value when it refuses.
template <class Out = unsigned char*, class Size = int, class Maker>
std::optional<std::string> Made(const Maker& make) {
  Out out = nullptr;
  Size length = 0;
  if (make(&out, &length) != 1) return std::nullopt;
  const std::unique_ptr<std::remove_pointer_t<Out>[], Release<vakro_free>> owned(out);
  return std::string(out, out + length);
}

// The encodings that the module makes of a key; the curve is 0 for RSA.
template <auto OfRsa, auto OfEcc>
std::string Encoding(EVP_PKEY* key, int curve) {
  if (curve != 0) return Made(std::bind_front(OfEcc, curve, EVP_PKEY_get0_EC_KEY(key))).value();
  const RsaKey rsa(EVP_PKEY_get1_RSA(key));
  return Made(std::bind_front(OfRsa, rsa.get())).value();
}
inline constexpr auto PairEncoding = Encoding<EncodeRSAKeypair, EncodeECCKeypair>;
inline constexpr auto PublicEncoding = Encoding<ToRSAPublicKeyEncode, ToECCPublicKeyEncode>;

#endif
