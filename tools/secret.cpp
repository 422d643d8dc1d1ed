// PINs and passphrases from a file, the environment or the terminal.
#include "tools/secret.h"

#include "core/owners.h"
#include "core/secret.h"
#include "tools/files.h"

#include <openssl/ui.h>

#include <stdlib.h>
#include <string.h>
#include <algorithm>

using Dialogue = std::unique_ptr<UI, Release<UI_free>>;

static SecretText FromLine(const unsigned char* line, size_t length, const std::string& what) {
  if (length > 0 && line[length - 1] == '\r') length--;
  if (length > SECRET_MAX || std::find(line, line + length, 0) != line + length) {
    throw Failure("The " + what + " is too long or holds a NUL.",
                  "At most " + std::to_string(SECRET_MAX) + " characters are taken.");
  }
  SecretText text(length + 1);
  std::copy_n(line, length, text.begin());
  return text;
}

static SecretText FromFile(const std::string& path, const std::string& what) {
  const Secret content = ReadSecretInput(path);
  const auto end = std::find(content.begin(), content.end(), '\n');
  return FromLine(content.data(), static_cast<size_t>(end - content.begin()), what);
}

static SecretText FromEnvironment(const std::string& name, const std::string& what) {
  char* value = getenv(name.c_str());
  if (value == nullptr) {
    throw Failure("The environment variable " + name + ", for the " + what + ", is not set.",
                  "Is it exported?");
  }
  SecretText text = FromLine(reinterpret_cast<unsigned char*>(value), strlen(value), what);
  OPENSSL_cleanse(value, strlen(value));  // a core file need not hold it
  return text;
}

static SecretText FromTerminal(const std::string& prompt, int flags, const std::string& advice) {
  // Without a terminal the dialogue would fall back to standard input, which may be the data.
  if (!HasTerminal()) throw Failure("There is no terminal to ask on.", advice);
  SecretText text(SECRET_MAX + 1);
  const Dialogue dialogue(UI_new_method(UI_OpenSSL()));
  if (!dialogue ||
      UI_add_input_string(dialogue.get(), prompt.c_str(), flags, text.data(), 0,
                          static_cast<int>(SECRET_MAX)) <= 0 ||
      UI_process(dialogue.get()) != 0) {
    throw Failure("Nothing was read from the terminal, or more than " + std::to_string(SECRET_MAX) +
                  " characters.");
  }
  text.resize(strlen(text.data()) + 1);
  return text;
}

static SecretText Ask(const std::string& prompt) {
  return FromTerminal(prompt + ": ", 0,
                      "--help names the options that take it from a file or the environment.");
}

SecretText ReadSecret(const SecretSource& source, const std::string& what) {
  if (!source.file.empty()) return FromFile(source.file, what);
  if (!source.env.empty()) return FromEnvironment(source.env, what);
  return Ask(what);
}

SecretText ReadNewPin(const SecretSource& source, const std::string& what) {
  SecretText pin = ReadSecret(source, what);
  if (pin.size() == 1) throw Failure("An empty PIN would protect nothing.", "Choose another.");
  if (source.file.empty() && source.env.empty() && Ask("Once more, to be sure") != pin) {
    throw Failure("The two entries differ; nothing was changed.", "Please try again.");
  }
  return pin;
}

std::string AskOnTerminal(const std::string& question, const std::string& advice) {
  return FromTerminal(question, UI_INPUT_FLAG_ECHO, advice).data();
}
