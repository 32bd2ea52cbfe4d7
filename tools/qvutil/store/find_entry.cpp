#include "qvutil/store/find_entry.h"

#include "qvutil/store/each_entry.h"
#include "qvutil/store/indexed_scan.h"
#include "qvutil/store/key_hash.h"
#include "qvutil/store/read_cache.h"

namespace quorvane::tool {
namespace {

bool leads_to(OpenedCache& cache, std::string_view key, Entry& entry) {
  if (!cache.main || !cache.index || !cache.index->fits()) {
    return false;
  }
  const std::string_view data = cache.main->bytes();
  cache.index->map();
  return cache.index->probe(hash_of(key), [&](std::uint64_t offset) {
    return IndexedScan::read_any(data, offset, entry) && entry.key == key &&
           IndexedScan::has_checksum(data, entry);
  });
}

}  // namespace

bool find_entry(Console& console, const CacheFiles& files, std::string_view key,
                const std::function<void(const Entry&)>& use) {
  bool is_found =
      files.kind == Kind::indexed && read_cache(console, files, [&](OpenedCache& cache) {
        Entry entry;
        const bool leads = leads_to(cache, key, entry);
        if (leads) {
          use(entry);
        }
        return leads;
      });
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
