// Caches for tests of the tool: made and read by the library.
#ifndef TESTS_SUPPORT_TOOL_CACHES_H_
#define TESTS_SUPPORT_TOOL_CACHES_H_

#include <quorvane/file_store.h>
#include <sys/syscall.h>

#include <map>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "qvutil/output/console.h"
#include "qvutil/output/outcome.h"
#include "qvutil/store/cache_files.h"
#include "support/refuse.h"
#include "support/store_bytes.h"
#include "support/temp_dir.h"

namespace test {

constexpr quorvane::tool::Kind kAllKinds[] = {
    quorvane::tool::Kind::basic, quorvane::tool::Kind::lazy_lookup, quorvane::tool::Kind::indexed};

using Content = std::map<std::string, std::vector<std::string>>;

// For parameterised tests.
inline std::string kind_name(const ::testing::TestParamInfo<quorvane::tool::Kind>& info) {
  return quorvane::tool::name_of(info.param);
}

inline std::unique_ptr<quorvane::cache::Store> store_of(const quorvane::tool::CacheFiles& cache) {
  static quorvane::cache::CleanupController no_limit(0);
  quorvane::cache::StoreOptions options;
  options.kind = cache.kind == quorvane::tool::Kind::basic ? quorvane::cache::StoreKind::basic
                 : cache.kind == quorvane::tool::Kind::lazy_lookup
                     ? quorvane::cache::StoreKind::lazy_lookup
                     : quorvane::cache::StoreKind::indexed;
  options.name = cache.name;
  options.root = cache.root;
  options.controller = &no_limit;
  return quorvane::cache::make_store(options);
}

// Whether the library has stored all of it.
inline bool store_all(const quorvane::tool::CacheFiles& cache, const Content& content) {
  quorvane::cache::EntryMap map;
  for (const auto& [key, atoms] : content) {
    map.emplace(buffer(key), buffers(atoms));
  }
  const auto store = store_of(cache);
  quorvane::cache::EntryMap loaded;
  return store->try_load(loaded) && store->try_store_diff(map);
}

// What the library reads; nothing if the cache doesn't open.
inline std::optional<Content> content_of(const quorvane::tool::CacheFiles& cache) {
  const auto store = store_of(cache);
  quorvane::cache::EntryMap map;
  if (!store->try_load(map)) {
    return std::nullopt;
  }
  auto* const lookup = dynamic_cast<quorvane::cache::LookupStore*>(store.get());
  if (lookup != nullptr && !lookup->try_read_all(map)) {
    return std::nullopt;
  }
  Content content;
  for (const auto& stored : map) {
    const Entry entry = entry_of(stored);
    content.emplace(entry.key, entry.atoms);
  }
  return content;
}

// From now on this process and its children wait for no disk: thousands of syncs would take most
// of a test's time, and a test can't tell whether they were made.
inline void sync_nothing() { refuse(SYS_fsync, 0); }

// A console whose output a test reads.
class HeardConsole {
 public:
  explicit HeardConsole(bool json = false) : console_(out_, err_, style_of(json)) {}

  quorvane::tool::Console& get() { return console_; }
  std::string out() const { return out_.str(); }
  std::string err() const { return err_.str(); }

 private:
  static quorvane::tool::Console::Style style_of(bool json) {
    quorvane::tool::Console::Style style;
    style.json = json;
    return style;
  }

  std::ostringstream out_;
  std::ostringstream err_;
  quorvane::tool::Console console_;
};

}  // namespace test

#endif  // TESTS_SUPPORT_TOOL_CACHES_H_
