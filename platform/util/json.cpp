// JSON values: making, reading, copying, appending, freeing.
#include "platform/util/json.h"

#include <limits.h>
#include <string.h>

#include <algorithm>
#include <bit>
#include <new>

Text* NewText(size_t size) {
  void* const memory = vakro_malloc(sizeof(Text) + size, "json", __LINE__);
  return memory != nullptr ? new (memory) Text{1} : nullptr;
}

static void ShareText(Text* text) { text->users.fetch_add(1, std::memory_order_relaxed); }

void ReleaseText(Text* text) {
  if (text->users.fetch_sub(1, std::memory_order_acq_rel) == 1) vakro_free(text);
}

VakroJson MakeText(VakroJsonType type, Text* text, std::string_view bytes) {
  ShareText(text);
  VakroJson node = {reinterpret_cast<uintptr_t>(text) | type, 0, {}};
  node.length = static_cast<unsigned>(bytes.size());
  node.offset = static_cast<unsigned>(bytes.data() - BytesOf(text));
  return node;
}

void ClearNode(VakroJson* node) {
  if (HasBytes(*node)) ReleaseText(TextOf(*node));
  if (!HasItems(*node)) return;
  VakroJson* const items = ItemsOf(*node);
  for (unsigned i = 0; i < node->length; i++) ClearNode(&items[i]);
  if (node->nesting.place != Place::TREE) vakro_free(items);
}

static unsigned Capacity(const VakroJson& array) {
  if (array.nesting.place != Place::ROOMY) return array.length;
  return std::max(8u, std::bit_ceil(array.length));
}

static bool Grow(VakroJson* array) {
  if (array->length > INT_MAX / 2) return false;
  const unsigned capacity = std::max(8u, std::bit_ceil(array->length + 1));
  auto grown = NewArray<VakroJson>(capacity);
  if (!grown) return false;
  VakroJson* const items = ItemsOf(*array);
  if (array->length > 0) memcpy(grown.get(), items, array->length * sizeof(VakroJson));
  if (array->nesting.place != Place::TREE) vakro_free(items);
  SetItems(array, grown.release(), Place::ROOMY);
  return true;
}

// Moves `node` to a value of its own; when memory is out it is cleared, and the result is NULL.
static VakroJson* NewValue(VakroJson node) {
  Cleared owner(&node);
  auto value = NewArray<VakroJson>(1);
  if (!value) return nullptr;
  value[0] = *owner.release();
  return value.release();
}

VakroJson* NewTextValue(VakroJsonType type, std::string_view bytes) {
  const TextUse text(NewText(bytes.size() + 1));
  if (!text) return nullptr;
  char* const copy = BytesOf(text.get());
  if (!bytes.empty()) memcpy(copy, bytes.data(), bytes.size());
  copy[bytes.size()] = '\0';
  return NewValue(MakeText(type, text.get(), {copy, bytes.size()}));
}

// Makes `copy` a copy of `source` for a place at `level`.
static bool CopyNode(const VakroJson& source, unsigned level, VakroJson* copy) {
  if (!HasItems(source)) {
    if (HasBytes(source)) ShareText(TextOf(source));
    *copy = source;
    return true;
  }
  if (level > MAX_LEVEL) return false;
  VakroJson node = MakeNode(TypeOf(source), level);
  Cleared owner(&node);
  if (source.length > 0) {
    auto items = NewArray<VakroJson>(source.length);
    if (!items) return false;
    SetItems(&node, items.release(), Place::EXACT);
  }
  for (const VakroJson* from = ItemsOf(source); node.length < source.length; node.length++)
    if (!CopyNode(from[node.length], level + 1, &ItemsOf(node)[node.length])) return false;
  *copy = *owner.release();
  return true;
}

int vakro_json_gettype(const VakroJson* value) { return value != nullptr ? TypeOf(*value) : 0; }

static bool IsArray(const VakroJson* value) {
  return value != nullptr && TypeOf(*value) == VAKRO_JSON_ARRAY;
}

static bool IsString(const VakroJson* value) {
  return value != nullptr && TypeOf(*value) == VAKRO_JSON_STRING;
}

int vakro_json_getarraysize(const VakroJson* array) {
  return IsArray(array) ? static_cast<int>(array->length) : 0;
}

VakroJson* vakro_json_getarrayitem(VakroJson* array, int index) {
  if (index < 0 || index >= vakro_json_getarraysize(array)) return nullptr;
  return &ItemsOf(*array)[index];
}

const char* vakro_json_getstring(const VakroJson* value) {
  return IsString(value) ? BytesOf(*value).data() : nullptr;
}

unsigned int vakro_json_getstringlength(const VakroJson* value) {
  return IsString(value) ? value->length : 0;
}

VakroJson* vakro_json_newarray(void) { return NewValue(MakeNode(VAKRO_JSON_ARRAY)); }

VakroJson* vakro_json_newstring(const char* text, unsigned int length) {
  if (text == nullptr && length > 0) return nullptr;
  return NewTextValue(VAKRO_JSON_STRING, {text, length});
}

int vakro_json_addarrayitem(VakroJson* array, const VakroJson* item) {
  if (!IsArray(array) || item == nullptr) return 0;
  VakroJson copy;
  // Copy before the array grows: the item may be one of its own.
  if (!CopyNode(*item, array->nesting.level + 1u, &copy)) return 0;
  Cleared owner(&copy);
  if (array->length == Capacity(*array) && !Grow(array)) return 0;
  ItemsOf(*array)[array->length++] = *owner.release();
  return 1;
}

VakroJson* vakro_json_dup(const VakroJson* value) {
  VakroJson copy;
  return value != nullptr && CopyNode(*value, 1, &copy) ? NewValue(copy) : nullptr;
}

// The root of a decoded tree stands at the beginning of the tree's block.
void vakro_json_free(VakroJson* value) {
  if (value == nullptr) return;
  ClearNode(value);
  vakro_free(value);
}
