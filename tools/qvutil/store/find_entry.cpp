#include "qvutil/store/find_entry.h"

#include <optional>

#include "qvutil/store/bus_errors.h"
#include "qvutil/store/each_entry.h"
#include "qvutil/store/indexed_scan.h"
#include "qvutil/store/key_hash.h"
#include "qvutil/store/lock.h"
#include "qvutil/store/opened_cache.h"

namespace quorvane::tool {
namespace {

OpenedCache open_with_lock(Console& console, const CacheFiles& files) {
  const ReadLock lock(console, files);
  return OpenedCache(files, lock.noted());
}

// An entry that a slot leads to is not one that the next writer cuts off, so no lock is needed.
bool leads_to(OpenedCache& cache, std::string_view key, Entry& entry) {
  if (!cache.main || !cache.index || !cache.index->fits()) {
    return false;
  }
  const std::string_view data = cache.main->bytes();
  cache.index->map();
  std::uint64_t tries = 1'000'000;
  return cache.index->probe(hash_of(key), [&](std::uint64_t offset) {
    return IndexedScan::read_any(data, offset, entry, tries) && entry.key == key;
  }) && IndexedScan::has_checksum(data, entry);
}

bool find_by_index(Console& console, const CacheFiles& files, std::string_view key,
                   const std::function<void(const Entry&)>& use) {
  const BusErrors guard;
  OpenedCache cache = open_with_lock(console, files);
  Entry entry;
  const bool leads = leads_to(cache, key, entry);
  if (leads) {
    use(entry);
  }
  return leads;
}

}  // namespace

bool find_entry(Console& console, const CacheFiles& files, std::string_view key,
                const std::function<void(const Entry&)>& use) {
  bool is_found = files.kind == Kind::indexed && find_by_index(console, files, key, use);
  if (!is_found) {
    each_entry(console, files, "searching", [&](const Entry& entry) {
      is_found = entry.key == key;
      if (is_found) {
        use(entry);
      }
      return !is_found;
    });
  }
  return is_found;
}

}  // namespace quorvane::tool
