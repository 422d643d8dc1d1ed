// Text that people read: names from files made harmless, columns that align, words that are near.
#ifndef VAKRO_TOOLS_TEXT_H
#define VAKRO_TOOLS_TEXT_H

#include <string>
#include <string_view>
#include <vector>

// Printable writes out what could steer or deceive a terminal: control characters (C0, DEL, C1),
// marks of direction, invisible characters and bytes that are no UTF-8 become \xNN or \u{NNNN}.
std::string Printable(std::string_view text);

// IsPrintableText says whether a terminal may show the text as it is: line ends and tabs are fine.
bool IsPrintableText(std::string_view text);

// Columns counts the columns that printable UTF-8 takes on a terminal.
size_t Columns(std::string_view text);

// DecodeUtf8 takes the first character off `text`; -1, and one byte off, where it is no UTF-8.
int DecodeUtf8(std::string_view* text);

std::string Lower(std::string text);  // ASCII letters only
std::string Join(const std::vector<std::string>& parts, const std::string& between = ", ");
std::string Count(size_t count, const std::string& what);  // "1 file", "2 files"
std::vector<std::string> Split(const std::string& text, char at);

// HexText writes bytes as lower-case hex.
std::string HexText(const unsigned char* bytes, size_t count);

// Nearest returns the word that `word` may be a slip of, or "" where none is near.
std::string Nearest(const std::string& word, const std::vector<std::string>& words);

#endif
