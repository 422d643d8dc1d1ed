// The JSON writer. A first pass counts, so that the second writes into one buffer of the right
// size; strings pass through both in blocks that the compiler turns into vector code. RapidJSON's
// writer looks at each character, which takes 70 ms instead of 10 for a data object of 10 MB, and
// keeps a stack that it goes on to use when memory is out.
#include "platform/util/json.h"

#include <limits.h>
#include <string.h>

static constexpr size_t BLOCK = 64;

static bool NeedsEscape(unsigned char c) { return (c < 0x20) | (c == '"') | (c == '\\'); }

static bool IsPlainBlock(const char* block) {
  unsigned char found = 0;
  for (size_t i = 0; i < BLOCK; i++)
    found = static_cast<unsigned char>(found | NeedsEscape(static_cast<unsigned char>(block[i])));
  return found == 0;
}

// The letter of a two-character escape, or 0.
static char EscapeLetter(char c) {
  switch (c) {
    case '"':
    case '\\':
      return c;
    case '\b':
      return 'b';
    case '\f':
      return 'f';
    case '\n':
      return 'n';
    case '\r':
      return 'r';
    case '\t':
      return 't';
    default:
      return 0;
  }
}

static size_t CharSize(char c) {
  if (!NeedsEscape(static_cast<unsigned char>(c))) return 1;
  return EscapeLetter(c) != 0 ? 2 : 6;
}

static char* WriteChar(char c, char* at) {
  const char letter = EscapeLetter(c);
  if (!NeedsEscape(static_cast<unsigned char>(c))) {
    *at++ = c;
  } else if (letter != 0) {
    *at++ = '\\';
    *at++ = letter;
  } else {
    std::string_view("\\u00").copy(at, 4);
    at[4] = c < 0x10 ? '0' : '1';
    at[5] = "0123456789abcdef"[c & 15];
    at += 6;
  }
  return at;
}

static size_t StringSize(std::string_view bytes) {
  size_t size = 2;
  while (!bytes.empty()) {
    const std::string_view block = bytes.substr(0, BLOCK);
    if (block.size() == BLOCK && IsPlainBlock(block.data())) {
      size += BLOCK;
    } else {
      for (const char c : block) size += CharSize(c);
    }
    bytes.remove_prefix(block.size());
  }
  return size;
}

static char* WriteString(std::string_view bytes, char* at) {
  *at++ = '"';
  while (!bytes.empty()) {
    const std::string_view block = bytes.substr(0, BLOCK);
    if (block.size() == BLOCK && IsPlainBlock(block.data())) {
      memcpy(at, block.data(), BLOCK);
      at += BLOCK;
    } else {
      for (const char c : block) at = WriteChar(c, at);
    }
    bytes.remove_prefix(block.size());
  }
  *at++ = '"';
  return at;
}

// What stands as it is; empty for the other types.
static std::string_view Literal(const VakroJson& node) {
  switch (TypeOf(node)) {
    case VAKRO_JSON_NUMBER:
      return BytesOf(node);
    case VAKRO_JSON_FALSE:
      return "false";
    case VAKRO_JSON_TRUE:
      return "true";
    case VAKRO_JSON_NULL:
      return "null";
    default:
      return {};
  }
}

static size_t NodeSize(const VakroJson& node) {
  if (TypeOf(node) == VAKRO_JSON_STRING) return StringSize(BytesOf(node));
  if (!HasItems(node)) return Literal(node).size();
  size_t size = node.length > 0 ? 1 + size_t{node.length} : 2;  // brackets and what stands between
  for (unsigned i = 0; i < node.length; i++) size += NodeSize(ItemsOf(node)[i]);
  return size;
}

static char* WriteNode(const VakroJson& node, char* at) {
  if (TypeOf(node) == VAKRO_JSON_STRING) return WriteString(BytesOf(node), at);
  if (!HasItems(node)) {
    const std::string_view literal = Literal(node);
    memcpy(at, literal.data(), literal.size());
    return at + literal.size();
  }
  const bool object = TypeOf(node) == VAKRO_JSON_OBJECT;
  *at++ = object ? '{' : '[';
  for (unsigned i = 0; i < node.length; i++) {
    if (i > 0) *at++ = object && i % 2 == 1 ? ':' : ',';
    at = WriteNode(ItemsOf(node)[i], at);
  }
  *at++ = object ? '}' : ']';
  return at;
}

int vakro_json_encode(const VakroJson* value, unsigned int flags, char** text,
                      unsigned int* length) {
  if (value == nullptr || flags != VAKRO_JSON_COMPACT) return 0;
  if (text == nullptr || length == nullptr) return 0;
  const size_t size = NodeSize(*value);
  if (size > UINT_MAX) return 0;
  auto result = NewArray<char>(size + 1);
  if (!result) return 0;
  *WriteNode(*value, result.get()) = '\0';
  *length = static_cast<unsigned>(size);
  *text = result.release();
  return 1;
}
