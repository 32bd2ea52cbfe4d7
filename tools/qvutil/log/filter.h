// Which records of a log are wanted.
#ifndef TOOLS_QVUTIL_LOG_FILTER_H_
#define TOOLS_QVUTIL_LOG_FILTER_H_

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "qvutil/log/record.h"

namespace re2 {
class RE2;
}

namespace quorvane::tool {

// The time that `text` means, in the form of a record's: UTC, "2024-03-01", "2024-03-01T12:00",
// with seconds or fractions of them, or "10min" before `now` (s, min, h, d; in microseconds since
// 1970). Throws Failure for anything else.
std::string record_time(std::string_view text, std::int64_t now);

class Filter {
 public:
  Filter();
  ~Filter();

  std::optional<Level> level;  // and those that are more severe
  std::optional<std::int64_t> pid;
  std::string since;  // times of records; empty: any
  std::string until;

  // Wants only messages in which the regular expression (of RE2's syntax) matches. Throws Failure
  // if it is malformed.
  void match(const std::string& expression);

  bool wants(const LogRecord& record) const;

  // Whether a level, a process or a time is asked for, which bytes that are no record don't have.
  bool wants_only_records() const { return level || pid || !since.empty() || !until.empty(); }

 private:
  bool wants_head(const Head& head) const;

  std::unique_ptr<re2::RE2> expression_;
};

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_LOG_FILTER_H_
