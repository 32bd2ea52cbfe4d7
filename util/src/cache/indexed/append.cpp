#include "src/cache/indexed/append.h"

#include <cerrno>

#include "src/cache/indexed/index_builder.h"
#include "src/cache/indexed/scan.h"
#include "src/cache/trace.h"

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
  if (writer_.size() == pair_.index.covered() && pair_.index.indexed() >= pair_.index.covered() &&
      !pair_.index.is_moving()) {
    return true;
  }
  Trace traced(store_, trace::Operation::store_recover);
  const bool is_recovered = finish();
  traced.end(pair_.index.covered());
  return is_recovered;
}

bool Append::finish() {
  const std::uint64_t size = writer_.size();
  if (size != pair_.index.covered() && !take_tail(size)) {
    return false;
  }
  if (pair_.index.is_moving()) {
    pair_.index.set_moving(false);  // whoever was about to replace this index was killed
  }
  const std::uint64_t covered = pair_.index.covered();
  const std::uint64_t indexed = pair_.index.indexed();
  if (indexed < covered) {
    scan(pair_.data, kFirstEntry, covered, false, [&](const Entry& entry, std::uint64_t offset) {
      if (offset >= indexed) {
        pair_.insert(entry, offset);
      }
    });
    count_entries();
    pair_.index.set_indexed(covered);
  }
  return true;
}

// The file is longer than `covered` after a kill, or because `covered` was damaged. The second
// must not cost entries, so what is whole stays.
bool Append::take_tail(std::uint64_t size) {
  const auto nothing = [](const Entry&, std::uint64_t) {};
  const std::uint64_t covered = pair_.index.covered();
  const bool is_sure = scan(pair_.data, kFirstEntry, covered, false, nothing).end == covered;
  const ScanResult all = scan(pair_.data, is_sure ? covered : kFirstEntry, size, true, nothing);
  if (size > pair_.data.mapped_size() || all.is_damaged || all.end < pair_.index.covered()) {
    errno = EBADMSG;
    return false;
  }
  if (all.end < size && !writer_.cut(all.end)) {
    return false;
  }
  pair_.index.set_covered(all.end);
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

void Append::choose(const EntryMap& diff) {
  chosen_.clear();
  const bool meets_new_pages = pair_.index.meets_new_pages(diff.size());
  for (auto it = diff.begin(); it != diff.end(); ++it) {
    bool outgrown = false;
    const std::uint64_t hash = hash_of(it->first.get_buffer(), it->first.get_size());
    if (meets_new_pages) {
      pair_.index.populate(hash & (pair_.index.slots() - 1));
    }
    const auto stored = pair_.find(it->first, hash, outgrown);
    if (!stored) {
      chosen_.push_back({it, 0});
    } else if (!stored->entry.is_intact()) {
      chosen_.push_back({it, stored->offset});  // nobody finds the damaged one
    }
  }
}

std::uint64_t Append::size_after() const {
  const std::uint64_t entries = pair_.index.entries() + chosen_.size();
  std::uint64_t size = pair_.index.covered();
  for (const Chosen& chosen : chosen_) {
    size += size_in_file(chosen.entry->first, chosen.entry->second);
  }
  return size + (has_room(pair_.index.slots(), entries)
                     ? kIndexPageSize + pair_.index.slots() * sizeof(std::uint64_t)
                     : index_size_for(entries));
}

Append::Result Append::run() {
  if (!has_room(pair_.index.slots(), pair_.index.entries() + chosen_.size())) {
    return Result::index_is_full;
  }
  return write();
}

// Cuts off what was written, unless it is kept.
class Append::Written {
 public:
  Written(const DataWriter& writer, std::uint64_t start) : writer_(writer), start_(start) {}
  ~Written() {
    if (!is_kept_) {
      const int error = errno;
      writer_.cut(start_);
      errno = error;
    }
  }
  Written(const Written&) = delete;
  Written& operator=(const Written&) = delete;

  void keep() { is_kept_ = true; }

 private:
  const DataWriter& writer_;
  const std::uint64_t start_;
  bool is_kept_ = false;
};

Append::Result Append::write() {
  std::uint64_t end = pair_.index.covered();
  Written written(writer_, end);
  std::string batch;
  slots_.clear();
  slots_.reserve(chosen_.size());
  for (const auto& [entry, damaged] : chosen_) {
    const std::uint64_t offset = end + batch.size();
    if (size_in_file(entry->first, entry->second) == 0 || offset > kOffsetMask) {
      errno = EFBIG;
      return Result::failed;
    }
    encode(batch, entry->first, entry->second);
    slots_.push_back(
        {hash_of(entry->first.get_buffer(), entry->first.get_size()), offset, damaged});
    if (batch.size() >= kBatch && !write_batch(end, batch)) {
      return Result::failed;
    }
  }
  if (!write_batch(end, batch)) {
    return Result::failed;
  }
  written.keep();
  return publish(end) ? Result::stored : Result::index_is_full;
}

bool Append::write_batch(std::uint64_t& end, std::string& batch) {
  if (!writer_.append(end, batch)) {
    return false;
  }
  pair_.data.note_written(end, batch.size());
  end += batch.size();
  batch.clear();
  return true;
}

// In this order: whoever finds a slot finds the entry, and whoever comes after a kill finds
// the slots that are missing. False when a damaged index has fewer free slots than it says.
bool Append::publish(std::uint64_t end) {
  pair_.index.set_covered(end);
  std::uint64_t entries = pair_.index.entries();
  for (const Slot& slot : slots_) {
    if (!pair_.insert_new(slot.hash, slot.offset, slot.damaged)) {
      return false;
    }
    entries += slot.damaged == 0 ? 1 : 0;
  }
  pair_.index.set_entries(entries);
  pair_.index.set_indexed(end);
  return true;
}

}  // namespace indexed
}  // namespace cache
}  // namespace quorvane
