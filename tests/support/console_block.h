// Runs the ```console blocks of a document: lines "$ COMMAND", each followed by what it prints.
#ifndef TESTS_SUPPORT_CONSOLE_BLOCK_H_
#define TESTS_SUPPORT_CONSOLE_BLOCK_H_

#include <sys/types.h>

#include <algorithm>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <map>
#include <regex>
#include <string>
#include <utility>
#include <vector>

#include "support/lines.h"
#include "support/processes.h"
#include "support/scenario.h"

namespace test {

// What a block needs besides the files in its directory.
struct Stage {
  Stage() = default;
  Stage(Stage&&) = default;
  Stage(const Stage&) = delete;
  Stage& operator=(const Stage&) = delete;
  ~Stage() {
    for (const pid_t child : children) {
      kill(child, SIGKILL);
      wait_for(child);
    }
  }

  // Words of the output, and what the document has in their place: {"31337", "4711"} for a
  // process id.
  std::map<std::string, std::string> shown_as;
  std::vector<pid_t> children;  // killed at the end
};

// The text of a section, from behind its heading to the next heading of its level or above.
inline std::string section_of(const std::string& document, const std::string& heading) {
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

// The ```console blocks of a text, without the fences.
inline std::vector<std::string> console_blocks(const std::string& text) {
  const std::string fence = "```console\n";
  std::vector<std::string> blocks;
  for (std::size_t at = 0; (at = text.find(fence, at)) != std::string::npos;) {
    at += fence.size();
    blocks.push_back(text.substr(at, text.find("```\n", at) - at));
  }
  return blocks;
}

// The commands of a block. One that ends with a backslash goes on in the next line.
inline std::vector<std::string> commands_in(const std::string& block) {
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

inline std::string quoted(const std::string& text) {
  return "'" + std::regex_replace(text, std::regex("'"), R"('\'')") + "'";
}

// Runs the commands in one shell in `directory`, with the built programs in PATH. Returns what a
// terminal would show, in the form of a block: each command begins a line. $? is that of the
// previous command.
inline std::string run_block(const std::string& block, const std::string& directory) {
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

// The text without what differs from run to run: times, durations, rates, the ids in log records,
// and the widths of columns, which is also the space before a right-aligned one that comes first.
inline std::string normalised(std::string text) {
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

// `text` with the words of the document. A replacement is not looked at again: it may be the id of
// another process.
inline std::string as_shown(const std::string& text, const Stage& stage) {
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

#endif  // TESTS_SUPPORT_CONSOLE_BLOCK_H_
