// Fuzz targets of the texts: base64, hex, JSON.
#include "fuzz/fuzz.h"

#include <ctype.h>
#include <math.h>
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

// One text for the same bytes and one meaning for a text, so decoding and encoding undo each other
// exactly, both ways.
void FuzzBase64(std::string_view input) {
  const auto decode = [](std::string_view text) {
    return Made([&](auto... out) { return vakro_base64decode(2, text.data(), Len(text), out...); });
  };
  const auto encode = [](std::string_view bytes) {
    return Made<char*>(
        [&](auto... out) { return vakro_base64encode(1, Raw(bytes), Len(bytes), out...); });
  };
  DEMAND(decode(encode(input).value()) == input);
  if (const auto bytes = decode(input)) DEMAND(encode(*bytes) == input);
}

// The same but for the case of the digits; and both libraries are alike.
void FuzzHex(std::string_view input) {
  const auto decode = [](std::string_view text) {
    const auto bytes =
        Made([&](auto... out) { return vakro_hexdecode(text.data(), Len(text), out...); });
    DEMAND(bytes == Made([&](auto... out) {
             return VakroPKICryptoHexDecode(text.data(), Len(text), out...);
           }));
    return bytes;
  };
  const auto encode = [](std::string_view bytes) {
    return Made<char*>(
        [&](auto... out) { return VakroPKICryptoHexEncode(1, Raw(bytes), Len(bytes), out...); });
  };
  DEMAND(decode(encode(input).value()) == input);
  std::string lower(input);
  for (char& digit : lower) digit = static_cast<char>(tolower(digit));
  if (const auto bytes = decode(input)) DEMAND(encode(*bytes) == lower);
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

static bool Equal(VakroJson* a, VakroJson* b) {
  const int size = vakro_json_getarraysize(a);
  if (vakro_json_gettype(a) != vakro_json_gettype(b) || size != vakro_json_getarraysize(b) ||
      vakro_json_getnumber(a) != vakro_json_getnumber(b) ||
      View(vakro_json_getstring(a), vakro_json_getstringlength(a)) !=
          View(vakro_json_getstring(b), vakro_json_getstringlength(b)))
    return false;
  for (int i = 0; i < size; i++)
    if (!Equal(vakro_json_getarrayitem(a, i), vakro_json_getarrayitem(b, i))) return false;
  return vakro_json_getarrayitem(a, size) == nullptr && vakro_json_getarrayitem(a, -1) == nullptr;
}

// Whatever decodes has an equal copy, and is written as a text that decodes to an equal tree and is
// written the same again.
void FuzzJson(std::string_view input) {
  const Json tree = Decode(input);
  if (!tree) return;
  const std::string text = Encode(tree);
  for (const Json& same : {Json(vakro_json_dup(tree.get())), Decode(text)})
    DEMAND(same && Equal(tree.get(), same.get()) && Encode(same) == text);

  // In an array it stands one level deeper, and depth is bounded alike however a tree is made.
  const std::string wrapped = "[" + text + "]";
  const Json array(vakro_json_newarray());
  const bool added = vakro_json_addarrayitem(array.get(), tree.get()) == 1;
  DEMAND(added == (Decode(wrapped) != nullptr));
  DEMAND(Encode(array) == (added ? wrapped : "[]"));
}
