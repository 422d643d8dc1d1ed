// softdevice: the command line of the crypto device module. The commands are in *_commands.cpp;
// here they meet, and here a failure becomes words and an exit status.
#include "tools/tool.h"

#include <CLI/CLI.hpp>

#include <stdio.h>
#include <sys/resource.h>
#include <new>

static const char* const FOOTER =
    "Every command has a --help of its own. Exit status: 0 done, 1 failed, 2 wrong usage.\n"
    "A PIN is asked on the terminal, or read with --pin-file or --pin-env; never an argument.";

// Help without the library's remarks on which options exclude which.
struct HelpText : CLI::Formatter {
  std::string make_option_opts(const CLI::Option* option) const override {
    const bool hasValue = option->get_type_size() > 0 && !option->get_positional();
    return hasValue ? " " + option->get_type_name() : "";
  }
  std::string make_option_desc(const CLI::Option* option) const override {
    const std::string value = option->get_default_str();
    return option->get_description() + (value.empty() ? "" : " [" + value + "]");
  }
};

static std::string UsageProblem(const CLI::App* app, const CLI::Error& error) {
  const std::vector<std::string> unknown = app->remaining(true);
  std::string what = error.what();
  if (what == "A subcommand is required") {
    what = unknown.empty() ? "A command is missing" : "There is no command " + unknown.front();
  }
  return "softdevice: " + what + ".\n  --help shows what there is.\n";
}

static int Tell(const char* what, const std::string& advice) {
  fprintf(stderr, "softdevice: %s\n", what);
  if (!advice.empty()) fprintf(stderr, "  %s\n", advice.c_str());
  return EXIT_FAILED;
}

// Output that could not be written is a failure too.
static int Finish() {
  if (fflush(stdout) == 0 && ferror(stdout) == 0) return EXIT_DONE;
  return Tell("Can't write to standard output.", {});
}

static int Run(int argc, char** argv) {
  Target target;
  CLI::App app("softdevice works on soft crypto devices: keys in files, opened with a PIN.",
               "softdevice");
  app.failure_message(UsageProblem);
  const auto help = std::make_shared<HelpText>();
  help->column_width(26);
  app.formatter(help);
  app.require_subcommand(1);
  AddFolderOption(app, target);
  AddDeviceCommands(app, target);
  AddKeypairCommands(app, target);
  AddSigningCommands(app, target);
  AddCipherCommands(app, target);
  AddCertCommands(app, target);
  AddRequestCommands(app, target);
  AddDataCommands(app, target);
  app.footer(FOOTER);  // here, so that the commands do not inherit it
  try {
    if (argc == 1) return printf("%s", app.help().c_str()) < 0 ? EXIT_FAILED : EXIT_USAGE;
    app.parse(argc, argv);
    return Finish();
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? Finish() : EXIT_USAGE;  // prints help, or what was wrong
  } catch (const Failure& failure) {
    return Tell(failure.what(), failure.advice);
  } catch (const std::bad_alloc&) {
    return Tell("Out of memory.", {});
  }
}

int main(int argc, char** argv) {
  const rlimit none = {0, 0};
  setrlimit(RLIMIT_CORE, &none);  // a core file would hold PIN and keys
  try {
    return Run(argc, argv);
  } catch (const std::exception& error) {
    return Tell(error.what(), {});
  }
}
