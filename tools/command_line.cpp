// The declarations of the commands, in CLI11's terms.
#include "tools/command_line.h"

#include <CLI/CLI.hpp>

#include <utility>

CLI::App& AddFamily(CLI::App& parent, const char* name, const char* help) {
  CLI::App* family = parent.add_subcommand(name, help);
  family->require_subcommand(1);
  return *family;
}

CLI::App& AddCommand(CLI::App& parent, const char* name, const char* help,
                     std::function<void()> run) {
  CLI::App* command = parent.add_subcommand(name, help);
  command->callback(std::move(run));
  return *command;
}

static CLI::Option* Declare(CLI::App& command, const Parameter& parameter) {
  return std::visit(
      [&](auto* into) {
        if constexpr (std::is_same_v<decltype(into), bool*>) {
          return command.add_flag(parameter.name, *into, parameter.help);
        } else {
          return command.add_option(parameter.name, *into, parameter.help);
        }
      },
      parameter.into);
}

void Add(CLI::App& command, const Parameter& parameter) {
  CLI::Option* option = Declare(command, parameter);
  option->required(parameter.isRequired);
  if (*parameter.value != '\0') option->type_name(parameter.value);
  if (parameter.showsDefault) option->capture_default_str();
  if (!parameter.oneOf.empty()) {
    option->transform(CLI::IsMember(parameter.oneOf, CLI::ignore_case).description(""));
  }
  if (parameter.range.least <= parameter.range.most) {
    option->check(CLI::Range(parameter.range.least, parameter.range.most).description(""));
  }
  if (parameter.check != nullptr) option->check(parameter.check);
  if (parameter.group != nullptr) option->group(parameter.group);
  for (const std::string& other : parameter.excludes) option->excludes(command.get_option(other));
}

void AddArgument(CLI::App& command, const char* name, Place into, const std::string& help) {
  Add(command, {.name = name, .into = into, .help = help, .isRequired = true});
}

void AddNote(CLI::App& command, const std::string& text) {
  const std::string before = command.get_footer();
  command.footer(before + (before.empty() ? "" : "\n") + text);
}
