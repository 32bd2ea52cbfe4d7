#include "qvutil/rewrite/json_lines.h"

#include <cerrno>
#include <filesystem>
#include <system_error>
#include <vector>

#include "qvutil/output/json.h"
#include "qvutil/output/outcome.h"
#include "qvutil/output/text.h"

namespace quorvane::tool {
namespace {

struct ParsedEntry {
  std::string key;
  std::vector<std::string> atoms;
};

// An empty key or atom could be stored, but never read back. bytes_of_json prints what it refuses,
// and that may be nested so deeply that there is no stack for it.
std::string some_bytes_of(const Json& json) {
  const bool is_flat =
      json.is_string() || (json.is_object() && json.size() == 1 && json.begin()->is_string());
  if (!is_flat) {
    throw Failure("expected a string or {\"hex\": ...}");
  }
  std::string bytes = bytes_of_json(json);
  if (bytes.empty()) {
    throw Failure("keys and atoms can't be empty");
  }
  return bytes;
}

ParsedEntry parse(const std::string& line) {
  const Json json = Json::parse(line, nullptr, false);
  if (!json.is_object() || json.size() != 2 || !json.contains("key") || !json.contains("atoms") ||
      !json["atoms"].is_array() || json["atoms"].empty()) {
    throw Failure("expected {\"key\": ..., \"atoms\": [...]}");
  }
  ParsedEntry entry{some_bytes_of(json["key"]), {}};
  for (const Json& atom : json["atoms"]) {
    entry.atoms.push_back(some_bytes_of(atom));
  }
  return entry;
}

ParsedEntry parse_line(const std::string& line, const std::string& name, std::uint64_t number) {
  try {
    return parse(line);
  } catch (const Failure& failure) {
    throw Failure(shown(name) + ", line " + std::to_string(number) + ": " + failure.what());
  }
}

// It is only used for many keys, so a wrong TMPDIR is no reason to fail here.
std::string temporary_directory() {
  std::error_code error;
  const std::filesystem::path path = std::filesystem::temp_directory_path(error);
  return error ? "/tmp" : path.string();
}

}  // namespace

JsonLinesWriter::JsonLinesWriter(Console& console)
    : console_(console), seen_(temporary_directory()) {}

bool JsonLinesWriter::add(std::string_view key, const Atoms& atoms) {
  if (!seen_.add(key)) {
    return false;
  }
  Json entry{{"key", json_of_bytes(key)}, {"atoms", Json::array()}};
  for (const std::string_view atom : atoms) {
    entry["atoms"].push_back(json_of_bytes(atom));
  }
  print_json(console_, entry);
  if (!console_.out()) {
    throw failure_of("can't write to standard output", errno);
  }
  return true;
}

void read_json_lines(std::istream& lines, const std::string& name, EntryWriter& writer,
                     JsonLinesRead& read) {
  std::string line;
  for (std::uint64_t number = 1; std::getline(lines, line); ++number) {
    if (line.find_first_not_of(" \t\r") == std::string::npos) {
      continue;
    }
    const ParsedEntry entry = parse_line(line, name, number);
    ++(writer.add(entry.key, {entry.atoms.begin(), entry.atoms.end()}) ? read.entries
                                                                       : read.repeated);
  }
  if (lines.bad()) {
    throw failure_of("can't read " + shown(name), errno);
  }
}

}  // namespace quorvane::tool
