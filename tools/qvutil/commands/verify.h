// qvutil verify: checks every byte of caches.
#ifndef TOOLS_QVUTIL_COMMANDS_VERIFY_H_
#define TOOLS_QVUTIL_COMMANDS_VERIFY_H_

#include <optional>
#include <string>
#include <vector>

#include "qvutil/output/console.h"
#include "qvutil/output/outcome.h"

namespace quorvane::tool {

struct VerifyOptions {
  std::vector<std::string> caches;
  std::string kind;                 // empty: found out
  std::optional<std::string> root;  // all caches of this root; empty: that of the environment
};

// Found: a cache is damaged. Failed: one can't be read.
Outcome verify(Console& console, const VerifyOptions& options);

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_COMMANDS_VERIFY_H_
