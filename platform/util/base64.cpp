// The base64 coder, RFC 4648 section 4, by tables that cost one look-up for a character decoded
// and one for two characters encoded. Certificates are most of many a device file, and OpenSSL's
// coder takes ten times as long: it is not strict, so what it decodes has to be encoded again.
#include "platform/memory.h"

#include <limits.h>
#include <stdint.h>

#include <array>

static constexpr char ALPHABET[] =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

namespace {
// The two characters of a 12-bit value.
struct Pair {
  char first, second;
};
struct Values {
  std::array<uint32_t, 256> at[4];
};
}  // namespace

static constexpr auto PAIRS = [] {
  std::array<Pair, 4096> pairs = {};
  for (size_t i = 0; i < pairs.size(); i++) pairs[i] = {ALPHABET[i >> 6], ALPHABET[i & 63]};
  return pairs;
}();

// The 6-bit value of every character, moved to its place among the four of a group; BAD for the
// characters outside the alphabet.
static constexpr uint32_t BAD = 1u << 31;
static constexpr auto VALUES = [] {
  Values values = {};
  for (int place = 0; place < 4; place++) {
    values.at[place].fill(BAD);
    for (uint32_t i = 0; i < 64; i++)
      values.at[place][static_cast<unsigned char>(ALPHABET[i])] = i << (18 - 6 * place);
  }
  return values;
}();

static void PutPair(char* out, uint32_t value) {
  out[0] = PAIRS[value].first;
  out[1] = PAIRS[value].second;
}

// Encodes the last group, of 1 or 2 bytes.
static void EncodeTail(const unsigned char* in, size_t count, char* out) {
  const uint32_t group = uint32_t{in[0]} << 16 | (count == 2 ? uint32_t{in[1]} << 8 : 0);
  PutPair(out, group >> 12);
  PutPair(out + 2, group & 4095);
  out[3] = '=';
  if (count == 1) out[2] = '=';
}

static uint32_t Group(const char* text) {
  const auto* in = reinterpret_cast<const unsigned char*>(text);
  return VALUES.at[0][in[0]] | VALUES.at[1][in[1]] | VALUES.at[2][in[2]] | VALUES.at[3][in[3]];
}

int vakro_base64encode(int mode, const unsigned char* bytes, int length, char** text,
                       int* textLength) {
  if (mode != 1 || !AreBytes(bytes, length) || length > INT_MAX / 4 * 3) return 0;
  if (text == nullptr || textLength == nullptr) return 0;
  const size_t groups = static_cast<size_t>(length) / 3;
  const size_t tail = static_cast<size_t>(length) % 3;
  const size_t count = 4 * (groups + (tail != 0));
  auto result = NewArray<char>(count + 1);
  if (!result) return 0;
  char* out = result.get();
  const unsigned char* in = bytes;
  for (size_t i = 0; i < groups; i++, in += 3, out += 4) {
    const uint32_t group = uint32_t{in[0]} << 16 | uint32_t{in[1]} << 8 | in[2];
    PutPair(out, group >> 12);
    PutPair(out + 2, group & 4095);
  }
  if (tail != 0) EncodeTail(in, tail, out);
  result[count] = '\0';
  return HandOut(result, count, text, textLength);
}

int vakro_base64decode(int mode, const char* text, int length, unsigned char** bytes,
                       int* byteLength) {
  if (mode != 2 || !AreBytes(text, length) || length % 4 != 0) return 0;
  if (bytes == nullptr || byteLength == nullptr) return 0;
  const size_t count = static_cast<size_t>(length);
  size_t padding = 0;
  if (count > 0 && text[count - 1] == '=') padding = text[count - 2] == '=' ? 2 : 1;
  const size_t groups = count / 4 - (padding != 0);
  auto result = NewArray<unsigned char>(count / 4 * 3);
  if (!result) return 0;

  unsigned char* out = result.get();
  uint32_t seen = 0;
  for (size_t i = 0; i < groups; i++, text += 4, out += 3) {
    const uint32_t group = Group(text);
    seen |= group;
    out[0] = static_cast<unsigned char>(group >> 16);
    out[1] = static_cast<unsigned char>(group >> 8);
    out[2] = static_cast<unsigned char>(group);
  }
  if (padding != 0) {
    // Read the last group as if zeros stood for the padding; then the bits that belong to no byte
    // must be zero, or two texts would mean the same bytes.
    const char last[4] = {text[0], text[1], padding == 2 ? 'A' : text[2], 'A'};
    const uint32_t group = Group(last);
    seen |= group;
    if ((group & (padding == 2 ? 0xffffu : 0xffu)) != 0) return 0;
    out[0] = static_cast<unsigned char>(group >> 16);
    if (padding == 1) out[1] = static_cast<unsigned char>(group >> 8);
  }
  if ((seen & BAD) != 0) return 0;
  return HandOut(result, count / 4 * 3 - padding, bytes, byteLength);
}
