// The options that several commands have in common.
#include "tools/tool.h"

#include <CLI/CLI.hpp>

static std::string RefuseEmpty(const std::string& value) {
  return value.empty() ? "must not be empty" : "";
}

void AddFolderOption(CLI::App& command, Target& target) {
  command
      .add_option("--folder", target.folder,
                  "Key folder to work in [/etc/.VAKRO/SoftwareCert/, the module's own]")
      ->type_name("DIR")
      ->check(RefuseEmpty)
      ->group("Where");
}

void AddDeviceOptions(CLI::App& command, Target& target) {
  AddFolderOption(command, target);
  command
      .add_option("--device", target.device,
                  "Serial number or label; may be left out when the folder has one device")
      ->type_name("NAME")
      ->check(RefuseEmpty)
      ->group("Where");
}

void AddKeypairOptions(CLI::App& command, Target& target) {
  AddDeviceOptions(command, target);
  command
      .add_option("--keypair", target.keypair,
                  "Label; may be left out when the device has one keypair")
      ->type_name("LABEL")
      ->check(RefuseEmpty)
      ->group("Where");
  command.add_option("--type", target.type, "Type, where several keypairs have the same label")
      ->type_name("N")
      ->check(CLI::Range(1u, 2147483647u).description(""))
      ->group("Where");
}

void AddSecretOptions(CLI::App& command, SecretSource& source, const std::string& name,
                      const std::string& what) {
  auto* file = command
                   .add_option("--" + name + "-file", source.file,
                               "Read the " + what + " from the first line of FILE")
                   ->type_name("FILE")
                   ->check(RefuseEmpty)
                   ->group("Secrets (asked on the terminal otherwise)");
  command
      .add_option("--" + name + "-env", source.env,
                  "Read the " + what + " from the environment variable NAME")
      ->type_name("NAME")
      ->check(RefuseEmpty)
      ->excludes(file)
      ->group("Secrets (asked on the terminal otherwise)");
}
