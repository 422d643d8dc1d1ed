// The options that several commands have in common.
#include "tools/options.h"

#include "device/device.h"
#include "tools/report.h"

#include <CLI/CLI.hpp>

static std::string RefuseEmpty(const std::string& value) {
  return value.empty() ? "must not be empty" : "";
}

void AddAnywhereOptions(CLI::App& app, Target& target) {
  app.add_option("--folder", target.folder,
                 "Key folder to work in [VAKRO_FOLDER, or /etc/.VAKRO/SoftwareCert/]")
      ->type_name("DIR")
      ->check(RefuseEmpty)
      ->group("Anywhere on the line");
  app.add_flag(
         "-h,--help", [](int64_t) {}, "Show help on the command")
      ->group("Anywhere on the line");
  app.add_flag("--json", g_manner.json, "Print results as JSON")->group("Anywhere on the line");
  app.add_flag("--quiet", g_manner.quiet, "Leave out remarks and confirmations")
      ->group("Anywhere on the line");
  app.add_flag("--unsafe", g_manner.unsafe, "Go on where others may write the folder or device")
      ->group("Anywhere on the line");
}

void AddDeviceOptions(CLI::App& command, Target& target) {
  command
      .add_option("--device", target.device,
                  "Serial number, label or file; may be left out when the folder has one device")
      ->type_name("NAME")
      ->check(RefuseEmpty)
      ->group("Where");
}

void AddKeypairOptions(CLI::App& command, Target& target) {
  AddDeviceOptions(command, target);
  command
      .add_option("--keypair", target.keypair,
                  "Label, number as in #2, or fingerprint; may be left out when there is one")
      ->type_name("NAME")
      ->check(RefuseEmpty)
      ->group("Where");
  command.add_option("--type", target.type, "Type of the keypair")
      ->type_name("N")
      ->check(CLI::Range(1u, 2147483647u).description(""))
      ->group("Where");
}

void AddSecretOptions(CLI::App& command, SecretSource& source, const std::string& name,
                      const std::string& what) {
  static const char* const GROUP = "Secrets (asked on the terminal otherwise)";
  auto* file = command
                   .add_option("--" + name + "-file", source.file,
                               "Read the " + what + " from the first line of FILE")
                   ->type_name("FILE")
                   ->check(RefuseEmpty)
                   ->group(GROUP);
  auto* env = command
                  .add_option("--" + name + "-env", source.env,
                              "Read the " + what + " from the environment variable NAME")
                  ->type_name("NAME")
                  ->check(RefuseEmpty)
                  ->excludes(file)
                  ->group(GROUP);
  command
      .add_option("--" + name + "-fd", source.fd,
                  "Read the " + what + " from the open file descriptor N")
      ->type_name("N")
      ->check(CLI::Range(0, 1048576).description(""))
      ->excludes(file)
      ->excludes(env)
      ->group(GROUP);
}

void AddOutputOptions(CLI::App& command, OutputOptions& output, const std::string& what) {
  command.add_option("-o,--output", output.path, what + " [standard output]")
      ->type_name("FILE")
      ->check(RefuseEmpty);
  command.add_flag("--force", output.force, "Replace a file that exists");
}

void AddYesOption(CLI::App& command, bool& yes) {
  command.add_flag("--yes", yes, "Do not ask whether it is meant");
}

void NoteJson(CLI::App& command, const std::string& fields) {
  const std::string footer = command.get_footer();
  command.footer(footer + (footer.empty() ? "" : "\n") + "--json: " + fields);
}

std::string RefuseBadName(const std::string& name) {
  if (name.empty() || name.size() >= NAME_SIZE) return "must have 1 to 63 bytes";
  return Printable(name) == name ? "" : "must not hold control or invisible characters";
}
