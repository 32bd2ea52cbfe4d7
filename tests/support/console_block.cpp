#include "support/console_block.h"

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <regex>
#include <utility>

#include "support/lines.h"
#include "support/scenario.h"

namespace test {

std::string section_of(const std::string& document, const std::string& heading) {
  const std::size_t at = document.find("\n" + heading + "\n");
  if (at == std::string::npos) {
    return "";
  }
  const std::size_t level = heading.find(' ');
  const std::size_t first = at + heading.size() + 2;
  std::size_t end = document.size();
  for (std::size_t count = 1; count <= level; ++count) {
    end = std::min(end, document.find("\n" + std::string(count, '#') + " ", first - 1));
  }
  return document.substr(first, end - first);
}

std::vector<std::string> console_blocks(const std::string& text) {
  const std::string fence = "```console\n";
  std::vector<std::string> blocks;
  for (std::size_t at = 0; (at = text.find(fence, at)) != std::string::npos;) {
    at += fence.size();
    blocks.push_back(text.substr(at, text.find("```\n", at) - at));
  }
  return blocks;
}

std::vector<std::string> commands_in(const std::string& block) {
  std::vector<std::string> commands;
  bool goes_on = false;
  for (const std::string& line : lines_of(block)) {
    if (goes_on) {
      commands.back() += "\n" + line;
    } else if (line.rfind("$ ", 0) == 0) {
      commands.push_back(line.substr(2));
    } else {
      continue;
    }
    goes_on = line.back() == '\\';
  }
  return commands;
}

std::string quoted(const std::string& text) {
  return "'" + std::regex_replace(text, std::regex("'"), R"('\'')") + "'";
}

std::string run_block(const std::string& block, const std::string& directory) {
  const std::string output = quoted(directory + ".out");
  std::string script = "cd " + quoted(directory) + " || exit\nexec 2>&1\n";
  for (const std::string& command : commands_in(block)) {
    script += "status=$?; printf '$ %s\\n' " + quoted(command) + "; (exit $status)\n{ " + command;
    script += "\n} >" + output + " 2>&1; status=$?; sed '$a\\' " + output + "; (exit $status)\n";
  }
  script += "rm " + output + "\n";
  const char* const path = std::getenv("PATH");
  return run_program("/bin/sh", {"-c", script},
                     {{"PATH", QV_BINARY_DIR "/bin:" + std::string(path == nullptr ? "" : path)},
                      {"HOME", directory},
                      {"LD_LIBRARY_PATH", QV_BINARY_DIR "/lib"},
                      {"ASAN_OPTIONS", with_option("ASAN_OPTIONS", "verify_asan_link_order=0")},
                      {"QV_LOG_LEVEL", {}},
                      {"QV_LOG_FILE", "/dev/null"}})
      .out;
}

std::string normalised(std::string text) {
  static const std::vector<std::pair<std::regex, std::string>> rules{
      {std::regex(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d(\.\d+)?Z)"), "TIME"},
      {std::regex(R"(TIME, \d+, \d+, ")"), "TIME, PID, TID, \""},
      {std::regex(R"(\b\d+(\.\d+)? [kMGT]?B/s)"), "RATE"},
      {std::regex(R"(\b\d+(\.\d+)? (us|ms|s|min|h|d)\b)"), "DURATION"},
      {std::regex(R"( +)"), " "},
      {std::regex(R"((^|\n) )"), "$1"}};
  for (const auto& [pattern, replacement] : rules) {
    text = std::regex_replace(text, pattern, replacement);
  }
  return text;
}

std::string as_shown(const std::string& text, const Stage& stage) {
  static const std::regex word(R"(\w+)");
  std::string result;
  auto rest = text.begin();
  for (std::sregex_iterator at(text.begin(), text.end(), word), end; at != end; ++at) {
    const auto found = stage.shown_as.find(at->str());
    result.append(rest, (*at)[0].first);
    result += found == stage.shown_as.end() ? at->str() : found->second;
    rest = (*at)[0].second;
  }
  return result.append(rest, text.end());
}

}  // namespace test
