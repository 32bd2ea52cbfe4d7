#include "qvutil/cli/numbers.h"

#include <charconv>
#include <cstddef>
#include <string>
#include <system_error>

#include "qvutil/output/text.h"

namespace quorvane::tool {
namespace {

// Divides `text` into the number with which it begins, in its shortest form, and a unit. False if
// there is no such number.
bool divide(std::string& text, std::int64_t least, std::string& unit) {
  std::int64_t number = 0;
  const char* const begin = text.data();
  const auto [end, error] = std::from_chars(begin, begin + text.size(), number);
  if (error != std::errc() || number < least) {
    return false;
  }
  unit = text.substr(static_cast<std::size_t>(end - begin));
  text = std::to_string(number);
  return true;
}

}  // namespace

CLI::Validator whole_number(std::int64_t least) {
  const auto check = [least](std::string& text) -> std::string {
    const std::string given = text;
    std::string unit;
    const bool is_fine = divide(text, least, unit) && unit.empty();
    return is_fine ? "" : "not a number from " + std::to_string(least) + " up: " + shown(given);
  };
  return CLI::Validator(check, "");
}

CLI::Validator byte_count() {
  const auto check = [](std::string& text) -> std::string {
    std::string wrong = "not a size like 512, 10kb or 10kib: " + shown(text);
    std::string unit;
    if (!divide(text, 0, unit)) {
      return wrong;
    }
    text += unit;
    try {
      return CLI::AsSizeValue(true)(text).empty() ? "" : wrong;
    } catch (const CLI::ValidationError&) {
      return wrong;
    }
  };
  return CLI::Validator(check, "");
}

}  // namespace quorvane::tool
