// The command line as a whole: its help, its slips, and a description of it for other programs.
#ifndef VAKRO_TOOLS_USAGE_H
#define VAKRO_TOOLS_USAGE_H

#include "tools/tool.h"

// SetUpHelp gives the program its form of help.
void SetUpHelp(CLI::App& app);

// FindHelp answers "help COMMAND" and a --help anywhere on the line: the command whose help is
// wanted, or NULL when none is.
const CLI::App* FindHelp(CLI::App& app, const std::vector<std::string>& words);

// RefuseSecretWords fails when a PIN or a passphrase stands on the command line, without repeating
// it.
void RefuseSecretWords(int argc, char** argv);
Failure SecretTold();  // the words for it

// Where the words of a line lead: to the innermost command that they name, and no further because
// of a word that stands where a command should and is none; "" without one.
struct Reach {
  const CLI::App* command;
  std::string stray;
};

// Follow goes along the words, past options and their values.
Reach Follow(const CLI::App& app, const std::vector<std::string>& words);

// UsageProblem says what was wrong with the line, and what may have been meant.
std::string UsageProblem(const CLI::App* app, const std::string& what);

#endif
