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

// Whether a whole entry follows the one at `offset`, which is not whole. If its sizes fit
// together, they can be believed, and its value is skipped: that may look like entries.
bool is_followed(const DataFile& data, std::uint64_t offset, std::uint64_t limit) {
  if (const std::optional<Entry> start = data.start_at(offset, limit)) {
    if (padded(start->size()) > limit - offset) {
      return false;  // its write was cut short, so it is the last
    }
    offset += padded(start->size());
  }
  std::uint64_t compared = 0;  // bytes; only a forged file has headers that claim more than all
  for (; offset < limit && compared <= limit; offset += kAlignment) {
    const std::optional<EntryHeader> header = data.header_at(offset, limit);
    if (header && header->size <= limit - offset) {
      compared += header->size;
      if (whole_entry(data, offset, limit, true)) {
        return true;
      }
    }
  }
  return compared > limit;
}

}  // namespace

ScanResult scan(const DataFile& data, std::uint64_t from, std::uint64_t limit, bool check,
                const std::function<void(const Entry& entry, std::uint64_t offset)>& visit) {
  const std::uint64_t mapped = data.mapped_size();
  if (mapped == 0) {
    return {from, true};  // what can't be seen isn't known to be the end
  }
  limit = std::min(limit, mapped);
  std::uint64_t offset = from;
  while (offset < limit) {
    const std::optional<Entry> entry = whole_entry(data, offset, limit, check);
    if (!entry) {
      return {offset, is_followed(data, offset, limit)};
    }
    visit(*entry, offset);
    offset += padded(entry->size());
  }
  return {offset, false};
}

}  // namespace indexed
}  // namespace cache
}  // namespace quorvane
