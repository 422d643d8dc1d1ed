// What the tests of SM2's arithmetic share: numbers as OpenSSL has them, which is the judge, and
// the operands that arithmetic on limbs goes wrong with.
#ifndef VAKRO_TESTS_SM2_NUMBERS_H
#define VAKRO_TESTS_SM2_NUMBERS_H

#include "device/owners.h"
#include "sm2/field_x86.h"
#include "sm2/multiply_paths.h"

#include <gtest/gtest.h>

#include <array>
#include <random>
#include <vector>

using Bytes32 = std::array<unsigned char, 32>;

// VAKRO_LONG_TESTS=1 asks for many more random operands, and for all pairs of structured ones.
inline bool LongTests() { return getenv("VAKRO_LONG_TESTS") != nullptr; }

inline std::mt19937_64& Random() {
  static std::mt19937_64 generator(20240607);
  return generator;
}

inline sm2::U256 RandomNumber() { return {{Random()(), Random()(), Random()(), Random()()}}; }

inline Bytes32 ToBytes(const sm2::U256& a) {
  Bytes32 bytes;
  StoreBigEndian(bytes.data(), a);
  return bytes;
}

inline BigNum ToBigNum(const sm2::U256& a) {
  return BigNum(BN_bin2bn(ToBytes(a).data(), 32, nullptr));
}

inline sm2::U256 ToNumber(const BigNum& a) {
  Bytes32 bytes;
  EXPECT_EQ(BN_bn2binpad(a.get(), bytes.data(), 32), 32);
  return sm2::LoadBigEndian(bytes.data());
}

inline std::string Hex(const sm2::U256& a) {
  const std::unique_ptr<char, decltype([](char* p) { OPENSSL_free(p); })> text(
      BN_bn2hex(ToBigNum(a).get()));
  return text.get();
}

// Numbers that make carries run at every limb: each limb at one of its ends or at the modulus's.
inline std::vector<sm2::U256> StructuredNumbers(const sm2::U256& m) {
  std::vector<sm2::U256> all;
  const auto limb = [&](int i, int choice) {
    const uint64_t choices[] = {0, 1, ~uint64_t{0}, m.limb[i], m.limb[i] - 1, m.limb[i] + 1};
    return choices[choice];
  };
  for (int i = 0; i < 6 * 6 * 6 * 6; i++) {
    all.push_back({{limb(0, i % 6), limb(1, i / 6 % 6), limb(2, i / 36 % 6), limb(3, i / 216)}});
  }
  return all;
}

// Tests of a type of field operations run for both; where the processor lacks ADX, for one.
template <class Field>
class ByPath : public testing::Test {
 protected:
  void SetUp() override {
    if (!std::is_same_v<Field, sm2::PortableField> && !sm2::UseAdx()) GTEST_SKIP();
  }
};
#ifdef __x86_64__
using Paths = testing::Types<sm2::PortableField, sm2::AdxField>;
#else
using Paths = testing::Types<sm2::PortableField>;
#endif
struct PathName {
  template <class Field>
  static std::string GetName(int) {
    return std::is_same_v<Field, sm2::PortableField> ? "Portable" : "Adx";
  }
};

#endif
