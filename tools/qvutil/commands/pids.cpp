#include "qvutil/commands/pids.h"

namespace quorvane::tool {

Outcome pids(Console&, const PidsOptions&) { throw Failure("not there yet"); }

}  // namespace quorvane::tool
