// The store "maps" of a scenario's root, of either kind. Its operations print their results.
#ifndef TESTS_SUPPORT_STORE_MAPS_H_
#define TESTS_SUPPORT_STORE_MAPS_H_

#include <quorvane/cache.h>
#include <quorvane/file_store.h>

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include "support/lazy_files.h"
#include "support/scenario.h"
#include "support/store_bytes.h"
#include "support/store_root.h"
#include "support/temp_dir.h"

namespace test {

template <typename StoreType>
struct Maps {
  static constexpr bool kIsLazy = std::is_same_v<StoreType, quorvane::cache::LazyLookupStore>;
  static constexpr auto kKind =
      kIsLazy ? quorvane::cache::StoreKind::lazy_lookup : quorvane::cache::StoreKind::basic;

  explicit Maps(std::uint64_t threshold = 0) : controller(threshold) {}

  void load() {
    quorvane::cache::EntryMap out;
    load_into(out);
  }
  void load_into(quorvane::cache::EntryMap& out) {
    const bool ok = store.try_nonlock_load(out);
    // The atoms of a failed lazy load are dangling views.
    const bool has_atoms = ok || !kIsLazy;
    std::printf("load %d\n%s", ok,
                has_atoms ? listing(out).c_str() : listing(keys_of(out)).c_str());
  }
  void scan() {
    quorvane::cache::KeySet keys;
    const bool ok = store.try_nonlock_load_new_keys(keys);
    std::printf("scan %d\n%s", ok, listing(keys).c_str());
  }
  void append(const std::vector<Entry>& entries, const std::vector<std::string>& foreign = {}) {
    append_map(entry_map(entries), foreign);
  }
  void append_map(const quorvane::cache::EntryMap& entries,
                  const std::vector<std::string>& foreign = {}) {
    std::printf("append %d\n", store.try_nonlock_append(entries, key_set(foreign)));
  }

  // Appends as another process does.
  static void others_append(const std::vector<Entry>& entries) {
    if constexpr (kIsLazy) {
      write_lazy_files(root_path(), add_to(read_lazy_files(root_path()), entries));
    } else {
      std::string bytes = read_file(root_file("maps"));
      for (const Entry& entry : entries) {
        bytes += entry_bytes(entry);
      }
      write_file(root_file("maps"), bytes);
    }
  }

  quorvane::cache::CleanupController controller;
  StoreType store{"maps", std::make_shared<CountingLock>(), &controller};
};

// What Maps prints after a load of kEntries.
inline const std::string kLoaded = "load 1\nb=2,3\naa=1\n";

// --- the scenarios that both kinds share ---

// With any argument, logs every failed check.
template <typename StoreType>
int load_maps(const Arguments& arguments) {
  if (!arguments.empty()) {
    log_every_check();
  }
  Maps<StoreType> maps;
  maps.load();
  std::printf("%s", maps.store.type().c_str());
  return 0;
}

// With any argument, logs every failed check.
template <typename StoreType>
int scan_maps(const Arguments& arguments) {
  if (!arguments.empty()) {
    log_every_check();
  }
  Maps<StoreType>().scan();
  return 0;
}

// Scans before and after another process appends.
template <typename StoreType>
int scan_maps_twice() {
  Maps<StoreType> maps;
  maps.load();
  maps.scan();
  maps.others_append({{"foreign", {"1", "2"}}, {"x", {"3"}}});
  maps.scan();
  maps.scan();
  return 0;
}

// With any argument, logs every failed check.
template <typename StoreType>
int print_usage(const Arguments& arguments) {
  if (!arguments.empty()) {
    log_every_check();
  }
  Maps<StoreType> maps;
  std::printf("%lu %lu", maps.store.nonlock_get_disk_usage(), maps.store.get_usage());
  return 0;
}

// Argument: the threshold of the controller.
template <typename StoreType>
int load_under_threshold(const Arguments& arguments) {
  Maps<StoreType> maps(std::stoull(arguments.at(0)));
  quorvane::cache::EntryMap out;
  const bool loaded = maps.store.try_load(out);
  std::printf("%d %zu\n", loaded, out.size());
  return 0;
}

// Adds to one cache a key that another cache stores first.
template <typename StoreType>
int add_one_key_to_two_caches() {
  quorvane::cache::Cache first("maps", maps_store(Maps<StoreType>::kKind), false);
  {
    quorvane::cache::Cache second("maps", maps_store(Maps<StoreType>::kKind), false);
    second.add_value(buffer("k"), buffers({"second"}));
  }
  first.add_value(buffer("k"), buffers({"first"}));
  first.add_value(buffer("own"), buffers({"1"}));
  return 0;
}

}  // namespace test

#endif  // TESTS_SUPPORT_STORE_MAPS_H_
