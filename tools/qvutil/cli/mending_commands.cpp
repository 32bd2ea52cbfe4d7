#include <memory>
#include <string>

#include <CLI/CLI.hpp>

#include "qvutil/cli/add_cache.h"
#include "qvutil/cli/commands.h"
#include "qvutil/commands/compact.h"
#include "qvutil/commands/convert.h"
#include "qvutil/commands/repair.h"
#include "qvutil/commands/rm.h"

namespace quorvane::tool {
namespace {

void add_repair(CLI::App& app, Action& action) {
  const auto options = std::make_shared<RepairOptions>();
  CLI::App* command = app.add_subcommand("repair", "Keep what is whole of a damaged cache");
  add_cache(*command, *options);
  command->add_flag("--dry-run", options->dry_run, "Change nothing, say what would be lost");
  command->callback(
      [&action, options] { action = [options](Console& c) { return repair(c, *options); }; });
}

void add_rm(CLI::App& app, Action& action) {
  const auto options = std::make_shared<RmOptions>();
  CLI::App* command = app.add_subcommand("rm", "Remove entries");
  add_cache(*command, *options);
  command->add_option("KEY", options->keys, "The keys to remove")->type_name("")->required();
  command->add_flag("--hex", options->hex, "The keys are hexadecimal");
  command->callback(
      [&action, options] { action = [options](Console& c) { return rm(c, *options); }; });
}

void add_compact(CLI::App& app, Action& action) {
  const auto options = std::make_shared<CompactOptions>();
  CLI::App* command = app.add_subcommand("compact", "Drop what takes space and is no entry");
  add_cache(*command, *options);
  command->callback(
      [&action, options] { action = [options](Console& c) { return compact(c, *options); }; });
}

void add_convert(CLI::App& app, Action& action) {
  const auto options = std::make_shared<ConvertOptions>();
  CLI::App* command = app.add_subcommand("convert", "Copy a cache to another kind of store");
  command->add_option("SOURCE", options->sources, "A cache, or files with JSON lines (-: stdin)")
      ->type_name("")
      ->required();
  command->add_option("--to", options->to, "basic, lazy_lookup, indexed, jsonl or remote")
      ->type_name("KIND")
      ->required()
      ->check(CLI::IsMember({"basic", "lazy_lookup", "indexed", "jsonl", "remote"}));
  command
      ->add_option_function<std::string>(
          "--from",
          [options](const std::string& from) {
            if (from == "remote") {
              throw CLI::ValidationError("--from remote",
                                         "servers don't list the entries of a cache");
            }
            options->from_json_lines = true;
          },
          "jsonl: the sources are JSON lines")
      ->type_name("KIND")
      ->check(CLI::IsMember({"jsonl", "remote"}));
  const CLI::Option* const as =
      command->add_option("--as", options->as, "The new cache; otherwise the name of the source")
          ->type_name("CACHE");
  command->add_flag("--force", options->force, "Replace the new cache if it is there");
  add_kind(*command, options->kind);
  command->callback([&action, options, as] {
    if (options->to == "jsonl" && as->count() != 0) {
      throw CLI::ValidationError("--as", "JSON lines go to standard output");
    }
    if (!options->from_json_lines && options->sources.size() != 1) {
      throw CLI::ValidationError("SOURCE", "only files with JSON lines may be several");
    }
    action = [options](Console& c) { return convert(c, *options); };
  });
}

}  // namespace

void add_mending(CLI::App& app, Action& action) {
  add_repair(app, action);
  add_rm(app, action);
  add_compact(app, action);
  add_convert(app, action);
}

}  // namespace quorvane::tool
