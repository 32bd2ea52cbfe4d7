// A small language for scenarios that make a store with options and use it.
#ifndef TESTS_SUPPORT_MADE_STORE_H_
#define TESTS_SUPPORT_MADE_STORE_H_

#include <quorvane/file_store.h>
#include <sys/resource.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "support/lazy_files.h"
#include "support/processes.h"
#include "support/scenario.h"
#include "support/store_bytes.h"
#include "support/temp_dir.h"

namespace test {

constexpr unsigned kHangSeconds = 60;

// The options of the store "maps" that the words name, such as "lazy" and "limit=5"; a
// basic one without such a word. Other
// words are for use_store().
inline quorvane::cache::StoreOptions options_of(const Arguments& words) {
  quorvane::cache::StoreOptions options;
  options.kind = quorvane::cache::StoreKind::basic;
  options.name = "maps";
  for (const std::string& word : words) {
    if (word == "lazy") {
      options.kind = quorvane::cache::StoreKind::lazy_lookup;
    } else if (word == "indexed") {
      options.kind = quorvane::cache::StoreKind::indexed;
    } else if (word == "read-only") {
      options.read_only = true;
    } else if (word == "must-exist") {
      options.must_exist = true;
    } else if (word.rfind("root=", 0) == 0) {
      options.root = word.substr(5);
    } else if (word.rfind("limit=", 0) == 0) {
      options.size_limit = std::stoull(word.substr(6));
    }
  }
  return options;
}

// Does what the words say, in their order, and prints the results.
inline void use_store(quorvane::cache::Store& store, const Arguments& words) {
  for (const std::string& word : words) {
    if (word == "load") {
      quorvane::cache::EntryMap out;
      const bool ok = store.try_load(out);
      std::printf("load %d\n%s", ok, ok ? listing(out).c_str() : "");
    } else if (word == "store") {
      std::printf("store %d\n", store.try_store_diff(entry_map({{"new", {"9"}}})));
    } else if (word == "store-nothing") {
      std::printf("store nothing %d\n", store.try_store_diff({}));
    }
  }
}

inline int make_and_use_store(const Arguments& words) {
  alarm(kHangSeconds);
  const auto store = quorvane::cache::make_store(options_of(words));
  if (store == nullptr) {
    std::printf("null");
    return 0;
  }
  std::printf("valid %d\n", store->is_valid());
  use_store(*store, words);
  return 0;
}

inline const std::vector<Entry> kStoredEntries{{"b", {"2", "3"}}, {"aa", {"1"}}};
inline const std::string kStoredListing = "b=2,3\naa=1\n";

// The files of the store "maps" with entries, of each kind.
inline void write_stores(const std::string& root) {
  write_file(root + "/maps", basic_file(kStoredEntries));
  write_lazy_files(root, lazy_files(kStoredEntries));
}

// Appends to a store in a child that the kernel kills in the middle of it: a file may not
// grow beyond a limit. The lock file then holds the note of the append. Call it in a scenario.
inline bool append_and_be_killed(const quorvane::cache::StoreOptions& options) {
  const pid_t child = in_child([&options] {
    const rlimit no_core{0, 0};
    const rlimit file{100000, 100000};
    setrlimit(RLIMIT_CORE, &no_core);
    setrlimit(RLIMIT_FSIZE, &file);
    const auto store = quorvane::cache::make_store(options);
    store->try_store_diff(entry_map({{"large", {std::string(1000000, 'x')}}}));
    return 0;
  });
  return wait_for(child) == kKilledBy + SIGXFSZ;
}

}  // namespace test

#endif  // TESTS_SUPPORT_MADE_STORE_H_
