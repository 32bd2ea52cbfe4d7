// A record of the library's log.
#ifndef TOOLS_QVUTIL_LOG_RECORD_H_
#define TOOLS_QVUTIL_LOG_RECORD_H_

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace quorvane::tool {

// From the most severe one on; each includes those before it.
enum class Level { off, error, warn, info, trace, debug, all };

// "ERROR".
const char* name_of(Level level);

// The level with this name, in capitals or not. Throws Failure if there is none.
Level level_of(std::string_view name);

// What a record begins with, up to the quote before its message.
struct Head {
  Level level = Level::off;
  std::string_view time;  // "2024-03-01T12:00:00.000042Z": in the order of time when sorted
  std::int64_t pid = 0;
  std::int64_t tid = 0;
  std::size_t size = 0;
};

// No head is longer.
constexpr std::size_t kLongestHead = 8 + 27 + 2 + 10 + 2 + 10 + 3;

// The head with which `line` begins; the view is into `line`.
std::optional<Head> head_of(std::string_view line);

// A record, or bytes between records.
struct LogRecord {
  std::string bytes;  // as they are in the file
  std::string file;

  // Nothing if it is no record.
  std::optional<Head> head() const { return head_of(bytes); }
  // Without the quotes and the newline; all bytes if it is no record.
  std::string_view message() const;
};

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_LOG_RECORD_H_
