#include "json_writer.h"

#include <array>
#include <charconv>
#include <cmath>

namespace circmetrics {
namespace {

constexpr std::string_view kReplacement = "\xEF\xBF\xBD";  // U+FFFD

template <typename Number>
void append_number(std::string& text, Number value) {
  std::array<char, 32> digits;  // more than the longest double takes
  const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), value).ptr;
  text.append(digits.data(), end);
}

unsigned byte_at(std::string_view text, std::size_t index) {
  return index < text.size() ? static_cast<unsigned char>(text[index]) : 0;
}

// Whether the second byte may follow the first: no overlong form, no surrogate,
// nothing above U+10FFFF.
bool second_fits(unsigned first, unsigned second) {
  const unsigned low = first == 0xE0 ? 0xA0 : first == 0xF0 ? 0x90 : 0x80;
  const unsigned high = first == 0xED ? 0x9F : first == 0xF4 ? 0x8F : 0xBF;
  return second >= low && second <= high;
}

// The length of the UTF-8 sequence that `text` begins with; 0 when it is none.
std::size_t sequence_length(std::string_view text) {
  const unsigned first = byte_at(text, 0);
  if (first < 0x80) {
    return 1;
  }
  if (first < 0xC2 || first > 0xF4 || !second_fits(first, byte_at(text, 1))) {
    return 0;
  }
  const std::size_t length = first < 0xE0 ? 2 : first < 0xF0 ? 3 : 4;
  for (std::size_t index = 2; index < length; ++index) {
    if ((byte_at(text, index) & 0xC0) != 0x80) {
      return 0;
    }
  }
  return length;
}

void append_ascii(std::string& text, char byte) {
  static constexpr char kHex[] = "0123456789abcdef";
  const auto code = static_cast<unsigned char>(byte);
  if (byte == '"' || byte == '\\') {
    text += '\\';
    text += byte;
  } else if (code < 0x20) {
    text += "\\u00";
    text += kHex[code >> 4];
    text += kHex[code & 0xF];
  } else {
    text += byte;
  }
}

}  // namespace

void JsonWriter::begin_object() {
  text_ += '{';
  first_ = true;
}

void JsonWriter::end_object() {
  text_ += '}';
  first_ = false;
}

void JsonWriter::key(std::string_view name) {
  if (!first_) {
    text_ += ',';
  }
  first_ = false;
  text_ += '"';
  append_escaped(name);
  text_ += "\":";
}

void JsonWriter::number(std::int64_t value) { append_number(text_, value); }

void JsonWriter::number(std::uint64_t value) { append_number(text_, value); }

void JsonWriter::number(double value) {
  if (std::isfinite(value)) {
    append_number(text_, value);
  } else {
    null();
  }
}

void JsonWriter::append_escaped(std::string_view name) {
  while (!name.empty()) {
    const std::size_t length = sequence_length(name);
    if (length == 1) {
      append_ascii(text_, name.front());
    } else {
      text_ += length == 0 ? kReplacement : name.substr(0, length);
    }
    name.remove_prefix(length == 0 ? 1 : length);
  }
}

}  // namespace circmetrics
