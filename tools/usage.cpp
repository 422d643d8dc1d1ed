// Help, slips, and the description of all commands.
#include "tools/usage.h"

#include "tools/report.h"

#include <openssl/crypto.h>
#include <CLI/CLI.hpp>

#include <ctype.h>
#include <string.h>

using Commands = std::vector<const CLI::App*>;

static Commands CommandsOf(const CLI::App& app) {
  return app.get_subcommands([](const CLI::App* command) { return command->get_name()[0] != '_'; });
}

static bool TakesValue(const CLI::Option* option) {
  return option->get_items_expected_max() > 0 && option->get_type_size_max() > 0;
}

// --- Help ----------------------------------------------------------------------------------------

namespace {
// Help without the library's remarks on which options exclude which, and with the options that
// stand anywhere.
struct HelpText : CLI::Formatter {
  std::string make_option_opts(const CLI::Option* option) const override {
    const bool hasValue = TakesValue(option) && !option->get_positional();
    return hasValue ? " " + option->get_type_name() : "";
  }
  std::string make_option_desc(const CLI::Option* option) const override {
    const std::string value = option->get_default_str();
    const bool isMarked = option->get_required() && !option->get_positional();
    return option->get_description() + (isMarked ? " (required)" : "") +
           (value.empty() ? "" : " [" + value + "]");
  }
  std::string make_usage(const CLI::App* app, std::string) const override {
    std::string name;
    for (const CLI::App* at = app; at != nullptr; at = at->get_parent()) {
      name.insert(0, at->get_name() + (name.empty() ? "" : " "));
    }
    return CLI::Formatter::make_usage(app, name);
  }
  std::string make_footer(const CLI::App* app) const override {
    std::string own = CLI::Formatter::make_footer(app);
    const CLI::App* root = app;
    while (root->get_parent() != nullptr) root = root->get_parent();
    if (root == app) return own;
    return make_group("Anywhere on the line", false, root->get_options([](const CLI::Option* o) {
             return o->get_group() == "Anywhere on the line";
           })) +
           "\n" + own;
  }
};
}  // namespace

void SetUpHelp(CLI::App& app) {
  const auto help = std::make_shared<HelpText>();
  help->column_width(26);
  app.formatter(help);
}

static const CLI::Option* OptionAt(const CLI::App* app, const std::string& word) {
  for (; app != nullptr; app = app->get_parent()) {
    const CLI::Option* option = app->get_option_no_throw(word);
    if (option != nullptr) return option;
  }
  return nullptr;
}

Reach Follow(const CLI::App& app, const std::vector<std::string>& words) {
  const CLI::App* command = &app;
  for (size_t i = 0; i < words.size(); i++) {
    if (words[i].starts_with('-')) {
      const CLI::Option* option = OptionAt(command, words[i]);
      if (option != nullptr && TakesValue(option)) i++;
      continue;
    }
    const CLI::App* next = nullptr;
    for (const CLI::App* child : CommandsOf(*command)) {
      if (child->get_name() == words[i]) next = child;
    }
    if (next == nullptr) return {command, CommandsOf(*command).empty() ? "" : words[i]};
    command = next;
  }
  return {command, ""};
}

const CLI::App* FindHelp(CLI::App& app, const std::vector<std::string>& words) {
  const auto end = std::find(words.begin(), words.end(), "--");
  std::vector<std::string> left;
  bool wanted = false;
  for (auto word = words.begin(); word != end; ++word) {
    const bool asks = *word == "--help" || *word == "-h" || (*word == "help" && left.empty());
    wanted = wanted || asks;
    if (!asks) left.push_back(*word);
  }
  if (!wanted) return nullptr;
  const CLI::App* command = Follow(app, left).command;
  const bool isPlain = !left.empty() && words.front() == "help";
  if (isPlain && command == &app && !left.front().starts_with('-')) {
    throw Failure(EXIT_USAGE, UsageProblem(&app, "There is no command " + left.front()),
                  "'softdevice help' lists all commands.");
  }
  return command;
}

// --- Slips ---------------------------------------------------------------------------------------

static std::vector<std::string> WordsFor(const CLI::App* app) {
  std::vector<std::string> words;
  for (const CLI::App* command : CommandsOf(*app)) words.push_back(command->get_name());
  for (; app != nullptr; app = app->get_parent()) {
    for (const CLI::Option* option : app->get_options()) {
      for (const std::string& name : option->get_lnames()) words.push_back("--" + name);
    }
  }
  return words;
}

// What other programs call our commands.
static constexpr const char* OTHER_NAMES[][2] = {
    {"change-pin", "pin change"},
    {"generate", "keygen"},
    {"genkey", "keygen"},
    {"info", "show"},
    {"init", "create"},
    {"ls", "list"},
    {"new", "create"},
    {"passwd", "pin change"},
    {"rm", "delete-keypair"},
};

static std::string MeantBy(const CLI::App* app, const std::string& word) {
  for (const auto& [other, ours] : OTHER_NAMES) {
    if (app->get_parent() == nullptr && word == other) return ours;
  }
  return Nearest(word.substr(0, word.find('=')), WordsFor(app));
}

std::string UsageProblem(const CLI::App* app, const std::string& what) {
  // The word that was not understood is the last of the library's, or of our own, sentence.
  const std::string word = what.substr(what.rfind(' ') + 1);
  const std::string meant = MeantBy(app, word);
  if (meant.empty() || meant == word) return what + (what.ends_with('?') ? "" : ".");
  return what + ". Did you mean " + meant + "?";
}

Failure SecretTold() {
  return Failure(EXIT_USAGE,
                 "A PIN or passphrase on the command line is not taken: others can read it there, "
                 "and the shell keeps it. Consider this one known.",
                 "Leave it out to be asked, or use --pin-file, --pin-env or --pin-fd.");
}

// The word that is, or ends in, a secret where none belongs; NULL where there is none.
static char* SecretAt(int argc, char** argv, int i) {
  const std::string word = Lower(argv[i]);
  if (word.size() > 2 && word.starts_with("-p") && isdigit(word[2]) != 0) return argv[i];
  for (const std::string name :
       {"--pin", "--passphrase", "--password", "--passwd", "--old-pin", "--new-pin", "-p"}) {
    if (word.starts_with(name + "=")) return argv[i];
    // --new-pin alone is an option; what follows it may be anything.
    const bool isAhead = word == name && name != "--new-pin" && i + 1 < argc;
    if (isAhead && argv[i + 1][0] != '-') return argv[i + 1];
  }
  return nullptr;
}

void RefuseSecretWords(int argc, char** argv) {
  for (int i = 1; i < argc && strcmp(argv[i], "--") != 0; i++) {
    char* secret = SecretAt(argc, argv, i);
    if (secret == nullptr) continue;
    OPENSSL_cleanse(secret, strlen(secret));
    throw SecretTold();
  }
}

// --- Description ---------------------------------------------------------------------------------

static Fact Describe(const CLI::Option* option) {
  Facts names;
  for (const std::string& name : option->get_snames()) names.emplace_back("-" + name);
  for (const std::string& name : option->get_lnames()) names.emplace_back("--" + name);
  if (option->get_positional()) names.emplace_back(option->get_name());
  return Fields{{"names", names},
                {"positional", option->get_positional()},
                {"required", option->get_required()},
                {"value", TakesValue(option) ? Fact(option->get_type_name()) : Fact(nullptr)},
                {"default", option->get_default_str()},
                {"group", option->get_group()},
                {"help", option->get_description()}};
}

static Fact Describe(const CLI::App& app) {
  Facts options, commands;
  for (const CLI::Option* option : app.get_options()) {
    if (!option->get_group().empty()) options.push_back(Describe(option));
  }
  for (const CLI::App* command : CommandsOf(app)) commands.push_back(Describe(*command));
  return Fields{{"name", app.get_name()},
                {"help", app.get_description()},
                {"footer", app.get_footer()},
                {"options", options},
                {"commands", commands}};
}

std::string DescribeCommands(const CLI::App& app) {
  Facts statuses;
  for (const ExitMeaning& exit : EXIT_MEANINGS) {
    statuses.emplace_back(
        Fields{{"status", static_cast<int>(exit.status)}, {"meaning", exit.meaning}});
  }
  return JsonText(Fields{{"program", Describe(app)}, {"exit_statuses", statuses}});
}
