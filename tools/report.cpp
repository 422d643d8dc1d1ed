// Standard output and standard error.
#include "tools/report.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>
#include <algorithm>

// --- JSON ----------------------------------------------------------------------------------------

static std::string Quoted(std::string_view text) {
  std::string quoted = "\"";
  while (!text.empty()) {
    const std::string_view before = text;
    const int decoded = DecodeUtf8(&text);
    const auto character = static_cast<unsigned int>(decoded < 0 ? 0xfffd : decoded);
    const std::string_view bytes = before.substr(0, before.size() - text.size());
    char escaped[16];
    if (decoded >= 0 && Printable(bytes) == bytes) {
      if (character == '"' || character == '\\') quoted += '\\';
      quoted += bytes;
    } else if (character >= 0x10000) {
      snprintf(escaped, sizeof escaped, "\\u%04x\\u%04x", 0xd7c0 + (character >> 10),
               0xdc00 + (character & 0x3ff));
      quoted += escaped;
    } else {
      snprintf(escaped, sizeof escaped, "\\u%04x", character);
      quoted += escaped;
    }
  }
  return quoted + "\"";
}

static void Append(std::string& json, const Fact& fact, const std::string& indent);

static void AppendItems(std::string& json, const char* brackets, size_t count,
                        const std::string& indent, const auto& appendItem) {
  json += brackets[0];
  for (size_t i = 0; i < count; i++) {
    json += (i == 0 ? "\n" : ",\n") + indent + "  ";
    appendItem(i);
  }
  if (count > 0) json += "\n" + indent;
  json += brackets[1];
}

static void Append(std::string& json, const Fact& fact, const std::string& indent) {
  if (const auto* yes = std::get_if<bool>(&fact.value)) {
    json += *yes ? "true" : "false";
  } else if (const auto* number = std::get_if<long long>(&fact.value)) {
    json += std::to_string(*number);
  } else if (const auto* text = std::get_if<std::string>(&fact.value)) {
    json += Quoted(*text);
  } else if (const auto* list = std::get_if<Facts>(&fact.value)) {
    AppendItems(json, "[]", list->size(), indent,
                [&](size_t i) { Append(json, (*list)[i], indent + "  "); });
  } else if (const auto* fields = std::get_if<Fields>(&fact.value)) {
    AppendItems(json, "{}", fields->size(), indent, [&](size_t i) {
      json += Quoted((*fields)[i].first) + ": ";
      Append(json, (*fields)[i].second, indent + "  ");
    });
  } else {
    json += "null";
  }
}

std::string JsonText(const Fact& fact) {
  std::string json;
  Append(json, fact, "");
  return json;
}

// --- Text ----------------------------------------------------------------------------------------

std::string Table::Text(const std::string& indent) const {
  std::vector<size_t> widths;
  for (const auto& row : rows) {
    widths.resize(std::max(widths.size(), row.size()));
    for (size_t i = 0; i < row.size(); i++) {
      widths[i] = std::max(widths[i], Columns(Printable(row[i])));
    }
  }
  std::vector<std::string> lines;
  for (const auto& row : rows) {
    std::string line = indent;
    for (size_t i = 0; i < row.size(); i++) {
      const std::string cell = Printable(row[i]);
      line += cell;
      if (i + 1 < row.size()) line += std::string(widths[i] - Columns(cell) + 2, ' ');
    }
    lines.push_back(line.substr(0, line.find_last_not_of(' ') + 1));
  }
  return Join(lines, "\n");
}

bool IsSteerable(int stream) {
  const char* term = getenv("TERM");
  return isatty(stream) != 0 && term != nullptr && *term != '\0' && strcmp(term, "dumb") != 0;
}

static bool IsColoured() {
  static const bool coloured = [] {
    const char* no = getenv("NO_COLOR");
    return IsSteerable(STDOUT_FILENO) && (no == nullptr || *no == '\0');
  }();
  return coloured;
}

std::string Bold(const std::string& text) {
  return IsColoured() ? "\x1b[1m" + text + "\x1b[0m" : text;
}

std::string Alarming(const std::string& text) {
  return IsColoured() ? "\x1b[31m" + text + "\x1b[0m" : text;
}

void Show(const std::string& text, const Fact& fact) {
  const std::string shown = g_manner.json ? JsonText(fact) : text;
  if (!shown.empty()) printf("%s\n", shown.c_str());
}

void Confirm(const std::string& text, const Fact& fact) {
  if (!g_manner.quiet || g_manner.json) Show(Printable(text), fact);
}

void Warn(const std::string& text) {
  fflush(stdout);  // in the order in which things were said
  fprintf(stderr, "softdevice: %s\n", Printable(text).c_str());
}

void Remark(const std::string& text) {
  if (!g_manner.quiet) Warn(text);
}

// --- Changes -------------------------------------------------------------------------------------

static std::string& LastChange() {
  static std::string change;
  return change;
}

void NoteChange(const std::string& change) { LastChange() = change; }
const std::string& ChangeMade() { return LastChange(); }
