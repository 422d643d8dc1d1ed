// The options that several commands have in common.
#include "tools/options.h"

#include "device/device.h"
#include "tools/report.h"

#include <limits.h>

static std::string RefuseEmpty(const std::string& value) {
  return value.empty() ? "must not be empty" : "";
}

void AddAnywhereOptions(CLI::App& app, Target& target) {
  static const char* const GROUP = "Anywhere on the line";
  static bool isHelpWanted;  // seen by FindHelp already
  Add(app, {.name = "--folder",
            .into = &target.folder,
            .help = "Key folder to work in [VAKRO_FOLDER, or /etc/.VAKRO/SoftwareCert/]",
            .value = "DIR",
            .check = RefuseEmpty,
            .group = GROUP});
  Add(app, {.name = "-h,--help",
            .into = &isHelpWanted,
            .help = "Show help on the command",
            .group = GROUP});
  Add(app,
      {.name = "--json", .into = &g_manner.json, .help = "Print results as JSON", .group = GROUP});
  Add(app, {.name = "--quiet",
            .into = &g_manner.quiet,
            .help = "Leave out remarks and confirmations",
            .group = GROUP});
  Add(app, {.name = "--unsafe",
            .into = &g_manner.unsafe,
            .help = "Go on where others may write the folder or device",
            .group = GROUP});
}

void AddDeviceOptions(CLI::App& command, Target& target) {
  Add(command,
      {.name = "--device",
       .into = &target.device,
       .help = "Serial number, label or file; may be left out when the folder has one device",
       .value = "NAME",
       .check = RefuseEmpty,
       .group = "Where"});
}

void AddKeypairOptions(CLI::App& command, Target& target) {
  AddDeviceOptions(command, target);
  Add(command, {.name = "--keypair",
                .into = &target.keypair,
                .help = "Label, number as in #2, or fingerprint; may be left out when there is one",
                .value = "NAME",
                .check = RefuseEmpty,
                .group = "Where"});
  Add(command, {.name = "--type",
                .into = &target.type,
                .help = "Type of the keypair",
                .value = "N",
                .range = {1, INT_MAX},
                .group = "Where"});
}

void AddSecretOptions(CLI::App& command, SecretSource& source, const std::string& name,
                      const std::string& what) {
  static const char* const GROUP = "Secrets (asked on the terminal otherwise)";
  const std::string file = "--" + name + "-file", env = "--" + name + "-env",
                    descriptor = "--" + name + "-fd";
  Add(command, {.name = file.c_str(),
                .into = &source.file,
                .help = "Read the " + what + " from the first line of FILE",
                .value = "FILE",
                .check = RefuseEmpty,
                .group = GROUP});
  Add(command, {.name = env.c_str(),
                .into = &source.env,
                .help = "Read the " + what + " from the environment variable NAME",
                .value = "NAME",
                .check = RefuseEmpty,
                .group = GROUP,
                .excludes = {file}});
  Add(command, {.name = descriptor.c_str(),
                .into = &source.fd,
                .help = "Read the " + what + " from the open file descriptor N",
                .value = "N",
                .range = {0, 1048576},
                .group = GROUP,
                .excludes = {file, env}});
}

void AddOutputOptions(CLI::App& command, OutputOptions& output, const std::string& what) {
  Add(command, {.name = "-o,--output",
                .into = &output.path,
                .help = what + " [standard output]",
                .value = "FILE",
                .check = RefuseEmpty});
  Add(command, {.name = "--force", .into = &output.force, .help = "Replace a file that exists"});
}

void AddLabelOption(CLI::App& command, std::string& label, const char* help, bool isRequired) {
  Add(command, {.name = "--label",
                .into = &label,
                .help = help,
                .value = "LABEL",
                .isRequired = isRequired,
                .check = RefuseBadName});
}

void AddNewLabel(CLI::App& command, std::string& label) {
  Add(command, {.name = "label",
                .into = &label,
                .help = "The new label",
                .isRequired = true,
                .check = RefuseBadName});
}

void AddYesOption(CLI::App& command, bool& yes) {
  Add(command, {.name = "--yes", .into = &yes, .help = "Do not ask whether it is meant"});
}

void AddHashOption(CLI::App& command, std::string& hash) {
  Add(command, {.name = "--hash",
                .into = &hash,
                .help = "sha256, sha384 or sha512; SM2 takes SM3",
                .value = "HASH",
                .showsDefault = true,
                .oneOf = {"sha256", "sha384", "sha512"}});
}

void AddIdOption(CLI::App& command, std::string& id) {
  Add(command, {.name = "--id",
                .into = &id,
                .help = "User id that an SM2 signature covers",
                .value = "ID",
                .showsDefault = true});
}

void NoteJson(CLI::App& command, const std::string& fields) {
  AddNote(command, "--json: " + fields);
}

std::string RefuseBadName(const std::string& name) {
  if (name.empty() || name.size() >= NAME_SIZE) return "must have 1 to 63 bytes";
  return Printable(name) == name ? "" : "must not hold control or invisible characters";
}
