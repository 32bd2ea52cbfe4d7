#include "qvutil/log/record.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <string>

#include "qvutil/output/outcome.h"
#include "qvutil/output/text.h"

namespace quorvane::tool {
namespace {

struct Name {
  const char* plain;
  std::string_view padded;
};

constexpr std::array<Name, 7> kNames{{{"OFF", "[  OFF] "},
                                      {"ERROR", "[ERROR] "},
                                      {"WARN", "[ WARN] "},
                                      {"INFO", "[ INFO] "},
                                      {"TRACE", "[TRACE] "},
                                      {"DEBUG", "[DEBUG] "},
                                      {"ALL", "[  ALL] "}}};
constexpr std::string_view kTimeForm = "dddd-dd-ddTdd:dd:dd.ddddddZ";

bool take(std::string_view& text, std::string_view prefix) {
  if (text.substr(0, prefix.size()) != prefix) {
    return false;
  }
  text.remove_prefix(prefix.size());
  return true;
}

std::optional<Level> take_level(std::string_view& text) {
  for (std::size_t i = 0; i < kNames.size(); ++i) {
    if (take(text, kNames[i].padded)) {
      return static_cast<Level>(i);
    }
  }
  return std::nullopt;
}

bool has_time(std::string_view text) {
  return text.size() >= kTimeForm.size() &&
         std::equal(kTimeForm.begin(), kTimeForm.end(), text.begin(), [](char form, char c) {
           return form == 'd' ? c >= '0' && c <= '9' : c == form;
         });
}

// ", 1234". Ten digits are enough for any id.
bool take_id(std::string_view& text, std::int64_t& id) {
  if (!take(text, ", ") || text.empty() || text[0] == '-') {
    return false;
  }
  const char* const end = text.data() + std::min<std::size_t>(text.size(), 10);
  const auto [rest, error] = std::from_chars(text.data(), end, id);
  text.remove_prefix(static_cast<std::size_t>(rest - text.data()));
  return error == std::errc();
}

}  // namespace

const char* name_of(Level level) { return kNames[static_cast<std::size_t>(level)].plain; }

Level level_of(std::string_view name) {
  std::string capitals(name);
  std::transform(name.begin(), name.end(), capitals.begin(),
                 [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
  for (std::size_t i = 0; i < kNames.size(); ++i) {
    if (capitals == kNames[i].plain) {
      return static_cast<Level>(i);
    }
  }
  throw Failure("no such level: " + shown(name) +
                "; there are OFF, ERROR, WARN, INFO, TRACE, DEBUG and ALL");
}

std::optional<Head> head_of(std::string_view line) {
  std::string_view rest = line;
  const auto level = take_level(rest);
  if (!level || !has_time(rest)) {
    return std::nullopt;
  }
  Head head;
  head.level = *level;
  head.time = rest.substr(0, kTimeForm.size());
  rest.remove_prefix(kTimeForm.size());
  if (!take_id(rest, head.pid) || !take_id(rest, head.tid) || !take(rest, ", \"")) {
    return std::nullopt;
  }
  head.size = line.size() - rest.size();
  return head;
}

std::string_view LogRecord::message() const {
  std::string_view text = bytes;
  const auto found = head();
  const std::string_view end = found ? "\"\n" : "\n";
  text.remove_prefix(found ? found->size : 0);
  if (text.size() >= end.size() && text.substr(text.size() - end.size()) == end) {
    text.remove_suffix(end.size());
  } else if (!text.empty() && text.back() == '\n') {
    text.remove_suffix(1);
  }
  return text;
}

}  // namespace quorvane::tool
