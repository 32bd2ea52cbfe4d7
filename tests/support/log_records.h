// Parsed log records.
#ifndef TESTS_SUPPORT_LOG_RECORDS_H_
#define TESTS_SUPPORT_LOG_RECORDS_H_

#include <optional>
#include <string>
#include <vector>

namespace test {

struct LogRecord {
  std::string level;  // "WARN", without padding
  std::string time;   // "2024-03-01T12:00:00.000042Z"
  int pid = 0;
  int tid = 0;
  std::string message;
};

// Parses one line, which ends in a newline. Returns nothing unless it is exactly one record.
std::optional<LogRecord> parse_record(const std::string& line);

// Parses all lines of `text`. A line that isn't a record fails the test.
std::vector<LogRecord> parse_records(const std::string& text);

// "LEVEL message" of each record.
std::vector<std::string> level_and_message(const std::vector<LogRecord>& records);

}  // namespace test

#endif  // TESTS_SUPPORT_LOG_RECORDS_H_
