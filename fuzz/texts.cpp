// Fuzz targets of the texts: base64, hex, JSON.
#include "fuzz/fuzz.h"

#include <ctype.h>
#include <optional>

// What a coder of either library hands out; no value when it refuses.
template <class Out = unsigned char*, class Coder>
static std::optional<std::string> Made(const Coder& coder) {
  Out out = nullptr;
  int length = 0;
  if (coder(&out, &length) != 1) return std::nullopt;
  const std::unique_ptr<std::remove_pointer_t<Out>[], Release<vakro_free>> owned(out);
  return View(out, length);
}

// Decoding and encoding undo each other exactly, both ways: there is one text for the same bytes,
// and what means the same as `input` is written as `normal`.
template <class Decode, class Encode>
static void CheckCoder(std::string_view input, std::string_view normal, Decode decode,
                       Encode encode) {
  const auto decoded = [=](std::string_view text) {
    return Made([=](auto... out) { return decode(text.data(), Len(text), out...); });
  };
  const auto encoded = [=](std::string_view bytes) {
    return Made<char*>([=](auto... out) { return encode(1, Raw(bytes), Len(bytes), out...); });
  };
  DEMAND(decoded(encoded(input).value()) == input);
  if (const auto bytes = decoded(input)) DEMAND(encoded(*bytes) == normal);
}

FUZZ(base64) {
  const auto decode = [](auto... text) { return vakro_base64decode(2, text...); };
  CheckCoder(input, input, decode, vakro_base64encode);
}

FUZZ(hex) {
  std::string lower(input);
  for (char& digit : lower) digit = static_cast<char>(tolower(digit));
  CheckCoder(input, lower, VakroPKICryptoHexDecode, VakroPKICryptoHexEncode);
}

static Json Decode(std::string_view text) {
  return Json(vakro_json_decode(text.data(), static_cast<unsigned int>(text.size())));
}

static std::string Encode(const Json& value) {
  char* text = nullptr;
  unsigned int length = 0;
  DEMAND(vakro_json_encode(value.get(), VAKRO_JSON_COMPACT, &text, &length) == 1);
  const UtilText owned(text);
  DEMAND(text[length] == '\0');
  return View(text, length);
}

// Whatever decodes is written as a text that is written the same again, as is a copy.
FUZZ(json) {
  const Json tree = Decode(input);
  if (!tree) return;
  const std::string text = Encode(tree);
  for (const Json& same : {Json(vakro_json_dup(tree.get())), Decode(text)})
    DEMAND(same && Encode(same) == text);

  // In an array it stands one level deeper, and depth is bounded alike however a tree is made.
  const std::string wrapped = "[" + text + "]";
  const Json array(vakro_json_newarray());
  const bool added = vakro_json_addarrayitem(array.get(), tree.get()) == 1;
  DEMAND(added == (Decode(wrapped) != nullptr));
  DEMAND(Encode(array) == (added ? wrapped : "[]"));
}
