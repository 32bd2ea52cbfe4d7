// qvutil stats: what processes have counted.
#ifndef TOOLS_QVUTIL_COMMANDS_STATS_H_
#define TOOLS_QVUTIL_COMMANDS_STATS_H_

#include <string>
#include <vector>

#include "qvutil/output/console.h"
#include "qvutil/output/outcome.h"

namespace quorvane::tool {

struct StatsOptions {
  std::string path;  // of a report file; "-": standard input
  bool follow = false;
  bool rate = false;                // what each interval has added, a second
  bool csv = false;                 // one row a value
  bool prometheus = false;          // the text format
  std::vector<std::string> gauges;  // patterns for metrics that are gauges
};

// Found: some lines are no reports.
Outcome stats(Console& console, const StatsOptions& options);

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_COMMANDS_STATS_H_
