// The number of PINs of the same kind, and the time that trying them takes.
#include "tools/pin_strength.h"

#include <openssl/evp.h>

#include <math.h>
#include <stdio.h>
#include <string.h>
#include <time.h>
#include <algorithm>
#include <string_view>

static constexpr int ITERATIONS = 2000;  // of PBKDF2, for one guess; docs/device-file.md

// What a graphics card tries in the time that one core of this machine needs for one guess.
static constexpr double GRAPHICS_CARD = 1000;
static constexpr double LONG_ENOUGH = 365.25 * 86400;  // seconds, on a graphics card

static bool Contains(std::string_view text, const auto& holds) {
  return std::any_of(text.begin(), text.end(), holds);
}

// How many different characters a PIN of this kind is made of.
static double AlphabetOf(std::string_view pin) {
  const auto isDigit = [](char c) { return c >= '0' && c <= '9'; };
  const auto isLower = [](char c) { return c >= 'a' && c <= 'z'; };
  const auto isUpper = [](char c) { return c >= 'A' && c <= 'Z'; };
  double alphabet = 0;
  if (Contains(pin, isDigit)) alphabet += 10;
  if (Contains(pin, isLower)) alphabet += 26;
  if (Contains(pin, isUpper)) alphabet += 26;
  if (Contains(pin, [&](char c) { return !isDigit(c) && !isLower(c) && !isUpper(c); })) {
    alphabet += 33;
  }
  return alphabet;
}

static double SecondsPerGuess() {
  static constexpr unsigned char SALT[32] = {};
  unsigned char material[40];
  timespec begin = {}, end = {};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &begin);
  PKCS5_PBKDF2_HMAC("guess", 5, SALT, sizeof SALT, ITERATIONS, EVP_sha512(), sizeof material,
                    material);
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &end);
  return static_cast<double>(end.tv_sec - begin.tv_sec) +
         static_cast<double>(end.tv_nsec - begin.tv_nsec) / 1e9;
}

static std::string Duration(double seconds) {
  static constexpr struct {
    double seconds;
    const char* name;
  } UNITS[] = {{365.25 * 86400, "years"}, {86400, "days"}, {3600, "hours"}, {60, "minutes"}};
  char text[64];
  for (const auto& unit : UNITS) {
    if (seconds < 2 * unit.seconds) continue;
    snprintf(text, sizeof text, "%.0f %s", seconds / unit.seconds, unit.name);
    return text;
  }
  if (seconds <= 1) return "a second";
  snprintf(text, sizeof text, "%.0f seconds", ceil(seconds));
  return text;
}

std::string PinWeakness(const SecretText& pin) {
  const std::string_view text(pin.data());
  const double guesses = pow(AlphabetOf(text), static_cast<double>(text.size()));
  const double seconds = guesses * SecondsPerGuess();
  if (seconds / GRAPHICS_CARD > LONG_ENOUGH) return {};
  char count[64];
  snprintf(count, sizeof count, guesses < 1e9 ? "%.0f" : "%.1g", guesses);
  return "This PIN is quickly guessed by who has a copy of the device file: one core of this "
         "machine tries all " +
         std::string(count) + " of its kind in " + Duration(seconds) +
         ", a graphics card in a thousandth of that.";
}
