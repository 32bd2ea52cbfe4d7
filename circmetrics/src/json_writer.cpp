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
  constexpr int kOnOneLine = -1;
  constexpr bool kAsAscii = false;
  text_ += json(name).dump(kOnOneLine, ' ', kAsAscii, json::error_handler_t::replace);
  text_ += ':';
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
