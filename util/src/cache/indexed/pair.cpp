#include "src/cache/indexed/pair.h"

#include <algorithm>

namespace quorvane {
namespace cache {
namespace indexed {

Status Pair::open(const Paths& paths, bool is_cleaned, bool may_write) {
  const Status status =
      is_cleaned ? data.open(paths.cleaned_data, paths.data) : data.open(paths.data);
  if (status != Status::fits) {
    return status;
  }
  const Status of_index = index.open(paths.index, data, may_write);
  if (of_index == Status::fits) {
    known_ = index.covered_when_opened();
  }
  return of_index;
}

// A mapping doesn't tell how long its file is, and a read beyond the end of the file would
// end the process.
std::uint64_t Pair::readable() const {
  const std::uint64_t known =
      std::max(known_.load(std::memory_order_relaxed),
               std::min({index.covered(), data.size(), data.mapped_size()}));
  known_.store(known, std::memory_order_relaxed);
  return known;
}

std::optional<Entry> Pair::entry_at(std::uint64_t offset, bool& outgrown) const {
  std::uint64_t known = known_.load(std::memory_order_relaxed);
  if (offset >= known) {
    known = readable();
  }
  const std::optional<Entry> entry = data.entry_at(offset, known);
  if (!entry) {
    const std::uint64_t mapped = data.mapped_size();
    outgrown = outgrown || (mapped != 0 && index.covered() > mapped);
  }
  return entry;
}

std::optional<Pair::Found> Pair::find(const util::RoBuffer& key, std::uint64_t hash, bool& outgrown,
                                      EntryBuffer* buffer) const {
  const std::uint64_t mask = index.slots() - 1;
  std::uint64_t at = hash & mask;
  // Bounded: a damaged index may have no free slot.
  for (std::uint64_t probes = 0; probes <= mask; ++probes, at = (at + 1) & mask) {
    const std::uint64_t slot = index.slot(at);
    if (slot == 0) {
      return std::nullopt;
    }
    if (!has_tag(slot, hash)) {
      continue;
    }
    auto entry = buffer != nullptr ? data.read(offset_in(slot), *buffer) : std::nullopt;
    if (!entry || !entry->has_key(key)) {
      entry = entry_at(offset_in(slot), outgrown);
    }
    if (entry && entry->has_key(key)) {
      return Found{offset_in(slot), *entry};
    }
  }
  return std::nullopt;
}

bool Pair::insert_new(std::uint64_t hash, std::uint64_t offset, std::uint64_t damaged) const {
  const std::uint64_t mask = index.slots() - 1;
  std::uint64_t at = hash & mask;
  for (std::uint64_t probes = 0; probes <= mask; ++probes, at = (at + 1) & mask) {
    const std::uint64_t slot = index.slot(at);
    if (slot == 0 || (damaged != 0 && slot == make_slot(hash, damaged))) {
      index.set_slot(at, make_slot(hash, offset));
      return true;
    }
  }
  return false;
}

bool Pair::insert(const Entry& entry, std::uint64_t offset) const {
  const auto key = util::RoBuffer::view(entry.key(), entry.key_size());
  const std::uint64_t hash = hash_of(entry.key(), entry.key_size());
  const std::uint64_t mask = index.slots() - 1;
  std::uint64_t at = hash & mask;
  bool outgrown = false;
  for (std::uint64_t probes = 0; probes <= mask; ++probes, at = (at + 1) & mask) {
    const std::uint64_t slot = index.slot(at);
    if (slot == 0) {
      index.set_slot(at, make_slot(hash, offset));
      return true;
    }
    if (has_tag(slot, hash)) {
      const std::optional<Entry> other = entry_at(offset_in(slot), outgrown);
      if (other && other->has_key(key)) {
        if (!other->is_intact()) {
          index.set_slot(at, make_slot(hash, offset));
        }
        return true;
      }
    }
  }
  return false;
}

bool Pair::pin() {
  if ((state_.fetch_add(kPin) & kRetired) == 0) {
    return true;
  }
  unpin();
  return false;
}

void Pair::unpin() {
  if (state_.fetch_sub(kPin) == (kPin | kRetired)) {
    let_go();
  }
}

void Pair::retire() {
  if (state_.fetch_or(kRetired) < kPin) {
    let_go();
  }
}

// The mark comes last: whoever sees it may free the pair.
void Pair::let_go() {
  data.retire();
  index.retire();
  state_.fetch_or(kGone);
}

}  // namespace indexed
}  // namespace cache
}  // namespace quorvane
