// JSON: whatever decodes has an equal copy, and is written as a text that decodes to an equal tree
// and is written the same again.
#include "fuzz/fuzz.h"

#include <math.h>

static std::string Text(const VakroJson* value) {
  char* text = nullptr;
  unsigned int length = 0;
  DEMAND(vakro_json_encode(value, VAKRO_JSON_COMPACT, &text, &length) == 1);
  const UtilText owned(text);
  DEMAND(text[length] == '\0');
  return std::string(text, length);
}

static bool Equal(VakroJson* a, VakroJson* b) {
  const int size = vakro_json_getarraysize(a);
  const double number = vakro_json_getnumber(a);
  if (vakro_json_gettype(a) != vakro_json_gettype(b) || size != vakro_json_getarraysize(b) ||
      isnan(number) || number != vakro_json_getnumber(b) ||
      View(vakro_json_getstring(a), vakro_json_getstringlength(a)) !=
          View(vakro_json_getstring(b), vakro_json_getstringlength(b)))
    return false;
  for (int i = 0; i < size; i++) {
    VakroJson* const item = vakro_json_getarrayitem(a, i);
    if (item == nullptr || !Equal(item, vakro_json_getarrayitem(b, i))) return false;
  }
  return vakro_json_getarrayitem(a, size) == nullptr && vakro_json_getarrayitem(a, -1) == nullptr;
}

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size) {
  const Json tree(
      vakro_json_decode(reinterpret_cast<const char*>(data), static_cast<unsigned int>(size)));
  if (!tree) return 0;
  const std::string text = Text(tree.get());
  Json copy(vakro_json_dup(tree.get()));
  DEMAND(copy && Equal(tree.get(), copy.get()) && Text(copy.get()) == text);
  copy.reset();
  const Json again(vakro_json_decode(text.data(), static_cast<unsigned int>(text.size())));
  DEMAND(again && Equal(tree.get(), again.get()) && Text(again.get()) == text);

  // In an array it stands one level deeper, and depth is bounded alike however a tree is made.
  const std::string wrapped = "[" + text + "]";
  const Json array(vakro_json_newarray());
  const bool added = vakro_json_addarrayitem(array.get(), tree.get()) == 1;
  const Json parsed(vakro_json_decode(wrapped.data(), static_cast<unsigned int>(wrapped.size())));
  DEMAND(added == (parsed != nullptr));
  DEMAND(Text(array.get()) == (added ? wrapped : "[]"));
  return 0;
}
