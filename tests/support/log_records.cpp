#include "support/log_records.h"

#include <gtest/gtest.h>

#include <regex>

namespace test {

std::optional<LogRecord> parse_record(const std::string& line) {
  static const std::regex format(
      R"(^\[ *([A-Z]+)\] (\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}Z), (\d+), (\d+), "([\s\S]*)"\n$)");
  static const std::regex level(R"(^\[(  OFF|ERROR| WARN| INFO|TRACE|DEBUG|  ALL|UNKNOWN)\])");
  std::smatch match;
  if (!std::regex_search(line, level) || !std::regex_match(line, match, format)) {
    return std::nullopt;
  }
  return LogRecord{match[1], match[2], std::stoi(match[3]), std::stoi(match[4]), match[5]};
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
