#include "qvutil/output/text.h"

#include <array>
#include <chrono>
#include <cstdio>
#include <string>

#include "qvutil/output/outcome.h"

namespace quorvane::tool {
namespace {

constexpr std::string_view kDigits = "0123456789abcdef";

// The length of the UTF-8 sequence that `bytes` begins with; 0 if it begins with none.
std::size_t sequence_length(std::string_view bytes) {
  const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(bytes[i]); };
  const unsigned char first = byte(0);
  if (first < 0x80) {
    return 1;
  }
  const std::size_t length = first >= 0xf0 ? 4 : first >= 0xe0 ? 3 : 2;
  if (first < 0xc2 || first > 0xf4 || bytes.size() < length) {
    return 0;
  }
  // Overlong forms, surrogates and what is above U+10FFFF begin with one of these pairs.
  const unsigned char second = byte(1);
  const unsigned char low = first == 0xe0 ? 0xa0 : first == 0xf0 ? 0x90 : 0x80;
  const unsigned char high = first == 0xed ? 0x9f : first == 0xf4 ? 0x8f : 0xbf;
  if (second < low || second > high) {
    return 0;
  }
  for (std::size_t i = 2; i < length; ++i) {
    if ((byte(i) & 0xc0) != 0x80) {
      return 0;
    }
  }
  return length;
}

// C1 control characters, U+0080 to U+009F, change a terminal as others do.
bool is_control(std::string_view sequence) {
  const auto first = static_cast<unsigned char>(sequence[0]);
  return first < 0x20 || first == 0x7f ||
         (first == 0xc2 && static_cast<unsigned char>(sequence[1]) < 0xa0);
}

// Those that change the direction of text let a name look like another one.
bool is_direction(std::string_view sequence) {
  const auto is_in = [&](std::string_view first, std::string_view last) {
    return sequence >= first && sequence <= last;
  };
  return sequence == "\xd8\x9c" ||                 // U+061C
         is_in("\xe2\x80\x8e", "\xe2\x80\x8f") ||  // U+200E, U+200F
         is_in("\xe2\x80\xaa", "\xe2\x80\xae") ||  // U+202A to U+202E
         is_in("\xe2\x81\xa6", "\xe2\x81\xa9");    // U+2066 to U+2069
}

void append_escaped(std::string& text, char c) {
  const auto byte = static_cast<unsigned char>(c);
  text += "\\x";
  text += kDigits[byte >> 4];
  text += kDigits[byte & 15];
}

// The value of a hexadecimal digit.
unsigned digit(char c) {
  const std::size_t value = kDigits.find(c >= 'A' && c <= 'F' ? static_cast<char>(c | 0x20) : c);
  if (value == std::string_view::npos) {
    throw Failure("not hexadecimal: " + shown(std::string(1, c)));
  }
  return static_cast<unsigned>(value);
}

std::string formatted(const char* format, double number, const char* unit) {
  std::array<char, 64> text;
  std::snprintf(text.data(), text.size(), format, number, unit);
  return text.data();
}

}  // namespace

bool is_utf8(std::string_view bytes) {
  while (!bytes.empty()) {
    const std::size_t length = sequence_length(bytes);
    if (length == 0) {
      return false;
    }
    bytes.remove_prefix(length);
  }
  return true;
}

std::string shown(std::string_view bytes) {
  std::string text;
  while (!bytes.empty()) {
    const std::size_t length = sequence_length(bytes);
    const std::string_view sequence = bytes.substr(0, length == 0 ? 1 : length);
    if (sequence == "\n") {
      text += "\\n";
    } else if (sequence == "\t") {
      text += "\\t";
    } else if (sequence == "\\") {
      text += "\\\\";
    } else if (length == 0 || is_control(sequence) || is_direction(sequence)) {
      for (const char c : sequence) {
        append_escaped(text, c);
      }
    } else {
      text += sequence;
    }
    bytes.remove_prefix(sequence.size());
  }
  return text;
}

std::string hex(std::string_view bytes) {
  std::string text;
  text.reserve(2 * bytes.size());
  for (const char c : bytes) {
    text += kDigits[static_cast<unsigned char>(c) >> 4];
    text += kDigits[static_cast<unsigned char>(c) & 15];
  }
  return text;
}

std::string bytes_of_hex(std::string_view digits) {
  if (digits.size() % 2 != 0) {
    throw Failure("an odd number of hexadecimal digits: " + shown(digits));
  }
  std::string bytes;
  bytes.reserve(digits.size() / 2);
  for (std::size_t i = 0; i < digits.size(); i += 2) {
    bytes += static_cast<char>(digit(digits[i]) << 4 | digit(digits[i + 1]));
  }
  return bytes;
}

std::size_t width_of(std::string_view text) {
  std::size_t width = 0;
  for (const char c : text) {
    width += (static_cast<unsigned char>(c) & 0xc0) != 0x80 ? 1 : 0;
  }
  return width;
}

std::string grouped(std::uint64_t number) {
  std::string text = std::to_string(number);
  for (std::size_t i = text.size(); i > 3; i -= 3) {
    text.insert(i - 3, " ");
  }
  return text;
}

std::string counted(std::uint64_t number, const char* one, const char* many) {
  return grouped(number) + " " + (number == 1 ? one : many);
}

std::string size_text(std::uint64_t bytes) {
  if (bytes < 1000) {
    return std::to_string(bytes) + " B";
  }
  constexpr std::array<const char*, 6> kUnits{"kB", "MB", "GB", "TB", "PB", "EB"};
  double number = static_cast<double>(bytes) / 1000;
  std::size_t unit = 0;
  while (number >= 999.5 && unit + 1 < kUnits.size()) {
    number /= 1000;
    ++unit;
  }
  return formatted(number < 9.95 ? "%.1f %s" : "%.0f %s", number, kUnits[unit]);
}

std::string duration_text(double seconds) {
  struct Unit {
    double seconds;
    const char* name;
  };
  constexpr std::array<Unit, 7> kUnits{Unit{86400, "d"}, {3600, "h"},  {60, "min"}, {1, "s"},
                                       {1e-3, "ms"},     {1e-6, "us"}, {1e-9, "ns"}};
  for (const Unit& unit : kUnits) {
    if (seconds >= unit.seconds) {
      const double number = seconds / unit.seconds;
      return formatted(number < 9.95 ? "%.1f %s" : "%.0f %s", number, unit.name);
    }
  }
  return "0 s";
}

std::string time_text(std::int64_t seconds_since_1970) {
  const std::chrono::sys_seconds time{std::chrono::seconds(seconds_since_1970)};
  const auto day = std::chrono::floor<std::chrono::days>(time);
  const std::chrono::year_month_day date{day};
  const std::chrono::hh_mm_ss clock{time - day};
  std::array<char, 64> text;
  std::snprintf(text.data(), text.size(), "%04d-%02u-%02uT%02d:%02d:%02dZ",
                static_cast<int>(date.year()), static_cast<unsigned>(date.month()),
                static_cast<unsigned>(date.day()), static_cast<int>(clock.hours().count()),
                static_cast<int>(clock.minutes().count()),
                static_cast<int>(clock.seconds().count()));
  return text.data();
}

}  // namespace quorvane::tool
