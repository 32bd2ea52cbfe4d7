// qvutil log: the records of logs.
#ifndef TOOLS_QVUTIL_COMMANDS_LOG_H_
#define TOOLS_QVUTIL_COMMANDS_LOG_H_

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "qvutil/output/console.h"
#include "qvutil/output/outcome.h"

namespace quorvane::tool {

struct LogOptions {
  std::vector<std::string> files;  // "-" is standard input
  std::string level;               // empty: all
  std::optional<std::int64_t> pid;
  std::string since;  // see record_time(); empty: from the beginning
  std::string until;
  std::string match;  // a regular expression; empty: any message
  bool follow = false;
};

// Found: something couldn't be read. With `follow` it doesn't return.
Outcome log(Console& console, const LogOptions& options);

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_COMMANDS_LOG_H_
