// softdevice: the command line of the crypto device module. The commands are in *_commands.cpp;
// here they meet, and here a failure becomes words and an exit status.
#include "tools/files.h"
#include "tools/options.h"
#include "tools/report.h"
#include "tools/tool.h"
#include "tools/usage.h"
#include "vakro_device.h"

#include <CLI/CLI.hpp>

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>
#include <algorithm>
#include <new>

static std::string Footer() {
  std::string footer = "'softdevice help COMMAND' tells more of a command. Exit status:";
  for (const ExitMeaning& exit : EXIT_MEANINGS) {
    footer += "\n  " + std::to_string(exit.status) + "  " + exit.meaning;
  }
  return footer +
         "\nA PIN is asked on the terminal, or read with --pin-file, --pin-env or --pin-fd; it is "
         "never an argument.\nTo begin: 'softdevice create --label NAME', then 'softdevice keygen "
         "p-256'.\n";
}

static int Tell(const std::string& what, const std::string& advice, ExitStatus status) {
  Warn(what);
  if (!advice.empty()) fprintf(stderr, "  %s\n", Printable(advice).c_str());
  return status;
}

// Output that could not be written is a failure too. Who only looked, into a pipe that has closed,
// needs no words: he ends like any other program.
static int Finish() {
  if (fflush(stdout) == 0 && ferror(stdout) == 0) return EXIT_DONE;
  const std::string cause = SystemError();
  if (!ChangeMade().empty()) {
    return Tell("The change is made (" + ChangeMade() +
                    "), but standard output can't be written: " + cause + ".",
                "Do not repeat it.", EXIT_UNTOLD);
  }
  if (errno == EPIPE) {
    signal(SIGPIPE, SIG_DFL);
    raise(SIGPIPE);
  }
  return Tell("Can't write to standard output: " + cause + ".", {}, EXIT_FAILED);
}

static int ShowHelp(const CLI::App& command) {
  printf("%s", command.help().c_str());
  return Finish();
}

static std::string InWords(const Reach& reach, const CLI::Error& error) {
  std::string what = error.what();
  if (!reach.stray.empty()) return "There is no command " + reach.stray;
  return what.find("ubcommand is required") == what.npos ? what : "A command is missing";
}

static std::string HelpFor(const CLI::App* command, const std::vector<std::string>& unknown,
                           const CLI::Error& error) {
  std::string path;
  for (const CLI::App* at = command; at->get_parent() != nullptr; at = at->get_parent()) {
    path.insert(0, " " + at->get_name());
  }
  std::string advice = "'softdevice help" + path + "' shows what there is.";
  const bool isWord = error.get_exit_code() == static_cast<int>(CLI::ExitCodes::ExtrasError);
  if (isWord && command->get_option_no_throw("--device") != nullptr) {
    advice += " --device and --keypair name what to work on.";
  }
  const auto file = std::find_if(unknown.begin(), unknown.end(), [](const std::string& word) {
    return word.starts_with('-') && access(word.c_str(), F_OK) == 0;
  });
  return file == unknown.end() ? advice
                               : advice + " The file " + *file + " is named ./" + *file + " here.";
}

static int TellSlip(const CLI::App& app, const std::vector<std::string>& words,
                    const CLI::ParseError& error) {
  const Reach reach = Follow(app, words);
  const std::vector<std::string> unknown = app.remaining(true);
  // A word too many behind "pin" may be a PIN, and is not repeated.
  const bool isWord = !unknown.empty() && !unknown.front().starts_with('-');
  const CLI::App* family = reach.command->get_parent();
  if (isWord && reach.command->get_name() == "pin") {
    return Tell("pin takes change or verify.",
                "A PIN is never an argument; one that stands there is known by now.", EXIT_USAGE);
  }
  if (isWord && family != nullptr && family->get_name() == "pin") {
    return Tell(SecretTold().what(), SecretTold().advice, EXIT_USAGE);
  }
  return Tell(UsageProblem(reach.command, InWords(reach, error)),
              HelpFor(reach.command, unknown, error), EXIT_USAGE);
}

static int Parse(CLI::App& app, int argc, char** argv) {
  const std::vector<std::string> words(argv + 1, argv + argc);
  try {
    RefuseSecretWords(argc, argv);
    const CLI::App* help = FindHelp(app, words);
    if (help != nullptr) return ShowHelp(*help);
    app.parse(argc, argv);
    return Finish();
  } catch (const CLI::ParseError& error) {
    return TellSlip(app, words, error);
  } catch (const Failure& failure) {
    const std::string made =
        ChangeMade().empty() ? "" : " What had been done before: " + ChangeMade() + ".";
    return Tell(failure.what() + made, failure.advice, failure.status);
  }
}

namespace {
// The module, for as long as the program runs.
struct Started {
  Started() {
    if (DeviceInit() != VAKRO_OK) throw std::bad_alloc();
  }
  Started(const Started&) = delete;
  Started& operator=(const Started&) = delete;
  ~Started() { DeviceEnd(); }
};
}  // namespace

static int Run(int argc, char** argv) {
  const Started module;
  Target target;
  CLI::App app("softdevice works on soft crypto devices: keys in files, opened with a PIN.",
               "softdevice");
  SetUpHelp(app);
  app.set_help_flag();
  app.fallthrough();
  app.require_subcommand(1);
  AddAnywhereOptions(app, target);
  AddCreateCommand(app, target);
  AddDeviceCommands(app, target);
  AddPinCommands(app, target);
  AddNewKeypairCommands(app, target);
  AddKeypairCommands(app, target);
  AddSigningCommands(app, target);
  AddCipherCommands(app, target);
  AddCertCommands(app, target);
  AddRequestCommands(app, target);
  AddDataCommands(app, target);
  AddBackupCommands(app, target);
  AddCheckCommand(app, target);
  app.add_subcommand("version", "Show the version")->callback([] {
    Show("softdevice " VAKRO_VERSION, Fields{{"version", VAKRO_VERSION}});
  });
  app.add_subcommand("__describe", "")->group("")->callback([&app] {
    printf("%s\n", DescribeCommands(app).c_str());
  });
  app.footer(Footer());  // here, so that the commands do not inherit it
  static char version[] = "version";
  if (argc == 2 && strcmp(argv[1], "--version") == 0) argv[1] = version;
  if (argc == 1) {
    fprintf(stderr, "%s", app.help().c_str());
    return EXIT_USAGE;
  }
  return Parse(app, argc, argv);
}

// A standard stream that is closed would be the next file that is opened: the device file, and
// messages would go into it. What takes its place here can't be read or written, as before.
static void OccupyClosedStreams() {
  for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; fd++) {
    if (fcntl(fd, F_GETFD) < 0) open("/dev/null", fd == STDIN_FILENO ? O_WRONLY : O_RDONLY);
  }
}

int main(int argc, char** argv) {
  OccupyClosedStreams();
  const rlimit none = {0, 0};
  setrlimit(RLIMIT_CORE, &none);  // a core file would hold PIN and keys,
  prctl(PR_SET_DUMPABLE, 0);      // and so would the memory that a debugger reads
  signal(SIGPIPE, SIG_IGN);       // a write that fails is told,
  signal(SIGXFSZ, SIG_IGN);       // whatever the reason
  try {
    return Run(argc, argv);
  } catch (const std::bad_alloc&) {
    return Tell("Out of memory.", {}, EXIT_FAILED);
  } catch (const std::exception& error) {
    return Tell(error.what(), {}, EXIT_FAILED);
  }
}
