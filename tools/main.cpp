// softdevice: the command line of the crypto device module. The commands are in *_commands.cpp;
// here they meet, and here a failure becomes words and an exit status.
#include "tools/tool.h"

#include <CLI/CLI.hpp>

#include <stdio.h>
#include <new>

static const char* const FOOTER =
    "Every command has a --help of its own. Exit status: 0 done, 1 failed, 2 wrong usage.\n"
    "A PIN is asked on the terminal, or read with --pin-file or --pin-env; never an argument.";

static int Tell(const char* what, const std::string& advice) {
  fprintf(stderr, "softdevice: %s\n", what);
  if (!advice.empty()) fprintf(stderr, "  %s\n", advice.c_str());
  return EXIT_FAILED;
}

static int Run(int argc, char** argv) {
  Target target;
  CLI::App app("softdevice works on soft crypto devices: keys in files, opened with a PIN.",
               "softdevice");
  app.footer(FOOTER);
  app.get_formatter()->column_width(30);
  app.require_subcommand(1);
  AddFolderOption(app, target);
  AddDeviceCommands(app, target);
  AddKeypairCommands(app, target);
  AddSigningCommands(app, target);
  AddCipherCommands(app, target);
  AddCertCommands(app, target);
  AddRequestCommands(app, target);
  AddDataCommands(app, target);
  try {
    app.parse(argc, argv);
    // Output that could not be written is a failure too.
    if (fflush(stdout) != 0) throw Failure("Can't write to standard output.");
    return EXIT_DONE;
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? EXIT_DONE : EXIT_USAGE;  // prints help, or what was wrong
  } catch (const Failure& failure) {
    return Tell(failure.what(), failure.advice);
  } catch (const std::bad_alloc&) {
    return Tell("Out of memory.", {});
  }
}

int main(int argc, char** argv) {
  try {
    return Run(argc, argv);
  } catch (const std::exception& error) {
    return Tell(error.what(), {});
  }
}
