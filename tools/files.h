// Input and output files of the commands; "-" is standard input or standard output.
#ifndef VAKRO_TOOLS_FILES_H
#define VAKRO_TOOLS_FILES_H

#include "tools/secret.h"
#include "tools/tool.h"

#include <functional>
#include <span>

using ByteSpan = std::span<const unsigned char>;

// EachBlock hands the whole content of the file to `take`, block by block. Standard input can be
// read once: a second reader would find nothing, and sign that.
void EachBlock(const std::string& path, const std::function<void(ByteSpan)>& take);

// These read a whole file of at most 2 GiB less 1 KiB, so that its length fits the module.
Bytes ReadInput(const std::string& path);
Secret ReadSecretInput(const std::string& path);

// TEXT may go to a terminal, BINARY may not; SECRET is readable by the owner alone.
enum class Output { TEXT, BINARY, SECRET };

// WriteOutput writes a whole file; a regular file that could not be completed is removed.
void WriteOutput(const std::string& path, ByteSpan bytes, Output kind);

void WriteText(const std::string& path, const std::string& text);

// CheckFiles fails, before any work and any PIN, when the input can't be read, or the output would
// be refused or replace the input.
void CheckFiles(const std::string& input, const std::string& output, Output kind);

bool HasTerminal();  // of this process, whatever its standard streams are

// Printable replaces control characters, so that a name from a file can't steer the terminal.
std::string Printable(std::string text);

std::string SystemError();  // errno in words

#endif
