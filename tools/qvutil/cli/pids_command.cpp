#include <memory>

#include <CLI/CLI.hpp>

#include "qvutil/cli/commands.h"
#include "qvutil/commands/pids.h"

namespace quorvane::tool {

void add_pids(CLI::App& app, Action& action) {
  const auto options = std::make_shared<PidsOptions>();
  CLI::App* command = app.add_subcommand("pids", "Which processes of a set live");
  command->add_option("PATH", options->path, "A process id set, or a directory with pid files")
      ->required();
  command->add_flag("--prune", options->prune, "Remove those that are dead");
  command->callback(
      [&action, options] { action = [options](Console& c) { return pids(c, *options); }; });
}

}  // namespace quorvane::tool
