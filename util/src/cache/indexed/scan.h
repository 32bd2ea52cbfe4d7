// A pass over all entries of a data file.
#ifndef QUORVANE_SRC_CACHE_INDEXED_SCAN_H_
#define QUORVANE_SRC_CACHE_INDEXED_SCAN_H_

#include <cstdint>
#include <functional>

#include "src/cache/indexed/data_file.h"

namespace quorvane {
namespace cache {
namespace indexed {

struct ScanResult {
  // Whole entries end here. What follows is a torn entry, unless `is_damaged`.
  std::uint64_t end;
  // A whole entry follows one that is not: no kill leaves that.
  bool is_damaged;
};

// Visits the whole entries between the offsets `from`, where one begins, and `limit`, in file
// order. `check` also reads their
// values, to compare checksums; without it, all entries up to `limit` must be known to be
// whole. Takes time in proportion to `limit`, whatever the file holds.
ScanResult scan(const DataFile& data, std::uint64_t from, std::uint64_t limit, bool check,
                const std::function<void(const Entry& entry, std::uint64_t offset)>& visit);

}  // namespace indexed
}  // namespace cache
}  // namespace quorvane

#endif  // QUORVANE_SRC_CACHE_INDEXED_SCAN_H_
