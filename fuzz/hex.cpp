// Hex: what is read writes back as the same digits in lower case, what is written reads back as the
// same bytes, and both libraries read alike.
#include "fuzz/fuzz.h"

#include <ctype.h>

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size) {
  const char* const text = reinterpret_cast<const char*>(data);
  const int length = static_cast<int>(size);
  unsigned char* bytes = nullptr;
  unsigned char* same = nullptr;
  int bytesLen = 0;
  int sameLen = 0;
  const int read = vakro_hexdecode(text, length, &bytes, &bytesLen);
  const UtilBytes ownedBytes(bytes);
  DEMAND(VakroPKICryptoHexDecode(text, length, &same, &sameLen) == read);
  const LibBytes ownedSame(same);
  if (read == 1) {
    DEMAND(View(bytes, static_cast<size_t>(bytesLen)) == View(same, static_cast<size_t>(sameLen)));
    char* again = nullptr;
    int againLen = 0;
    DEMAND(vakro_hexencode(1, bytes, bytesLen, &again, &againLen) == 1);
    const UtilText owned(again);
    std::string lower(text, size);
    for (char& digit : lower) digit = static_cast<char>(tolower(digit));
    DEMAND(View(again, static_cast<size_t>(againLen)) == lower);
  }

  char* digits = nullptr;
  int digitsLen = 0;
  DEMAND(VakroPKICryptoHexEncode(1, data, length, &digits, &digitsLen) == 1);
  const LibText ownedDigits(digits);
  DEMAND(vakro_hexdecode(digits, digitsLen, &bytes, &bytesLen) == 1);
  const UtilBytes back(bytes);
  DEMAND(View(bytes, static_cast<size_t>(bytesLen)) == View(data, size));
  return 0;
}
