// Bytes, sizes and times as texts for people.
#ifndef TOOLS_QVUTIL_OUTPUT_TEXT_H_
#define TOOLS_QVUTIL_OUTPUT_TEXT_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace quorvane::tool {

// Whether the bytes are well-formed UTF-8.
bool is_utf8(std::string_view bytes);

// The bytes as they can stand on a terminal: UTF-8 as it is; control characters, also those for the
// direction of text, backslashes and bytes that are not UTF-8 as \n, \t, \\ or \xHH.
std::string shown(std::string_view bytes);

// Two lower-case digits for each byte.
std::string hex(std::string_view bytes);

// The bytes that pairs of hexadecimal digits stand for. Throws Failure for any other text.
std::string bytes_of_hex(std::string_view digits);

// The columns that UTF-8 text takes on a terminal: one for each code point.
std::size_t width_of(std::string_view text);

// The number with a blank for each power of 1000: "1 234 567".
std::string grouped(std::uint64_t number);

// "1 entry", "1 234 entries".
std::string counted(std::uint64_t number, const char* one, const char* many);

// "512 B", "1.5 kB", "12 MB": powers of 1000, two digits or more.
std::string size_text(std::uint64_t bytes);

// "400 ns", "950 us", "1.2 s", "5 min", "3 h", "12 d".
std::string duration_text(double seconds);

// UTC with seconds: "2024-03-01T12:00:00Z".
std::string time_text(std::int64_t seconds_since_1970);

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_OUTPUT_TEXT_H_
