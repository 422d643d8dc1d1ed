// Escaping, measuring and comparing of text.
#include "tools/text.h"

#include <stdio.h>
#include <algorithm>

namespace {
struct Range {
  int first;
  int last;
};
}  // namespace

template <size_t N>
static bool IsIn(const Range (&ranges)[N], int character) {
  return std::any_of(std::begin(ranges), std::end(ranges), [character](const Range& r) {
    return character >= r.first && character <= r.last;
  });
}

// What is not shown as it is: controls, marks of direction, what has no width or can't be told from
// a space, private use, and what is no character at all.
static constexpr Range UNSAFE[] = {
    {0x00, 0x1f},     {0x7f, 0x9f},       {0xad, 0xad},     {0x61c, 0x61c},   {0x115f, 0x1160},
    {0x180b, 0x180f}, {0x200b, 0x200f},   {0x2028, 0x202e}, {0x2060, 0x206f}, {0x3164, 0x3164},
    {0xe000, 0xf8ff}, {0xfe00, 0xfe0f},   {0xfeff, 0xfeff}, {0xffa0, 0xffa0}, {0xfff0, 0xfffb},
    {0xfffe, 0xffff}, {0xe0000, 0x10ffff}};

static constexpr Range NARROW[] = {{0x300, 0x36f}, {0x483, 0x489},   {0x591, 0x5bd},
                                   {0x64b, 0x65f}, {0x20d0, 0x20ff}, {0xfe20, 0xfe2f}};

static constexpr Range WIDE[] = {
    {0x1100, 0x115f}, {0x2e80, 0xa4cf}, {0xac00, 0xd7a3},   {0xf900, 0xfaff},   {0xfe30, 0xfe6f},
    {0xff00, 0xff60}, {0xffe0, 0xffe6}, {0x1f300, 0x1f64f}, {0x1f900, 0x1f9ff}, {0x20000, 0x3fffd}};

namespace {
// How many bytes follow a first byte, what it contributes, and the smallest number it may begin.
struct Lead {
  int following;
  int bits;
  int least;
};
}  // namespace

static Lead LeadOf(unsigned char first) {
  if (first < 0x80) return {0, first, 0};
  if (first >= 0xc2 && first <= 0xdf) return {1, first & 0x1f, 0x80};
  if (first >= 0xe0 && first <= 0xef) return {2, first & 0x0f, 0x800};
  if (first >= 0xf0 && first <= 0xf4) return {3, first & 0x07, 0x10000};
  return {-1, 0, 0};
}

int DecodeUtf8(std::string_view* text) {
  const Lead lead = LeadOf(static_cast<unsigned char>(text->front()));
  const auto following = static_cast<size_t>(std::max(lead.following, 0));
  int character = lead.bits;
  bool good = lead.following >= 0 && text->size() > following;
  for (size_t i = 1; good && i <= following; i++) {
    const auto byte = static_cast<unsigned char>((*text)[i]);
    good = (byte & 0xc0) == 0x80;
    character = character << 6 | (byte & 0x3f);
  }
  const bool surrogate = character >= 0xd800 && character <= 0xdfff;
  good = good && character >= lead.least && character <= 0x10ffff && !surrogate;
  text->remove_prefix(good ? following + 1 : 1);
  return good ? character : -1;
}

std::string Printable(std::string_view text) {
  std::string shown;
  while (!text.empty()) {
    const std::string_view before = text;
    const int character = DecodeUtf8(&text);
    char escaped[16];
    if (character < 0 || character < 0x80) {
      if (character >= 0x20 && character != 0x7f) {
        shown += before[0];
        continue;
      }
      snprintf(escaped, sizeof escaped, "\\x%02x", static_cast<unsigned char>(before[0]));
      shown += escaped;
    } else if (IsIn(UNSAFE, character)) {
      snprintf(escaped, sizeof escaped, "\\u{%x}", static_cast<unsigned int>(character));
      shown += escaped;
    } else {
      shown += before.substr(0, before.size() - text.size());
    }
  }
  return shown;
}

bool IsPrintableText(std::string_view text) {
  while (!text.empty()) {
    const int character = DecodeUtf8(&text);
    if (character == '\n' || character == '\t' || character == '\r') continue;
    if (character < 0 || IsIn(UNSAFE, character)) return false;
  }
  return true;
}

size_t Columns(std::string_view text) {
  size_t columns = 0;
  while (!text.empty()) {
    const int character = DecodeUtf8(&text);
    columns += IsIn(NARROW, character) ? 0 : IsIn(WIDE, character) ? 2 : 1;
  }
  return columns;
}

std::string Lower(std::string text) {
  for (char& c : text) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return text;
}

std::string Join(const std::vector<std::string>& parts, const std::string& between) {
  std::string joined;
  for (const std::string& part : parts) joined += (joined.empty() ? "" : between) + part;
  return joined;
}

std::string Count(size_t count, const std::string& what) {
  return std::to_string(count) + " " + what + (count == 1 ? "" : "s");
}

std::vector<std::string> Split(const std::string& text, char at) {
  std::vector<std::string> parts(1);
  for (char c : text) {
    if (c == at) {
      parts.emplace_back();
    } else {
      parts.back() += c;
    }
  }
  return parts;
}

std::string HexText(const unsigned char* bytes, size_t count) {
  static constexpr char DIGITS[] = "0123456789abcdef";
  std::string text;
  for (size_t i = 0; i < count; i++) {
    text += DIGITS[bytes[i] >> 4];
    text += DIGITS[bytes[i] & 15];
  }
  return text;
}

// Levenshtein's distance, with neighbours that changed places as one slip.
static size_t Distance(const std::string& a, const std::string& b) {
  std::vector<std::vector<size_t>> d(a.size() + 1, std::vector<size_t>(b.size() + 1));
  for (size_t i = 0; i <= a.size(); i++) {
    for (size_t j = 0; j <= b.size(); j++) {
      if (i == 0 || j == 0) {
        d[i][j] = i + j;
        continue;
      }
      const size_t other = a[i - 1] == b[j - 1] ? 0 : 1;
      d[i][j] = std::min({d[i - 1][j] + 1, d[i][j - 1] + 1, d[i - 1][j - 1] + other});
      if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1]) {
        d[i][j] = std::min(d[i][j], d[i - 2][j - 2] + 1);
      }
    }
  }
  return d[a.size()][b.size()];
}

std::string Nearest(const std::string& word, const std::vector<std::string>& words) {
  static constexpr size_t LONGEST = 40;
  if (word.size() > LONGEST) return {};
  std::string nearest;
  size_t least = std::max<size_t>(1, word.size() / 3) + 1;
  for (const std::string& candidate : words) {
    const size_t distance = Distance(Lower(word), candidate);
    const bool isBeginning = word.size() >= 3 && candidate.starts_with(Lower(word));
    if (distance >= least && !(isBeginning && nearest.empty())) continue;
    nearest = candidate;
    least = std::min(least, distance);
  }
  return nearest;
}
