// Options that commands for caches share.
#ifndef TOOLS_QVUTIL_CLI_ADD_CACHE_H_
#define TOOLS_QVUTIL_CLI_ADD_CACHE_H_

#include <string>

#include <CLI/CLI.hpp>

namespace quorvane::tool {

inline void add_kind(CLI::App& command, std::string& kind) {
  command.add_option("--kind", kind, "Of the cache, if several kinds have the name")
      ->check(CLI::IsMember({"basic", "lazy_lookup", "indexed"}));
}

template <typename Options>
void add_cache(CLI::App& command, Options& options) {
  command.add_option("CACHE", options.cache, "ROOT/NAME, or a name under QV_CACHE_STORE_ROOT")
      ->required();
  add_kind(command, options.kind);
}

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_CLI_ADD_CACHE_H_
