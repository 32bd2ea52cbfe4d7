// qvutil trace: the timelines of several processes.
#ifndef TOOLS_QVUTIL_COMMANDS_TRACE_H_
#define TOOLS_QVUTIL_COMMANDS_TRACE_H_

#include <string>
#include <vector>

#include "qvutil/output/console.h"
#include "qvutil/output/outcome.h"

namespace quorvane::tool {

struct TraceOptions {
  std::vector<std::string> files;
  std::string output;  // ends in .json or .svg; empty: print a table
};

// Found: lines were damaged and left out.
Outcome trace(Console& console, const TraceOptions& options);

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_COMMANDS_TRACE_H_
