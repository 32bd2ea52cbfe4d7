#include "src/cache/indexed/kept_entries.h"

#include <algorithm>
#include <functional>

namespace quorvane {
namespace cache {
namespace indexed {

std::vector<std::uint64_t> KeptEntries::choose(const std::vector<std::uint64_t>& found) {
  const std::vector<std::uint64_t> newest = all();
  const std::vector<std::uint64_t> in_use = offsets_of(found);
  std::uint64_t reserved = 0;  // for entries in use that are not among the newest
  for (const std::uint64_t offset : in_use) {
    reserved = std::min(reserved + size_at(offset), bound_.limit / 4);
  }
  auto next = newest.begin();
  const auto take_newest = [&](std::uint64_t left, const std::vector<std::uint64_t>& taken) {
    for (; next != newest.end(); ++next) {
      const std::uint64_t size = size_at(*next);
      const bool is_taken = std::binary_search(taken.begin(), taken.end(), *next, std::greater<>());
      if (!is_taken && !may_skip(size) && !take(*next, size, left)) {
        break;
      }
    }
  };
  take_newest(reserved, {});
  std::vector<std::uint64_t> older;
  std::uint64_t older_size = 0;
  for (const std::uint64_t offset : in_use) {
    const std::uint64_t size = size_at(offset);
    if (next != newest.end() && offset <= *next && older_size + size <= bound_.limit / 4 &&
        !may_skip(size) && take(offset, size, 0)) {
      older.push_back(offset);
      older_size += size;
    }
  }
  take_newest(0, older);
  std::sort(kept_.begin(), kept_.end());
  return std::move(kept_);
}

// The newest first.
std::vector<std::uint64_t> KeptEntries::all() const {
  std::vector<std::uint64_t> offsets;
  offsets.reserve(pair_.index.entries());
  for (std::uint64_t at = 0; at < pair_.index.slots(); ++at) {
    const std::uint64_t slot = pair_.index.slot(at);
    if (slot != 0 && offset_in(slot) < covered_) {
      offsets.push_back(offset_in(slot));
    }
  }
  std::sort(offsets.begin(), offsets.end(), std::greater<>());
  return offsets;
}

// The newest first.
std::vector<std::uint64_t> KeptEntries::offsets_of(const std::vector<std::uint64_t>& hashes) const {
  std::vector<std::uint64_t> offsets;
  const std::uint64_t mask = pair_.index.slots() - 1;
  for (const std::uint64_t hash : hashes) {
    std::uint64_t at = hash & mask;
    for (std::uint64_t probes = 0; probes <= mask; ++probes, at = (at + 1) & mask) {
      const std::uint64_t slot = pair_.index.slot(at);
      if (slot == 0) {
        break;
      }
      if (!has_tag(slot, hash) || offset_in(slot) >= covered_) {
        continue;
      }
      const auto entry = pair_.data.entry_at(offset_in(slot), covered_);
      if (entry && hash_of(entry->key(), entry->key_size()) == hash) {
        offsets.push_back(offset_in(slot));
      }
    }
  }
  std::sort(offsets.begin(), offsets.end(), std::greater<>());
  return offsets;
}

// 0 when there is no entry.
std::uint64_t KeptEntries::size_at(std::uint64_t offset) const {
  const auto entry = pair_.data.entry_at(offset, covered_);
  return entry ? padded(entry->size()) : 0;
}

// What is damaged, or could not even be kept alone, doesn't end the newest entries.
bool KeptEntries::may_skip(std::uint64_t size) const {
  return size == 0 || !bound_.may_keep(kFirstEntry + size, 1);
}

bool KeptEntries::take(std::uint64_t offset, std::uint64_t size, std::uint64_t reserved) {
  if (!bound_.may_keep(end_ + size + reserved, kept_.size() + 1)) {
    return false;
  }
  kept_.push_back(offset);
  end_ += size;
  return true;
}

}  // namespace indexed
}  // namespace cache
}  // namespace quorvane
