// The tree behind a JSON value, shared by parser, writer and operations.
//
// A node takes 16 bytes, and the items of an array stand by value, one after the other: a text of a
// million small values must not cost the memory of a machine. Strings and numbers point into
// immutable bytes that copies share: a copy of a tree copies its nodes only.
#ifndef VAKRO_PLATFORM_JSON_H
#define VAKRO_PLATFORM_JSON_H

#include "platform/memory.h"

#include <stdint.h>

#include <atomic>
#include <span>
#include <string_view>

// Deepest level at which an array or object may stand; the root stands at 1. Every recursion over
// a tree is bounded by it.
inline constexpr unsigned MAX_LEVEL = 64;

// Shared bytes; they follow the struct. Copies may belong to different threads.
struct Text {
  std::atomic<size_t> users;
};

// Where the items of an array or object stand.
enum class Place : uint16_t {
  TREE,   // in the one block of a decoded tree, which goes with its root
  EXACT,  // in a block of their own without room for more
  ROOMY,  // in a block of their own with room up to the next power of two
};

struct Nesting {
  uint16_t level;  // in its tree
  Place place;
};

struct VakroJson {
  uintptr_t tagged;  // the VakroJsonType in the lowest three bits, and the address of
                     //   Text, of a string or number; one use is this node's
                     //   VakroJson, of an array or object: the items of an object are
                     //   name, value, name, value, …
  unsigned length;   // bytes of a string or number; items of an array or object
  union {
    unsigned offset;  // of a string's or number's bytes in its text
    Nesting nesting;  // of an array or object
  };
};
static_assert(sizeof(VakroJson) == 16);

inline VakroJsonType TypeOf(const VakroJson& node) {
  return static_cast<VakroJsonType>(node.tagged & 7);
}

inline bool HasItems(const VakroJson& node) {
  return TypeOf(node) == VAKRO_JSON_ARRAY || TypeOf(node) == VAKRO_JSON_OBJECT;
}

inline bool HasBytes(const VakroJson& node) {
  return TypeOf(node) == VAKRO_JSON_STRING || TypeOf(node) == VAKRO_JSON_NUMBER;
}

// Items of an array or object; NULL when there are none.
inline VakroJson* ItemsOf(const VakroJson& node) {
  return reinterpret_cast<VakroJson*>(node.tagged & ~uintptr_t{7});
}

inline void SetItems(VakroJson* node, VakroJson* items, Place place) {
  node->tagged = reinterpret_cast<uintptr_t>(items) | TypeOf(*node);
  node->nesting.place = place;
}

// Text of a string or number.
inline Text* TextOf(const VakroJson& node) {
  return reinterpret_cast<Text*>(node.tagged & ~uintptr_t{7});
}

inline char* BytesOf(Text* text) { return reinterpret_cast<char*>(text + 1); }

// Bytes of a string, or digits of a number.
inline std::string_view BytesOf(const VakroJson& node) {
  return {BytesOf(TextOf(node)) + node.offset, node.length};
}

inline VakroJson MakeNode(VakroJsonType type, unsigned level = 1) {
  VakroJson node = {type, 0, {}};
  node.nesting = {static_cast<uint16_t>(level), Place::EXACT};
  return node;
}

// ClearNode releases what the node owns, not the node.
void ClearNode(VakroJson* node);
using Cleared = std::unique_ptr<VakroJson, Release<ClearNode>>;  // owner of what a node owns

// NewText returns room for `size` bytes with one use, or NULL; ReleaseText gives a use back.
Text* NewText(size_t size);
void ReleaseText(Text* text);
using TextUse = std::unique_ptr<Text, Release<ReleaseText>>;

// MakeText makes a string or number that shares `text`, where `bytes` stand.
VakroJson MakeText(VakroJsonType type, Text* text, std::string_view bytes);

// NewTextValue returns a string or number with a copy of `bytes`, or NULL.
VakroJson* NewTextValue(VakroJsonType type, std::string_view bytes);

#endif
