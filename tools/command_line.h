// How the commands declare themselves and their options. CLI11, which parses the line, takes a
// compiler longer than all else here: only who sets up or explains the whole line reads it.
#ifndef VAKRO_TOOLS_COMMAND_LINE_H
#define VAKRO_TOOLS_COMMAND_LINE_H

#include <functional>
#include <string>
#include <variant>
#include <vector>

namespace CLI {
class App;
}

// AddCommand adds a command to the program or to a family; `run` is called when the line names it.
CLI::App& AddCommand(CLI::App& parent, const char* name, const char* help,
                     std::function<void()> run);
// AddFamily adds a command that takes another one, such as "cert".
CLI::App& AddFamily(CLI::App& parent, const char* name, const char* help);

// Where the value of an option goes: true for a flag, all words for a list.
using Place = std::variant<std::string*, std::vector<std::string>*, int*, unsigned int*, bool*>;

// Says what is wrong with a value, or nothing.
using ValueCheck = std::string (*)(const std::string& value);

struct Parameter {
  const char* name;  // "--days" or "-o,--output"; without dashes it is known by its place
  Place into;
  std::string help;
  const char* value = "";  // how the help calls the value, as FILE
  bool isRequired = false;
  bool showsDefault = false;            // in the help
  std::vector<std::string> oneOf = {};  // the values that it takes, in upper case too
  struct {
    long least = 0;
    long most = -1;
  } range = {};  // of a number
  ValueCheck check = nullptr;
  const char* group = nullptr;             // the heading in the help
  std::vector<std::string> excludes = {};  // names of parameters added before
};
void Add(CLI::App& command, const Parameter& parameter);

// AddArgument adds a word that the command needs, known by its place.
void AddArgument(CLI::App& command, const char* name, Place into, const std::string& help);

// AddNote adds lines to the end of a command's help.
void AddNote(CLI::App& command, const std::string& text);

#endif
