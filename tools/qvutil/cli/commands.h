// The groups of commands. Each function adds the commands of its group to the parser, with
// their options and help.
#ifndef TOOLS_QVUTIL_CLI_COMMANDS_H_
#define TOOLS_QVUTIL_CLI_COMMANDS_H_

#include <functional>

#include "qvutil/output/console.h"
#include "qvutil/output/outcome.h"

namespace CLI {
class App;
}

namespace quorvane::tool {

// What the chosen command does. A command's callback only sets it; it runs after all options
// have been checked.
using Action = std::function<Outcome(Console&)>;

void add_reading(CLI::App& app, Action& action);     // ls, show, get, find, top, verify
void add_mending(CLI::App& app, Action& action);     // repair, rm, compact, convert
void add_statistics(CLI::App& app, Action& action);  // stats, plot, report
void add_events(CLI::App& app, Action& action);      // log, trace
void add_pids(CLI::App& app, Action& action);

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_CLI_COMMANDS_H_
