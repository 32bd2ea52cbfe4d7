#include <memory>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "qvutil/cli/commands.h"
#include "qvutil/commands/plot.h"
#include "qvutil/commands/report.h"
#include "qvutil/commands/stats.h"

namespace quorvane::tool {
namespace {

constexpr const char* kGaugeHelp = "Metrics that are gauges; reports don't tell them from counters";

void add_patterns(CLI::App* command, const std::string& name, std::vector<std::string>& patterns,
                  const std::string& help) {
  command->add_option(name, patterns, help)->type_name("PATTERN")->allow_extra_args(false);
}

void add_stats(CLI::App& app, Action& action) {
  const auto options = std::make_shared<StatsOptions>();
  CLI::App* command = app.add_subcommand("stats", "What processes have counted");
  command->add_option("FILE", options->path, "Statistics reports; - is standard input")->required();
  command->add_flag("--follow", options->follow, "Wait for more reports, until interrupted");
  command->add_flag("--rate", options->rate, "What each interval has added, a second");
  command->add_flag("--csv", options->csv, "Print one row a value, for all reports");
  command->add_flag("--prometheus", options->prometheus, "Print the text format of Prometheus");
  add_patterns(command, "--gauge", options->gauges, kGaugeHelp);
  command->callback(
      [&action, options] { action = [options](Console& c) { return stats(c, *options); }; });
}

void add_plot(CLI::App& app, Action& action) {
  const auto options = std::make_shared<PlotOptions>();
  CLI::App* command = app.add_subcommand("plot", "Statistics over time as a picture");
  command->add_option("FILE", options->source.files, "Statistics reports; - is standard input")
      ->required();
  command->add_option("-o,--output", options->output, "The picture: a name in .svg, .png or .html")
      ->required();
  add_patterns(command, "--metric", options->source.metrics, "Only these metrics; * is any text");
  add_patterns(command, "--gauge", options->source.gauges, kGaugeHelp);
  command->callback(
      [&action, options] { action = [options](Console& c) { return plot(c, *options); }; });
}

void add_files(CLI::App* command, const std::string& name, std::vector<std::string>& files,
               const std::string& help) {
  command->add_option(name, files, help)->type_name("FILE")->allow_extra_args(false);
}

void add_report(CLI::App& app, Action& action) {
  const auto options = std::make_shared<ReportOptions>();
  CLI::App* command =
      app.add_subcommand("report", "Caches, statistics, timeline, errors: one page");
  command->add_option("ROOT", options->roots, "Directories of caches")->required();
  command->add_option("-o,--output", options->output, "The page: HTML that needs no other file")
      ->required();
  add_files(command, "--stats", options->stats, "Statistics reports");
  add_files(command, "--trace", options->traces, "Trace files");
  add_files(command, "--log", options->logs, "Logs");
  add_patterns(command, "--gauge", options->gauges, kGaugeHelp);
  command->callback(
      [&action, options] { action = [options](Console& c) { return report(c, *options); }; });
}

}  // namespace

void add_statistics(CLI::App& app, Action& action) {
  add_stats(app, action);
  add_plot(app, action);
  add_report(app, action);
}

}  // namespace quorvane::tool
