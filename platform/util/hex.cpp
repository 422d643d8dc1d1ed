// The hex coder. Arithmetic instead of tables: the compiler turns both loops into vector code.
#include "platform/memory.h"

#include <limits.h>

static char Digit(unsigned value) {
  return static_cast<char>(value + (value < 10 ? '0' : 'a' - 10));
}

// Returns 0 to 15, or 255 for what is no digit.
static unsigned char Value(char digit) {
  const auto decimal = static_cast<unsigned char>(digit - '0');
  const auto letter = static_cast<unsigned char>((digit | 0x20) - 'a');
  const auto value = static_cast<unsigned char>(letter < 6 ? letter + 10 : 255);
  return decimal < 10 ? decimal : value;
}

int vakro_hexencode(int mode, const unsigned char* bytes, int length, char** text,
                    int* textLength) {
  if (mode != 1 || !AreBytes(bytes, length) || length > INT_MAX / 2) return 0;
  if (text == nullptr || textLength == nullptr) return 0;
  const size_t count = static_cast<size_t>(length);
  auto result = NewArray<char>(2 * count + 1);
  if (!result) return 0;
  char* const out = result.get();
  for (size_t i = 0; i < count; i++) {
    out[2 * i] = Digit(bytes[i] >> 4);
    out[2 * i + 1] = Digit(bytes[i] & 15u);
  }
  out[2 * count] = '\0';
  return HandOut(result, 2 * count, text, textLength);
}

int vakro_hexdecode(const char* text, int length, unsigned char** bytes, int* byteLength) {
  if (!AreBytes(text, length) || length % 2 != 0) return 0;
  if (bytes == nullptr || byteLength == nullptr) return 0;
  const size_t count = static_cast<size_t>(length) / 2;
  auto result = NewArray<unsigned char>(count);
  if (!result) return 0;
  unsigned char* const out = result.get();
  unsigned char seen = 0;
  for (size_t i = 0; i < count; i++) {
    const unsigned char high = Value(text[2 * i]);
    const unsigned char low = Value(text[2 * i + 1]);
    out[i] = static_cast<unsigned char>(high << 4 | low);
    seen = static_cast<unsigned char>(seen | high | low);
  }
  if (seen > 15) return 0;
  return HandOut(result, count, bytes, byteLength);
}
