// Base64: one text for the same bytes and one meaning for a text, so decoding and encoding undo
// each other exactly, both ways.
#include "fuzz/fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size) {
  const int length = static_cast<int>(size);
  unsigned char* bytes = nullptr;
  char* text = nullptr;
  int bytesLen = 0;
  int textLen = 0;
  if (vakro_base64decode(2, reinterpret_cast<const char*>(data), length, &bytes, &bytesLen) == 1) {
    const UtilBytes ownedBytes(bytes);
    DEMAND(vakro_base64encode(1, bytes, bytesLen, &text, &textLen) == 1);
    const UtilText ownedText(text);
    DEMAND(View(text, static_cast<size_t>(textLen)) == View(data, size));
  }

  DEMAND(vakro_base64encode(1, data, length, &text, &textLen) == 1);
  const UtilText ownedText(text);
  DEMAND(vakro_base64decode(2, text, textLen, &bytes, &bytesLen) == 1);
  const UtilBytes ownedBytes(bytes);
  DEMAND(View(bytes, static_cast<size_t>(bytesLen)) == View(data, size));
  return 0;
}
