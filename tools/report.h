// What a command says, and where: results on standard output, remarks on standard error. With
// --json a result is one JSON value; with --quiet remarks and confirmations are left out. All of it
// is made printable here, at the edge, whatever file it came from.
#ifndef VAKRO_TOOLS_REPORT_H
#define VAKRO_TOOLS_REPORT_H

#include "tools/text.h"

#include <utility>
#include <variant>

// What the options that every command has ask for.
struct Manner {
  bool quiet = false;
  bool json = false;
  bool unsafe = false;  // go on where others may write
};
inline Manner g_manner;

// A fact for --json. Text is written as it was read, escaped as JSON asks for; bytes that are no
// UTF-8 become U+FFFD.
struct Fact;
using Facts = std::vector<Fact>;
using Fields = std::vector<std::pair<std::string, Fact>>;

struct Fact {
  std::variant<std::nullptr_t, bool, long long, std::string, Facts, Fields> value;
  Fact(std::nullptr_t) : value(nullptr) {}
  Fact(bool yes) : value(yes) {}
  Fact(int number) : value(static_cast<long long>(number)) {}
  Fact(unsigned int number) : value(static_cast<long long>(number)) {}
  Fact(size_t number) : value(static_cast<long long>(number)) {}
  Fact(const char* text) : value(std::string(text)) {}
  Fact(std::string text) : value(std::move(text)) {}
  Fact(Facts list) : value(std::move(list)) {}
  Fact(Fields fields) : value(std::move(fields)) {}
};

std::string JsonText(const Fact& fact);  // indented, without a line end

// Rows whose columns align. The last column is not padded; cells are made printable.
struct Table {
  std::vector<std::vector<std::string>> rows;
  std::string Text(const std::string& indent) const;
};

// Show prints what was asked for; Confirm says what was done and is left out with --quiet. Both
// write `fact` instead with --json. Lines of `text` end in a newline but for the last.
void Show(const std::string& text, const Fact& fact);
void Confirm(const std::string& text, const Fact& fact);

void Remark(const std::string& text);  // to standard error; left out with --quiet
void Warn(const std::string& text);    // to standard error, also with --quiet

// IsSteerable tells a terminal that takes escape sequences.
bool IsSteerable(int stream);

// Emphasis on such a terminal, unless NO_COLOR is set. The text must be printable already.
std::string Bold(const std::string& text);
std::string Alarming(const std::string& text);

// NoteChange keeps in mind that a change is on the disk, so that a failure that comes after it does
// not read as if nothing had happened.
void NoteChange(const std::string& change);
const std::string& ChangeMade();  // "" while there is none

#endif
