#include <CLI/CLI.hpp>

#include "qvutil/cli/commands.h"

namespace quorvane::tool {

void add_events(CLI::App&, Action&) {}

}  // namespace quorvane::tool
