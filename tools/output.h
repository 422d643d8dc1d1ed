// The file that a command writes its result to, or standard output.
#ifndef VAKRO_TOOLS_OUTPUT_H
#define VAKRO_TOOLS_OUTPUT_H

#include "tools/files.h"

// TEXT may go to a terminal and BINARY may not; a SECRET is readable by the owner alone, and goes
// to a terminal only if it is text.
enum class Output { TEXT, BINARY, SECRET };

// OutputFile is declared before any work and any PIN: it fails when its path can't be written, has
// something already (unless --force), is one of the command's input files, or lies in a key folder.
// Write then replaces the whole file in one step: until it succeeds, what was there stays.
struct OutputFile {
  OutputFile(const OutputOptions& options, Output what, const Target& target,
             const std::vector<std::string>& inputs);
  void Write(ByteSpan bytes) const;
  void Write(const std::string& text) const;
  bool isStandard() const { return path == "-"; }

  std::string path;   // as it was given
  std::string place;  // without links
  Output kind;
  bool force;
};

// ProtectInput remembers a file that the running command reads: no output replaces it.
void ProtectInput(const std::string& path);

#endif
