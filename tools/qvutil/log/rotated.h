// Which files hold a log that is rotated.
#ifndef TOOLS_QVUTIL_LOG_ROTATED_H_
#define TOOLS_QVUTIL_LOG_ROTATED_H_

#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "qvutil/log/source.h"
#include "qvutil/output/outcome.h"

namespace quorvane::tool {

using FileIds = std::set<std::pair<std::uint64_t, std::uint64_t>>;  // device and inode

// FILE.N and FILE.N.gz, the greatest N first, FILE-DATE and FILE-DATE.gz, the earliest date first,
// and then FILE itself; "-" is standard input. All are opened at once, so that a rotation
// meanwhile neither hides a file nor shows it twice. Leaves out those in `seen`, and adds the
// others. What can't be opened is added to `failures`, as is a log of which there is no file at
// all.
std::vector<std::unique_ptr<Source>> open_rotated(const std::string& path, FileIds& seen,
                                                  std::vector<Failure>& failures);

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_LOG_ROTATED_H_
