// What the commands of softdevice share: how one fails and what it works on. Every command throws
// Failure and is silent about it; main prints it.
#ifndef VAKRO_TOOLS_TOOL_H
#define VAKRO_TOOLS_TOOL_H

#include "tools/exit_status.h"

#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace CLI {
class App;
}

using Bytes = std::vector<unsigned char>;

// Failure ends a command: what was wrong, and what to do about it (may be empty).
struct Failure : std::runtime_error {
  std::string advice;
  ExitStatus status;
  explicit Failure(const std::string& what, std::string todo = {})
      : Failure(EXIT_FAILED, what, std::move(todo)) {}
  Failure(ExitStatus why, const std::string& what, std::string todo = {})
      : std::runtime_error(what), advice(std::move(todo)), status(why) {}
};

// What a command works on. Empty, or 0, where the user leaves the choice to us.
struct Target {
  std::string folder;   // VAKRO_FOLDER's, or the module's own, when empty
  std::string device;   // serial number, label or file
  std::string keypair;  // label, #number or fingerprint
  unsigned int type = 0;
};

// Where a PIN or a passphrase comes from: the terminal when nothing is set.
struct SecretSource {
  std::string file;
  std::string env;
  int fd = -1;
  bool isTerminal() const { return file.empty() && env.empty() && fd < 0; }
};

// Where a result goes. "-" is standard output.
struct OutputOptions {
  std::string path = "-";
  bool force = false;  // replace a file that exists
};

// --- The command line as a whole (usage.cpp) -----------------------------------------------------

// DescribeCommands is the tree of commands and options as JSON, for the manual and the completion.
std::string DescribeCommands(const CLI::App& app);

// --- Commands: each family adds its own ----------------------------------------------------------

void AddCreateCommand(CLI::App& app, Target& target);       // create
void AddDeviceCommands(CLI::App& app, Target& target);      // list, show, rename-device
void AddPinCommands(CLI::App& app, Target& target);         // pin change, pin verify
void AddNewKeypairCommands(CLI::App& app, Target& target);  // keygen, import
void AddKeypairCommands(CLI::App& app, Target& target);     // public-key, relabel, delete-keypair
void AddSigningCommands(CLI::App& app, Target& target);     // sign, verify
void AddCipherCommands(CLI::App& app, Target& target);      // encrypt, decrypt
void AddCertCommands(CLI::App& app, Target& target);        // cert add, list, export, delete
void AddRequestCommands(CLI::App& app, Target& target);     // csr, self-sign
void AddDataCommands(CLI::App& app, Target& target);        // data create, put, list, get...
void AddBackupCommands(CLI::App& app, Target& target);      // backup, restore
void AddCheckCommand(CLI::App& app, Target& target);        // check

#endif
