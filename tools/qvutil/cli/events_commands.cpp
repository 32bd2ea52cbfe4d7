#include <memory>

#include <CLI/CLI.hpp>

#include "qvutil/cli/commands.h"
#include "qvutil/cli/numbers.h"
#include "qvutil/commands/log.h"
#include "qvutil/commands/trace.h"

namespace quorvane::tool {
namespace {

void add_log(CLI::App& app, Action& action) {
  const auto options = std::make_shared<LogOptions>();
  CLI::App* command = app.add_subcommand("log", "The records of logs, in the order of time");
  command->add_option("FILE", options->files, "A log; FILE.N and FILE.N.gz are read, too")
      ->required();
  command->add_option("--level", options->level, "Only this level and more severe ones");
  command->add_option("--pid", options->pid, "Only records of this process")
      ->transform(whole_number(0));
  command->add_option("--since", options->since,
                      "Only from this time on: 2024-03-01T12:00 (UTC), or 10min, 2h, 1d ago");
  command->add_option("--until", options->until, "Only up to this time");
  command->add_option("--match", options->match,
                      "Only messages in which this regular expression matches");
  command->add_flag("--follow", options->follow, "Go on with what is written from now on");
  command->callback(
      [&action, options] { action = [options](Console& c) { return log(c, *options); }; });
}

void add_trace(CLI::App& app, Action& action) {
  const auto options = std::make_shared<TraceOptions>();
  CLI::App* command = app.add_subcommand("trace", "The traces of processes as one timeline");
  command->add_option("FILE", options->files, "A trace of libqvtrace.so")->required();
  command->add_option("-o,--output", options->output,
                      "Write one trace (.json) or a picture (.svg), not a table");
  command->callback(
      [&action, options] { action = [options](Console& c) { return trace(c, *options); }; });
}

}  // namespace

void add_events(CLI::App& app, Action& action) {
  add_log(app, action);
  add_trace(app, action);
}

}  // namespace quorvane::tool
