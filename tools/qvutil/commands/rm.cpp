#include "qvutil/commands/rm.h"

#include <map>

#include "qvutil/output/json.h"
#include "qvutil/output/text.h"
#include "qvutil/rewrite/copier.h"
#include "qvutil/rewrite/file_calls.h"
#include "qvutil/rewrite/install.h"
#include "qvutil/rewrite/workspace.h"
#include "qvutil/store/cache_files.h"
#include "qvutil/store/lock.h"

namespace quorvane::tool {
namespace {

// Each key, and whether the cache has had it.
using Keys = std::map<std::string, bool, std::less<>>;

Keys keys_of(const RmOptions& options) {
  Keys keys;
  for (const std::string& key : options.keys) {
    keys.emplace(options.hex ? bytes_of_hex(key) : key, false);
  }
  return keys;
}

void remove(Console& console, const CacheFiles& cache, Keys& keys) {
  expect_no_links(cache);
  const WriteLock lock(console, cache);
  const Workspace workspace(cache);
  const auto writer = make_writer(workspace.staged());
  bool is_any_found = false;
  Copier copier(*writer, [&](const Entry& entry) {
    const auto key = keys.find(entry.key);
    if (key != keys.end()) {
      key->second = is_any_found = true;
    }
    return key == keys.end();
  });
  Progress progress(console, "rewriting " + shown(cache.name), bytes_of(cache));
  scan_locked(cache, copier, progress);
  copier.places().expect_none(cache);
  if (is_any_found) {
    writer->finish();
    install(workspace.staged(), cache);
  }
}

void print(Console& console, const CacheFiles& cache, const Keys& keys) {
  for (const auto& [key, is_removed] : keys) {
    if (console.json()) {
      print_json(console, {{"key", json_of_bytes(key)}, {"removed", is_removed}});
    } else if (!is_removed) {
      console.err() << shown(cache.name) << " has no key " << shown(key) << "\n";
    }
  }
}

}  // namespace

Outcome rm(Console& console, const RmOptions& options) {
  Keys keys = keys_of(options);
  const CacheFiles cache = find_cache(options.cache, kind_named(options.kind));
  remove(console, cache, keys);
  print(console, cache, keys);
  for (const auto& [key, is_removed] : keys) {
    if (!is_removed) {
      return Outcome::found;
    }
  }
  return Outcome::fine;
}

}  // namespace quorvane::tool
