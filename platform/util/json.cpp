// JSON values: making, reading, copying, appending, freeing.
#include "platform/util/json.h"

#include <limits.h>
#include <string.h>

#include <new>

Text* NewText(size_t size) {
  void* const memory = vakro_malloc(sizeof(Text) + size, "json", __LINE__);
  return memory != nullptr ? new (memory) Text{1} : nullptr;
}

static Text* ShareText(Text* text) {
  text->users.fetch_add(1, std::memory_order_relaxed);
  return text;
}

void ReleaseText(Text* text) {
  if (text != nullptr && text->users.fetch_sub(1, std::memory_order_acq_rel) == 1) vakro_free(text);
}

VakroJson MakeText(VakroJsonType type, Text* text, std::string_view bytes) {
  VakroJson node = MakeNode(type);
  node.length = static_cast<unsigned>(bytes.size());
  node.bytes = bytes.data();
  node.text = ShareText(text);
  return node;
}

void ClearNode(VakroJson* node) {
  ReleaseText(node->text);
  if (!HasItems(*node)) return;
  for (unsigned i = 0; i < node->length; i++) ClearNode(&node->items[i]);
  vakro_free(node->items);
}

static bool Grow(VakroJson* array) {
  if (array->capacity > INT_MAX / 2) return false;
  const unsigned capacity = array->capacity > 0 ? 2 * array->capacity : 8;
  auto grown = NewArray<VakroJson>(capacity);
  if (!grown) return false;
  if (array->length > 0) memcpy(grown.get(), array->items, array->length * sizeof(VakroJson));
  vakro_free(std::exchange(array->items, grown.release()));
  array->capacity = capacity;
  return true;
}

bool AppendNode(VakroJson* array, VakroJson node) {
  Cleared owner(&node);
  if (array->length == array->capacity && !Grow(array)) return false;
  array->items[array->length++] = *owner.release();
  return true;
}

VakroJson* NewValue(VakroJson node) {
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
    if (source.text != nullptr) ShareText(source.text);
    *copy = source;
    return true;
  }
  if (level > MAX_LEVEL) return false;
  VakroJson node = MakeNode(source.type, level);
  Cleared owner(&node);
  if (source.length > 0) {
    node.items = NewArray<VakroJson>(source.length).release();
    if (node.items == nullptr) return false;
    node.capacity = source.length;
  }
  for (; node.length < source.length; node.length++)
    if (!CopyNode(source.items[node.length], level + 1, &node.items[node.length])) return false;
  *copy = *owner.release();
  return true;
}

int vakro_json_gettype(const VakroJson* value) { return value != nullptr ? value->type : 0; }

static bool IsArray(const VakroJson* value) {
  return value != nullptr && value->type == VAKRO_JSON_ARRAY;
}

static bool IsString(const VakroJson* value) {
  return value != nullptr && value->type == VAKRO_JSON_STRING;
}

int vakro_json_getarraysize(const VakroJson* array) {
  return IsArray(array) ? static_cast<int>(array->length) : 0;
}

VakroJson* vakro_json_getarrayitem(VakroJson* array, int index) {
  if (index < 0 || index >= vakro_json_getarraysize(array)) return nullptr;
  return &array->items[index];
}

const char* vakro_json_getstring(const VakroJson* value) {
  return IsString(value) ? value->bytes : nullptr;
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
  VakroJson copy;
  // Copy before the array grows: the item may be one of its own.
  if (!IsArray(array) || item == nullptr || !CopyNode(*item, array->level + 1, &copy)) return 0;
  return AppendNode(array, copy) ? 1 : 0;
}

VakroJson* vakro_json_dup(const VakroJson* value) {
  VakroJson copy;
  return value != nullptr && CopyNode(*value, 1, &copy) ? NewValue(copy) : nullptr;
}

void vakro_json_free(VakroJson* value) {
  if (value == nullptr) return;
  ClearNode(value);
  vakro_free(value);
}
