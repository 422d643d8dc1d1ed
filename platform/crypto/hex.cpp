// Hex coding: the utility library's coder, with whose heap this library's buffers are made.
#include "vakro_crypto.h"
#include "vakro_util.h"

int VakroPKICryptoHexEncode(int mode, const unsigned char* bytes, int length, char** text,
                            int* textLength) {
  return vakro_hexencode(mode, bytes, length, text, textLength);
}

int VakroPKICryptoHexDecode(const char* text, int length, unsigned char** bytes, int* byteLength) {
  return vakro_hexdecode(text, length, bytes, byteLength);
}
