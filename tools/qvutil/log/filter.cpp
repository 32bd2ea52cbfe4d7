#include "qvutil/log/filter.h"

#include <re2/re2.h>

#include <array>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <string>
#include <utility>

#include "qvutil/output/outcome.h"
#include "qvutil/output/text.h"

namespace quorvane::tool {
namespace {

constexpr std::string_view kEarliest = "0000-01-01T00:00:00.000000Z";
constexpr std::string_view kForm = "dddd-dd-ddTdd:dd:dd.dddddd";
constexpr std::int64_t kMicroseconds = 1'000'000;

[[noreturn]] void refuse(std::string_view text) {
  throw Failure("no time: " + shown(text) +
                "; write 2024-03-01, 2024-03-01T12:00:00 (UTC), or 10min, 2h, 1d ago");
}

std::string time_of(std::int64_t microseconds) {
  const std::int64_t part = (microseconds % kMicroseconds + kMicroseconds) % kMicroseconds;
  std::array<char, 16> fraction;
  std::snprintf(fraction.data(), fraction.size(), ".%06dZ", static_cast<int>(part));
  std::string text = time_text((microseconds - part) / kMicroseconds);
  text.pop_back();
  return text + fraction.data();
}

// Nothing if it isn't a number and a unit.
std::optional<std::int64_t> age_of(std::string_view text) {
  constexpr std::array<std::pair<std::string_view, std::int64_t>, 4> kUnits{
      {{"s", 1}, {"min", 60}, {"h", 3600}, {"d", 86400}}};
  constexpr std::int64_t kLongest = 1'000'000;  // of any unit
  std::int64_t number = -1;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || number < 0 || number > kLongest) {
    return std::nullopt;
  }
  for (const auto& [name, seconds] : kUnits) {
    if (name == text.substr(static_cast<std::size_t>(end - text.data()))) {
      return number * seconds * kMicroseconds;
    }
  }
  return std::nullopt;
}

bool is_in_range(std::string_view time, std::size_t at, int least, int most) {
  int number = 0;
  std::from_chars(time.data() + at, time.data() + at + 2, number);
  return number >= least && number <= most;
}

// As a prefix of kForm that ends behind a whole field.
bool has_form(std::string_view text) {
  if (text.size() > kForm.size() ||
      (text.size() < 21 && text.size() != 10 && text.size() != 16 && text.size() != 19)) {
    return false;
  }
  for (std::size_t i = 0; i < text.size(); ++i) {
    const bool is_digit = text[i] >= '0' && text[i] <= '9';
    if (kForm[i] == 'd' ? !is_digit : text[i] != kForm[i]) {
      return false;
    }
  }
  return true;
}

}  // namespace

std::string record_time(std::string_view text, std::int64_t now) {
  if (const auto age = age_of(text)) {
    return time_of(now - *age);
  }
  std::string time(text);
  if (time.size() > 10 && time.back() == 'Z') {
    time.pop_back();
  }
  if (time.size() > 10 && time[10] == ' ') {
    time[10] = 'T';
  }
  if (!has_form(time)) {
    refuse(text);
  }
  time += kEarliest.substr(time.size());
  if (!is_in_range(time, 5, 1, 12) || !is_in_range(time, 8, 1, 31) ||
      !is_in_range(time, 11, 0, 23) || !is_in_range(time, 14, 0, 59) ||
      !is_in_range(time, 17, 0, 60)) {
    refuse(text);
  }
  return time;
}

Filter::Filter() = default;
Filter::~Filter() = default;

void Filter::match(const std::string& expression) {
  re2::RE2::Options options;
  options.set_log_errors(false);
  expression_ = std::make_unique<re2::RE2>(expression, options);
  if (!expression_->ok()) {
    throw Failure("malformed regular expression " + shown(expression) + ": " +
                  shown(expression_->error()));
  }
}

bool Filter::wants_head(const Head& head) const {
  return (!level || head.level <= *level) && (!pid || head.pid == *pid) &&
         (since.empty() || head.time >= since) && (until.empty() || head.time <= until);
}

bool Filter::wants(const LogRecord& record) const {
  const auto head = record.head();
  if (head ? !wants_head(*head) : wants_only_records()) {
    return false;
  }
  const std::string_view text = record.message();
  return expression_ == nullptr ||
         re2::RE2::PartialMatch(re2::StringPiece(text.data(), text.size()), *expression_);
}

}  // namespace quorvane::tool
