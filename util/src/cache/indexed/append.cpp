#include "src/cache/indexed/append.h"

#include <cerrno>

#include "src/cache/indexed/index_builder.h"
#include "src/cache/indexed/scan.h"

namespace quorvane {
namespace cache {
namespace indexed {
namespace {

// Written with one call.
constexpr std::size_t kBatch = std::size_t{1} << 20;

}  // namespace

bool Append::recover() {
  if (!pair_.index.is_writable()) {
    errno = EACCES;
    return false;
  }
  if (!writer_.open(paths_.data, pair_.data.id())) {
    return false;
  }
  const std::uint64_t covered = pair_.index.covered();
  if (writer_.size() > covered && !writer_.cut(covered)) {
    return false;
  }
  if (pair_.index.is_moving()) {
    pair_.index.set_moving(false);  // whoever was about to replace this index was killed
  }
  const std::uint64_t indexed = pair_.index.indexed();
  if (indexed < covered) {
    scan(pair_.data, covered, false, [&](const Entry& entry, std::uint64_t offset) {
      if (offset >= indexed) {
        pair_.insert(entry, offset);
      }
    });
    count_entries();
    pair_.index.set_indexed(covered);
  }
  return true;
}

// The count is stored behind the slots, so it doesn't tell which of them it counts.
void Append::count_entries() {
  std::uint64_t entries = 0;
  for (std::uint64_t at = 0; at < pair_.index.slots(); ++at) {
    entries += pair_.index.slot(at) != 0 ? 1 : 0;
  }
  pair_.index.set_entries(entries);
}

Append::Result Append::run(const EntryMap& diff) {
  std::vector<EntryMap::const_iterator> entries;
  for (auto it = diff.begin(); it != diff.end(); ++it) {
    bool outgrown = false;
    const std::uint64_t hash = hash_of(it->first.get_buffer(), it->first.get_size());
    if (!pair_.find(it->first, hash, outgrown)) {
      entries.push_back(it);
    }
  }
  if (!has_room(pair_.index.slots(), pair_.index.entries() + entries.size())) {
    return Result::index_is_full;
  }
  return write(entries) ? Result::stored : Result::failed;
}

bool Append::write(const std::vector<EntryMap::const_iterator>& entries) {
  const std::uint64_t start = pair_.index.covered();
  std::uint64_t end = start;
  std::string batch;
  slots_.clear();
  slots_.reserve(entries.size());
  for (const auto& it : entries) {
    const std::uint64_t offset = end + batch.size();
    if (size_in_file(it->first, it->second) == 0 || offset > kOffsetMask) {
      errno = EFBIG;
      writer_.cut(start);
      return false;
    }
    encode(batch, it->first, it->second);
    slots_.push_back({hash_of(it->first.get_buffer(), it->first.get_size()), offset});
    if (batch.size() >= kBatch && !write_batch(start, end, batch)) {
      return false;
    }
  }
  if (!write_batch(start, end, batch)) {
    return false;
  }
  publish(end);
  return true;
}

bool Append::write_batch(std::uint64_t start, std::uint64_t& end, std::string& batch) {
  if (!writer_.append(end, batch)) {
    const int error = errno;
    writer_.cut(start);
    errno = error;
    return false;
  }
  end += batch.size();
  batch.clear();
  return true;
}

// In this order: whoever finds a slot finds the entry, and whoever comes after a kill finds
// the slots that are missing.
void Append::publish(std::uint64_t end) {
  pair_.index.set_covered(end);
  for (const Slot& slot : slots_) {
    pair_.insert_new(slot.hash, slot.offset);
  }
  pair_.index.set_entries(pair_.index.entries() + slots_.size());
  pair_.index.set_indexed(end);
}

}  // namespace indexed
}  // namespace cache
}  // namespace quorvane
