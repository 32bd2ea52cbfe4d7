#include "support/log_records.h"

#include <gtest/gtest.h>

#include <regex>

namespace test {

// The regex sees only the head, because its recursion depth grows with the text.
std::optional<LogRecord> parse_record(const std::string& line) {
  static const std::regex format(
      R"re(^\[(  OFF|ERROR| WARN| INFO|TRACE|DEBUG|  ALL|UNKNOWN)\] )re"
      R"re((\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}Z), (\d+), (\d+), ")re");
  static const std::string tail = "\"\n";
  const std::string head = line.substr(0, line.find('"') + 1);
  std::smatch match;
  if (!std::regex_match(head, match, format) || line.size() < head.size() + tail.size() ||
      line.compare(line.size() - tail.size(), tail.size(), tail) != 0) {
    return std::nullopt;
  }
  const std::string level = match[1];
  return LogRecord{level.substr(level.find_first_not_of(' ')), match[2], std::stoi(match[3]),
                   std::stoi(match[4]),
                   line.substr(head.size(), line.size() - head.size() - tail.size())};
}

std::vector<LogRecord> parse_records(const std::string& text) {
  std::vector<LogRecord> records;
  std::size_t begin = 0;
  while (begin < text.size()) {
    const std::size_t newline = text.find("\"\n", begin);
    const std::size_t end = newline == std::string::npos ? text.size() : newline + 2;
    const std::string line = text.substr(begin, end - begin);
    if (auto record = parse_record(line)) {
      records.push_back(*record);
    } else {
      ADD_FAILURE() << "not a record: " << line;
    }
    begin = end;
  }
  return records;
}

std::vector<std::string> level_and_message(const std::vector<LogRecord>& records) {
  std::vector<std::string> lines;
  for (const LogRecord& record : records) {
    lines.push_back(record.level + " " + record.message);
  }
  return lines;
}

}  // namespace test
