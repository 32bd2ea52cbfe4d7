#include <CLI/CLI.hpp>

#include "qvutil/cli/commands.h"

namespace quorvane::tool {

void add_reading(CLI::App&, Action&) {}

}  // namespace quorvane::tool
