#include "src/cache/indexed/scan.h"

#include <algorithm>

namespace quorvane {
namespace cache {
namespace indexed {
namespace {

std::optional<Entry> whole_entry(const DataFile& data, std::uint64_t offset, std::uint64_t limit,
                                 bool check) {
  const std::optional<Entry> entry = data.entry_at(offset, limit);
  if (!entry || padded(entry->size()) > limit - offset || (check && !entry->is_intact())) {
    return std::nullopt;
  }
  return entry;
}

bool has_whole_entry_after(const DataFile& data, std::uint64_t offset, std::uint64_t limit) {
  for (offset += kAlignment; offset < limit; offset += kAlignment) {
    if (whole_entry(data, offset, limit, true)) {
      return true;
    }
  }
  return false;
}

}  // namespace

ScanResult scan(const DataFile& data, std::uint64_t limit, bool check,
                const std::function<void(const Entry& entry, std::uint64_t offset)>& visit) {
  limit = std::min(limit, data.mapped_size());
  std::uint64_t offset = kFirstEntry;
  while (offset < limit) {
    const std::optional<Entry> entry = whole_entry(data, offset, limit, check);
    if (!entry) {
      return {offset, has_whole_entry_after(data, offset, limit)};
    }
    visit(*entry, offset);
    offset += padded(entry->size());
  }
  return {offset, false};
}

}  // namespace indexed
}  // namespace cache
}  // namespace quorvane
