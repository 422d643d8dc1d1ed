// The options that several commands have in common, each declared in one place.
#ifndef VAKRO_TOOLS_OPTIONS_H
#define VAKRO_TOOLS_OPTIONS_H

#include "tools/command_line.h"
#include "tools/tool.h"

void AddAnywhereOptions(CLI::App& app, Target& target);     // --folder, --json, --quiet, --unsafe
void AddDeviceOptions(CLI::App& command, Target& target);   // --device
void AddKeypairOptions(CLI::App& command, Target& target);  // and --keypair, --type

// AddSecretOptions adds --NAME-file, --NAME-env and --NAME-fd; `what` names the secret in the help.
void AddSecretOptions(CLI::App& command, SecretSource& source, const std::string& name,
                      const std::string& what);

// AddOutputOptions adds --output and --force; `what` is the file.
void AddOutputOptions(CLI::App& command, OutputOptions& output, const std::string& what);

void AddLabelOption(CLI::App& command, std::string& label, const char* help, bool isRequired);
void AddNewLabel(CLI::App& command, std::string& label);  // the argument of a renaming command

void AddYesOption(CLI::App& command, bool& yes);
void AddHashOption(CLI::App& command, std::string& hash);  // --hash, of a signature
void AddIdOption(CLI::App& command, std::string& id);      // --id, of SM2's signer

// NoteJson writes into the help of a command what it prints with --json.
void NoteJson(CLI::App& command, const std::string& fields);

// RefuseBadName is the check of a label or serial number: 1 to 63 bytes that a terminal can show.
std::string RefuseBadName(const std::string& name);

#endif
