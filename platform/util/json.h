// The tree behind a JSON value, shared by parser, writer and operations.
//
// The items of an array stand by value, one after the other. Strings and numbers point into
// immutable bytes that copies share: a copy of a tree copies its nodes only.
#ifndef VAKRO_PLATFORM_JSON_H
#define VAKRO_PLATFORM_JSON_H

#include "platform/memory.h"

#include <atomic>
#include <string_view>

// Deepest level at which an array or object may stand; the root stands at 1. Every recursion over
// a tree is bounded by it.
inline constexpr unsigned MAX_LEVEL = 64;

// Shared bytes; they follow the struct. Copies may belong to different threads.
struct Text {
  std::atomic<size_t> users;
};

struct VakroJson {
  VakroJsonType type;
  unsigned level;     // of an array or object in its tree; means nothing for the others
  unsigned length;    // bytes of a string or number; items of an array or object
  unsigned capacity;  // places at `items`
  union {
    const char* bytes;  // string; or number, as its digits
    VakroJson* items;   // vakro_free; an object's items are name, value, name, value, …
  };
  Text* text;  // holds `bytes`; one use is this node's
};

inline bool HasItems(const VakroJson& node) {
  return node.type == VAKRO_JSON_ARRAY || node.type == VAKRO_JSON_OBJECT;
}

inline VakroJson MakeNode(VakroJsonType type, unsigned level = 1) {
  return VakroJson{type, level, 0, 0, {nullptr}, nullptr};
}

// ClearNode releases what the node owns, not the node.
void ClearNode(VakroJson* node);
using Cleared = std::unique_ptr<VakroJson, Release<ClearNode>>;  // owner of what a node owns

// NewText returns room for `size` bytes with one use, or NULL; ReleaseText gives a use back.
Text* NewText(size_t size);
void ReleaseText(Text* text);
using TextUse = std::unique_ptr<Text, Release<ReleaseText>>;
inline char* BytesOf(Text* text) { return reinterpret_cast<char*>(text + 1); }

// MakeText makes a string or number that shares `text`.
VakroJson MakeText(VakroJsonType type, Text* text, std::string_view bytes);

// AppendNode moves `node` behind the last item, NewValue to a value of its own. When memory is out
// they clear it, leave the array as it was, and return false or NULL.
bool AppendNode(VakroJson* array, VakroJson node);
VakroJson* NewValue(VakroJson node);

// NewTextValue returns a string or number with a copy of `bytes`, or NULL.
VakroJson* NewTextValue(VakroJsonType type, std::string_view bytes);

#endif
