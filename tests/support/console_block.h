// Runs the ```console blocks of a document: lines "$ COMMAND", each followed by what it prints.
#ifndef TESTS_SUPPORT_CONSOLE_BLOCK_H_
#define TESTS_SUPPORT_CONSOLE_BLOCK_H_

#include <sys/types.h>

#include <csignal>
#include <cstdlib>
#include <map>
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
std::string section_of(const std::string& document, const std::string& heading);

// The ```console blocks of a text, without the fences.
std::vector<std::string> console_blocks(const std::string& text);

// The commands of a block. One that ends with a backslash goes on in the next line.
std::vector<std::string> commands_in(const std::string& block);

std::string quoted(const std::string& text);

// Runs the commands in one shell in `directory`, with the built programs in PATH. Returns what a
// terminal would show, in the form of a block: each command begins a line. $? is that of the
// previous command.
std::string run_block(const std::string& block, const std::string& directory);

// The text without what differs from run to run: times, durations, rates, the ids in log records,
// and the widths of columns, which is also the space before a right-aligned one that comes first.
std::string normalised(std::string text);

// `text` with the words of the document. A replacement is not looked at again: it may be the id of
// another process.
std::string as_shown(const std::string& text, const Stage& stage);

}  // namespace test

#endif  // TESTS_SUPPORT_CONSOLE_BLOCK_H_
