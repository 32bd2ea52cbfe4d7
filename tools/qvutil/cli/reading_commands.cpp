#include <memory>
#include <string>

#include <CLI/CLI.hpp>

#include "qvutil/cli/add_cache.h"
#include "qvutil/cli/commands.h"
#include "qvutil/cli/numbers.h"
#include "qvutil/commands/find.h"
#include "qvutil/commands/get.h"
#include "qvutil/commands/ls.h"
#include "qvutil/commands/show.h"
#include "qvutil/commands/top.h"
#include "qvutil/commands/verify.h"

namespace quorvane::tool {
namespace {

// Lets the command call `run` with its options.
template <typename Options>
void set_action(CLI::App& command, Action& action, const std::shared_ptr<Options>& options,
                Outcome (*run)(Console&, const Options&)) {
  command.callback([&action, options, run] {
    action = [options, run](Console& console) { return run(console, *options); };
  });
}

void add_ls(CLI::App& app, Action& action) {
  const auto options = std::make_shared<LsOptions>();
  CLI::App& command = *app.add_subcommand("ls", "The caches of a root, and whether they are whole");
  command.add_option("ROOT", options->root, "A directory; else QV_CACHE_STORE_ROOT")
      ->check([](const std::string& root) {
        return root.empty() ? "empty; leave it out for QV_CACHE_STORE_ROOT" : "";
      });
  command.footer("Looks at the structure only; `qvutil verify` reads every byte.");
  set_action(command, action, options, &ls);
}

void add_show(CLI::App& app, Action& action) {
  const auto options = std::make_shared<ShowOptions>();
  CLI::App& command = *app.add_subcommand("show", "The entries of a cache");
  add_cache(command, *options);
  command.add_flag("--hex", options->hex, "Keys and values as hexadecimal digits");
  command.add_flag("--full", options->full, "All bytes of long keys and values");
  command.add_option("--limit", options->limit, "The first N entries")->transform(whole_number(1));
  set_action(command, action, options, &show);
}

void add_get(CLI::App& app, Action& action) {
  const auto options = std::make_shared<GetOptions>();
  CLI::App& command = *app.add_subcommand("get", "The bytes of one value");
  add_cache(command, *options);
  command.add_option("KEY", options->key, "The key")->required();
  command.add_flag("--hex", options->hex, "KEY is in hexadecimal digits");
  command.add_option("--atom", options->atom, "Which atom, from 0, if there are several")
      ->transform(whole_number(0));
  set_action(command, action, options, &get);
}

void add_find(CLI::App& app, Action& action) {
  const auto options = std::make_shared<FindOptions>();
  CLI::App& command = *app.add_subcommand("find", "The keys of a cache, by prefix and size");
  add_cache(command, *options);
  command.add_option("--prefix", options->prefix, "Keys that begin with this");
  command.add_flag("--hex", options->hex, "The prefix, and the keys, in hexadecimal digits");
  command.add_option("--min-size", options->min_size, "Values of at least N bytes")
      ->transform(byte_count());
  command.add_option("--max-size", options->max_size, "Values of at most N bytes; 1kb is 1000")
      ->transform(byte_count());
  command.add_option("--limit", options->limit, "The first N keys")->transform(whole_number(1));
  set_action(command, action, options, &find);
}

void add_top(CLI::App& app, Action& action) {
  const auto options = std::make_shared<TopOptions>();
  CLI::App& command = *app.add_subcommand("top", "What takes the space of a cache");
  add_cache(command, *options);
  command.add_flag("--hex", options->hex, "Keys in hexadecimal digits");
  command.add_option("--largest", options->largest, "How many of the largest entries")
      ->transform(whole_number(0))
      ->capture_default_str();
  set_action(command, action, options, &top);
}

void add_verify(CLI::App& app, Action& action) {
  const auto options = std::make_shared<VerifyOptions>();
  CLI::App& command = *app.add_subcommand("verify", "Check every byte of caches");
  CLI::Option* const caches =
      command.add_option("CACHE", options->caches, "ROOT/NAME, or names under QV_CACHE_STORE_ROOT");
  add_kind(command, options->kind);
  command.add_option("--root", options->root, "All caches of ROOT, else of QV_CACHE_STORE_ROOT")
      ->type_name("[ROOT]")
      ->expected(0, 1)
      ->excludes(caches);
  set_action(command, action, options, &verify);
}

}  // namespace

void add_reading(CLI::App& app, Action& action) {
  add_ls(app, action);
  add_show(app, action);
  add_get(app, action);
  add_find(app, action);
  add_top(app, action);
  add_verify(app, action);
}

}  // namespace quorvane::tool
