// The JSON parser: RapidJSON's reader, in situ. It runs over one copy of the text, unescapes the
// strings where they stand, and the nodes point there. In this mode the reader allocates nothing
// and recurses as deep as the values nest, which the builder bounds. With the copy, a text of many
// small values, such as [0,0,…], costs 9 times its length; none costs 12 times.
#include "platform/util/json.h"

#include <errno.h>
#include <limits.h>
#include <string.h>

#ifdef __SSE2__
#define RAPIDJSON_SSE2
#endif
#include <rapidjson/reader.h>

static constexpr unsigned FLAGS = rapidjson::kParseInsituFlag;

// The reader's vector code looks at up to 15 bytes behind the NUL that ends the text.
static constexpr size_t PADDING = 16;

namespace {
// Takes the reader's events and makes the tree in one block of `count` nodes, which is the most
// that the text can hold. Finished values wait at its beginning until their array or object ends;
// then they move to its end, in front of the items that came before. The root is left at the
// beginning. A result of false ends the parse.
struct Builder {
  Text* text;  // borrowed
  Owned<VakroJson[]> nodes;
  size_t waiting = 0;  // values at the beginning
  size_t items;        // where the items at the end begin
  unsigned level = 1;  // of the value that comes next

  Builder(Text* parsed, size_t count)
      : text(parsed), nodes(NewArray<VakroJson>(count)), items(count) {}
  Builder(const Builder&) = delete;
  Builder& operator=(const Builder&) = delete;
  ~Builder() {
    while (waiting > 0) ClearNode(&nodes[--waiting]);
  }

  bool Push(const VakroJson& node) {
    if (waiting == items) return false;
    nodes[waiting++] = node;
    return true;
  }
  bool Open() { return level++ <= MAX_LEVEL; }

  // Moves the last `count` values to a new array or object.
  bool Close(VakroJsonType type, unsigned count) {
    VakroJson node = MakeNode(type, --level);
    if (count > INT_MAX) return false;  // the size of an array is an int
    if (count > 0) {
      waiting -= count;
      items -= count;
      memmove(&nodes[items], &nodes[waiting], count * sizeof(VakroJson));
      SetItems(&node, &nodes[items], Place::TREE);
      node.length = count;
    }
    return Push(node);
  }

  bool Null() { return Push(MakeNode(VAKRO_JSON_NULL)); }
  bool Bool(bool b) { return Push(MakeNode(b ? VAKRO_JSON_TRUE : VAKRO_JSON_FALSE)); }
  bool Number(std::string_view digits) { return Push(MakeText(VAKRO_JSON_NUMBER, text, digits)); }
  bool String(const char* bytes, unsigned length, bool) {
    return Push(MakeText(VAKRO_JSON_STRING, text, {bytes, length}));
  }
  bool Key(const char* bytes, unsigned length, bool copy) { return String(bytes, length, copy); }
  bool StartArray() { return Open(); }
  bool EndArray(unsigned count) { return Close(VAKRO_JSON_ARRAY, count); }
  bool StartObject() { return Open(); }
  bool EndObject(unsigned count) { return Close(VAKRO_JSON_OBJECT, 2 * count); }
};
}  // namespace

static bool IsDigit(char c) { return c >= '0' && c <= '9'; }

// Returns the end of the digits at `at`, or NULL when there are none.
static char* SkipDigits(char* at) {
  if (at == nullptr || !IsDigit(*at)) return nullptr;
  while (IsDigit(*at)) at++;
  return at;
}

// Returns the end of the number (RFC 8259, section 6) at `at`, or NULL when there is none.
static char* SkipNumber(char* at) {
  if (*at == '-') at++;
  at = *at == '0' ? at + 1 : SkipDigits(at);
  if (at != nullptr && *at == '.') at = SkipDigits(at + 1);
  if (at == nullptr || (*at != 'e' && *at != 'E')) return at;
  at++;
  if (*at == '+' || *at == '-') at++;
  return SkipDigits(at);
}

// The reader's own number parser converts on the way, with its flag for numbers as strings, too: it
// refuses what exceeds a double, such as 1e999, and a fraction of 2^28 zeros overflows its
// exponent. Digits are all that is wanted here.
template <>
template <>
void rapidjson::Reader::ParseNumber<FLAGS, rapidjson::InsituStringStream, Builder>(
    rapidjson::InsituStringStream& is, Builder& handler) {
  char* const start = is.src_;
  char* const end = SkipNumber(start);
  if (end == nullptr || !handler.Number({start, static_cast<size_t>(end - start)})) {
    SetParseError(rapidjson::kParseErrorValueInvalid, is.Tell());
    return;
  }
  is.src_ = end;
}

// Copies the text and says whether it is free of the control characters that may stand nowhere in
// JSON: the NUL would end the parse early, and some slip through the reader's vector code.
static bool CopyText(const char* text, size_t length, char* copy) {
  unsigned char found = 0;
  for (size_t i = 0; i < length; i++) {
    const auto c = static_cast<unsigned char>(text[i]);
    const bool bad = (c < 0x20) & (c != '\t') & (c != '\n') & (c != '\r');
    found = static_cast<unsigned char>(found | bad);
    copy[i] = text[i];
  }
  return found == 0;
}

// Returns the place of the quote that ends the string that begins at `start`, or the text's end.
static size_t EndOfString(std::string_view text, size_t start) {
  for (size_t at = text.find('"', start + 1); at < text.size(); at = text.find('"', at + 1)) {
    size_t before = at;
    while (text[before - 1] == '\\') before--;
    if ((at - before) % 2 == 0) return at;
  }
  return text.size();
}

// Returns a number of values that the text does not exceed: each but the first follows one of these
// characters, or the array or object is empty.
static size_t CountValues(std::string_view text) {
  size_t count = 1;
  for (size_t at = 0; at < text.size(); at++) {
    switch (text[at]) {
      case '"':
        at = EndOfString(text, at);
        break;
      case '[':
      case '{':
      case ',':
      case ':':
        count++;
        break;
      default:
        break;
    }
  }
  return count;
}

static VakroJson* Fail(int why) {
  errno = why;
  return nullptr;
}

VakroJson* vakro_json_decode(const char* text, unsigned int length) {
  if (text == nullptr) return Fail(EINVAL);
  const TextUse copy(NewText(size_t{length} + PADDING));
  if (!copy) return Fail(ENOMEM);
  if (!CopyText(text, length, BytesOf(copy.get()))) return Fail(EINVAL);
  memset(BytesOf(copy.get()) + length, 0, PADDING);

  Builder builder(copy.get(), CountValues({text, length}));
  if (!builder.nodes) return Fail(ENOMEM);
  rapidjson::InsituStringStream stream(BytesOf(copy.get()));
  rapidjson::Reader reader;
  if (reader.Parse<FLAGS>(stream, builder).IsError()) return Fail(EINVAL);
  builder.waiting = 0;
  return builder.nodes.release();
}
