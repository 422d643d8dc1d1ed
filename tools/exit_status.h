// The exit statuses of softdevice, in the one place that the program, its help and its manual read.
#ifndef VAKRO_TOOLS_EXIT_STATUS_H
#define VAKRO_TOOLS_EXIT_STATUS_H

enum ExitStatus {
  EXIT_DONE = 0,
  EXIT_FAILED = 1,
  EXIT_USAGE = 2,
  EXIT_BAD_SIGNATURE = 3,
  EXIT_NOT_FOUND = 4,
  EXIT_WRONG_PIN = 5,
  EXIT_EXISTS = 6,
  EXIT_UNTOLD = 7,
};

struct ExitMeaning {
  ExitStatus status;
  const char* meaning;
};

inline constexpr ExitMeaning EXIT_MEANINGS[] = {
    {EXIT_DONE, "done"},
    {EXIT_FAILED, "failed, or something is wrong with what was looked at"},
    {EXIT_USAGE, "wrong usage"},
    {EXIT_BAD_SIGNATURE, "the signature is not valid"},
    {EXIT_NOT_FOUND, "there is no such file, device, keypair, certificate or data object"},
    {EXIT_WRONG_PIN, "wrong PIN or passphrase"},
    {EXIT_EXISTS, "it exists already; nothing was replaced"},
    {EXIT_UNTOLD, "the change is made, but standard output could not be written"},
};

#endif
