#include "json_writer.h"

#include <array>
#include <charconv>
#include <cmath>
#include <nlohmann/json.hpp>

namespace circmetrics {
namespace {

using nlohmann::json;

template <typename Number>
void append_number(std::string& text, Number value) {
  std::array<char, 32> digits;  // more than the longest double takes
  const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), value).ptr;
  text.append(digits.data(), end);
}

}  // namespace

void JsonWriter::begin(char bracket) {
  text_ += bracket;
  first_ = true;
}

void JsonWriter::end(char bracket) {
  text_ += bracket;
  first_ = false;
}

void JsonWriter::separate() {
  if (!first_) {
    text_ += ',';
  }
  first_ = false;
}

void JsonWriter::begin_object() { begin('{'); }

void JsonWriter::end_object() { end('}'); }

void JsonWriter::begin_array() { begin('['); }

void JsonWriter::end_array() { end(']'); }

void JsonWriter::next_element() { separate(); }

void JsonWriter::key(std::string_view name) {
  separate();
  string(name);
  text_ += ':';
}

void JsonWriter::string(std::string_view bytes) {
  constexpr int kOnOneLine = -1;
  constexpr bool kAsAscii = false;
  text_ += json(bytes).dump(kOnOneLine, ' ', kAsAscii, json::error_handler_t::replace);
}

void JsonWriter::end_with(std::string_view object) {
  constexpr std::string_view kEmpty = "{}";
  if (object != kEmpty) {
    separate();
  }
  text_ += object.substr(1);
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

}  // namespace circmetrics
