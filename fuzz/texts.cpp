// Fuzz targets of the texts: base64, hex, JSON.
#include "fuzz/fuzz.h"

#include <ctype.h>

// Decoding and encoding undo each other exactly, both ways: there is one text for the same bytes,
// and what means the same as `input` is written as `normal`.
static bool CheckCoder(std::string_view input, std::string_view normal, auto decode, auto encode) {
  const auto text = Made<char*>(std::bind_front(encode, 1, Raw(input), Len(input)));
  EXPECT_EQ(Made(std::bind_front(decode, text->data(), Len(*text))), input);
  const auto bytes = Made(std::bind_front(decode, input.data(), Len(input)));
  if (!bytes) return false;
  EXPECT_EQ(Made<char*>(std::bind_front(encode, 1, Raw(*bytes), Len(*bytes))), normal);
  return true;
}

FUZZ(base64) {
  return CheckCoder(input, input, std::bind_front(vakro_base64decode, 2), vakro_base64encode);
}

FUZZ(hex) {
  std::string lower(input);
  for (char& digit : lower) digit = static_cast<char>(tolower(digit));
  return CheckCoder(input, lower, VakroPKICryptoHexDecode, VakroPKICryptoHexEncode);
}

static Json Decode(std::string_view text) {
  return Json(vakro_json_decode(text.data(), static_cast<unsigned int>(text.size())));
}

static std::string Encode(const Json& value) {
  const auto encode = std::bind_front(vakro_json_encode, value.get(), VAKRO_JSON_COMPACT);
  return Made<char*, unsigned int>(encode).value();
}

// Whatever decodes is written as a text that is written the same again, as is a copy; more behind
// it is refused.
FUZZ(json) {
  const Json tree = Decode(input);
  if (!tree) return false;
  const std::string text = Encode(tree);
  for (const Json& same : {Json(vakro_json_dup(tree.get())), Decode(text)})
    EXPECT_TRUE(same && Encode(same) == text);
  EXPECT_EQ(Decode(std::string(input) + ']'), nullptr);

  // In an array it stands one level deeper, and depth is bounded alike however a tree is made.
  const std::string wrapped = "[" + text + "]";
  const Json array(vakro_json_newarray());
  const bool added = vakro_json_addarrayitem(array.get(), tree.get()) == 1;
  EXPECT_EQ(added, Decode(wrapped) != nullptr);
  EXPECT_EQ(Encode(array), added ? wrapped : "[]");
  return true;
}
