// Elliptic-curve key encodings: the header, the curve, then each number with its length in front.
#include "platform/crypto/crypto.h"
#include "platform/crypto/encoding.h"

#include <limits.h>

using Number = std::span<const unsigned char>;

static Number MakeNumber(const unsigned char* bytes, int length) {
  return {bytes, static_cast<size_t>(length)};
}

static int Encode(const char* magic, int curve, std::span<const Number> numbers,
                  unsigned char** out, int* outLen) {
  size_t length = HEADER_LEN + WORD_LEN;
  for (const Number& number : numbers) length += WORD_LEN + number.size();
  if (length > INT_MAX || out == nullptr || outLen == nullptr) return 0;
  Bytes result = NewArray<unsigned char>(length);
  if (!result) return 0;
  unsigned char* at = result.get();
  PutHeader(at, magic, KEY_ECC);
  PutWord(at + HEADER_LEN, static_cast<uint32_t>(curve));
  at += HEADER_LEN + WORD_LEN;
  for (const Number& number : numbers) {
    PutWord(at, static_cast<uint32_t>(number.size()));
    at += WORD_LEN;
    if (!number.empty()) memcpy(at, number.data(), number.size());
    at += number.size();
  }
  return HandOut(result, length, out, outLen);
}

// Finds the curve and exactly as many numbers as `numbers` has places.
static bool Decode(const unsigned char* data, int len, const char* magic, int* curve,
                   std::span<Number> numbers) {
  std::span<const unsigned char> rest;
  if (!GetBody(data, len, magic, KEY_ECC, &rest) || rest.size() < WORD_LEN) return false;
  *curve = static_cast<int>(GetWord(rest.data()));
  rest = rest.subspan(WORD_LEN);
  for (Number& number : numbers) {
    if (rest.size() < WORD_LEN) return false;
    const uint32_t length = GetWord(rest.data());
    rest = rest.subspan(WORD_LEN);
    if (length > rest.size()) return false;
    number = rest.first(length);
    rest = rest.subspan(length);
  }
  return rest.empty();
}

static SecretBytes Copy(Number number) {
  SecretBytes copy = NewSecret(number.size());
  if (copy && !number.empty()) memcpy(copy.get(), number.data(), number.size());
  return copy;
}

int VakroPKICryptoEncodeECCKeyPair(int curve, const unsigned char* x, int xLen,
                                   const unsigned char* y, int yLen, const unsigned char* d,
                                   int dLen, unsigned char** out, int* outLen) {
  if (!AreBytes(x, xLen) || !AreBytes(y, yLen) || !AreBytes(d, dLen)) return 0;
  const Number numbers[] = {MakeNumber(x, xLen), MakeNumber(y, yLen), MakeNumber(d, dLen)};
  return Encode(KEYPAIR_MAGIC, curve, numbers, out, outLen);
}

int VakroPKICryptoEncodeECCPubKey(int curve, const unsigned char* x, int xLen,
                                  const unsigned char* y, int yLen, unsigned char** out,
                                  int* outLen) {
  if (!AreBytes(x, xLen) || !AreBytes(y, yLen)) return 0;
  const Number numbers[] = {MakeNumber(x, xLen), MakeNumber(y, yLen)};
  return Encode(PUBKEY_MAGIC, curve, numbers, out, outLen);
}

int VakroPKICryptoDecodeECCKeyPair(const unsigned char* data, int len, int* curve,
                                   unsigned char** x, int* xLen, unsigned char** y, int* yLen,
                                   unsigned char** d, int* dLen) {
  int decodedCurve = 0;
  Number numbers[3];
  if (curve == nullptr || x == nullptr || xLen == nullptr || y == nullptr) return 0;
  if (yLen == nullptr || d == nullptr || dLen == nullptr) return 0;
  if (!Decode(data, len, KEYPAIR_MAGIC, &decodedCurve, numbers)) return 0;
  SecretBytes xCopy = Copy(numbers[0]);
  SecretBytes yCopy = Copy(numbers[1]);
  SecretBytes dCopy = Copy(numbers[2]);
  if (!xCopy || !yCopy || !dCopy) return 0;
  *curve = decodedCurve;
  HandOut(xCopy, numbers[0].size(), x, xLen);
  HandOut(yCopy, numbers[1].size(), y, yLen);
  return HandOut(dCopy, numbers[2].size(), d, dLen);
}

int VakroPKICryptoDecodeECCPubKey(const unsigned char* data, int len, int* curve, unsigned char** x,
                                  int* xLen, unsigned char** y, int* yLen) {
  int decodedCurve = 0;
  Number numbers[2];
  if (curve == nullptr || x == nullptr || xLen == nullptr || y == nullptr || yLen == nullptr)
    return 0;
  if (!Decode(data, len, PUBKEY_MAGIC, &decodedCurve, numbers)) return 0;
  SecretBytes xCopy = Copy(numbers[0]);
  SecretBytes yCopy = Copy(numbers[1]);
  if (!xCopy || !yCopy) return 0;
  *curve = decodedCurve;
  HandOut(xCopy, numbers[0].size(), x, xLen);
  return HandOut(yCopy, numbers[1].size(), y, yLen);
}
