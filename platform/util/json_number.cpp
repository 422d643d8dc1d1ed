// JSON numbers. A node keeps digits, so that a number that nobody touches is written as it was
// read; here they become a double and come from one, whatever the locale.
#include "platform/util/json.h"

#include <charconv>
#include <cmath>
#include <limits>
#include <system_error>

// Says whether digits that no double can hold are too large; else they are too small. What counts
// is where the first digit that isn't 0 stands.
static bool IsTooLarge(std::string_view digits) {
  const size_t exponentAt = std::min(digits.find_first_of("eE"), digits.size());
  const std::string_view mantissa = digits.substr(0, exponentAt);
  const size_t point = std::min(mantissa.find('.'), mantissa.size());
  const size_t first = mantissa.find_first_of("123456789");
  const long long place = static_cast<long long>(point) - static_cast<long long>(first);

  if (exponentAt == digits.size()) return place > 0;
  const bool negative = digits[exponentAt + 1] == '-';
  const size_t skip = negative || digits[exponentAt + 1] == '+' ? 2 : 1;
  long long exponent = 0;
  const auto read =
      std::from_chars(digits.data() + exponentAt + skip, digits.data() + digits.size(), exponent);
  if (read.ec != std::errc()) return !negative;
  return negative ? place > exponent : exponent > -place;
}

double vakro_json_getnumber(const VakroJson* value) {
  if (value == nullptr || TypeOf(*value) != VAKRO_JSON_NUMBER) return 0;
  const std::string_view digits = BytesOf(*value);
  double number = 0;
  const auto read = std::from_chars(digits.data(), digits.data() + digits.size(), number);
  if (read.ec == std::errc()) return number;
  const double beyond = IsTooLarge(digits) ? std::numeric_limits<double>::infinity() : 0;
  return digits[0] == '-' ? -beyond : beyond;
}

VakroJson* vakro_json_newnumber(double number) {
  if (!std::isfinite(number)) return nullptr;
  // The longest whole double has a sign and 309 digits.
  char digits[std::numeric_limits<double>::max_exponent10 + 2];
  char* const end = digits + sizeof digits;
  const auto written = std::trunc(number) == number
                           ? std::to_chars(digits, end, number, std::chars_format::fixed)
                           : std::to_chars(digits, end, number);
  if (written.ec != std::errc()) return nullptr;
  return NewTextValue(VAKRO_JSON_NUMBER, {digits, static_cast<size_t>(written.ptr - digits)});
}
