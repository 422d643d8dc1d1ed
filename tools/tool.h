// What the commands of softdevice share: how one fails, what it works on, and how its options are
// declared. Every command throws Failure and is silent about it; main prints it.
#ifndef VAKRO_TOOLS_TOOL_H
#define VAKRO_TOOLS_TOOL_H

#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace CLI {
class App;
}

enum ExitStatus { EXIT_DONE = 0, EXIT_FAILED = 1, EXIT_USAGE = 2 };

using Bytes = std::vector<unsigned char>;

// Failure ends a command: what was wrong, and what to do about it (may be empty).
struct Failure : std::runtime_error {
  std::string advice;
  explicit Failure(const std::string& what, std::string todo = {})
      : std::runtime_error(what), advice(std::move(todo)) {}
};

// What a command works on. Empty, or 0, where the user leaves the choice to us.
struct Target {
  std::string folder;   // the module's own when empty
  std::string device;   // serial number or label
  std::string keypair;  // label
  unsigned int type = 0;
};

// Where a PIN or a passphrase comes from: the terminal when both are empty.
struct SecretSource {
  std::string file;
  std::string env;
};

// --- Options (options.cpp): each adds to what the one before it adds
// -------------------------------

void AddFolderOption(CLI::App& command, Target& target);    // --folder
void AddDeviceOptions(CLI::App& command, Target& target);   // and --device
void AddKeypairOptions(CLI::App& command, Target& target);  // and --keypair, --type

// AddSecretOptions adds --NAME-file and --NAME-env; `what` names the secret in the help.
void AddSecretOptions(CLI::App& command, SecretSource& source, const std::string& name,
                      const std::string& what);

// --- Commands: each family adds its own
// ------------------------------------------------------------

void AddDeviceCommands(CLI::App& app, Target& target);  // create, list, pin change
void AddKeypairCommands(CLI::App& app,
                        Target& target);  // keygen, import, public-key, delete-keypair
void AddSigningCommands(CLI::App& app, Target& target);  // sign, verify
void AddCipherCommands(CLI::App& app, Target& target);   // encrypt, decrypt
void AddCertCommands(CLI::App& app, Target& target);     // cert add, list, export, delete
void AddRequestCommands(CLI::App& app, Target& target);  // csr, self-sign
void AddDataCommands(CLI::App& app,
                     Target& target);  // data create, list, read, write, delete, tidy

#endif
