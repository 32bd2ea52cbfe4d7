// qvutil convert: the entries of a cache in another kind of store.
#ifndef TOOLS_QVUTIL_COMMANDS_CONVERT_H_
#define TOOLS_QVUTIL_COMMANDS_CONVERT_H_

#include <string>
#include <vector>

#include "qvutil/output/console.h"
#include "qvutil/output/outcome.h"

namespace quorvane::tool {

struct ConvertOptions {
  std::vector<std::string> sources;  // a cache, or with from_json_lines files; "-": standard input
  bool from_json_lines = false;
  std::string kind;    // of the cache that is the source; "": any
  std::string to;      // the name of a kind, "jsonl" or "remote"
  std::string as;      // the new cache; "": has the name and the root of the source
  bool force = false;  // replace the new cache if it is there
};

// Found: the source is damaged. What is whole of it is converted.
Outcome convert(Console& console, const ConvertOptions& options);

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_COMMANDS_CONVERT_H_
