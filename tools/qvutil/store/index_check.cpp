#include "qvutil/store/index_check.h"

#include <utility>

#include "qvutil/output/text.h"
#include "qvutil/store/format.h"
#include "qvutil/store/indexed_scan.h"
#include "qvutil/store/key_hash.h"

namespace quorvane::tool {
namespace {

// A slot is 0 if it is free. Otherwise it has the upper bits of the key's hash above the offset.
constexpr std::uint64_t kOffsetMask = (std::uint64_t{1} << 48) - 1;

// Where the fields of the page are.
constexpr std::uint64_t kIndexedAt = 72;
constexpr std::uint64_t kEntriesAt = 80;
constexpr std::uint64_t kMovingAt = 88;
constexpr std::uint64_t kZerosAt = 96;

bool has_tag(std::uint64_t slot, std::uint64_t hash) { return ((slot ^ hash) & ~kOffsetMask) == 0; }

std::uint64_t place_of(std::uint64_t slot) {
  return format::kIndexPageSize + slot * sizeof(std::uint64_t);
}

}  // namespace

IndexCheck::IndexCheck(const IndexView& index, std::string data_name, std::string_view data,
                       Visitor& visitor)
    : index_(index), data_name_(std::move(data_name)), data_(data), visitor_(visitor) {}

void IndexCheck::entry(const Entry& entry) {
  visitor_.entry(entry);
  if (entry.offset >= index_.indexed()) {
    return;  // the next writer makes its slot
  }
  Due& due = due_[due_count_++];
  due = {hash_of(entry.key), entry.offset, entry.key};
  index_.prefetch(due.hash & (index_.slots() - 1));
  if (due_count_ == kAhead) {
    for (const Due& each : due_) {
      look_up(each);
    }
    due_count_ = 0;
  }
}

void IndexCheck::look_up(const Due& due) {
  const std::uint64_t mask = index_.slots() - 1;
  const std::uint64_t wanted = (due.hash & ~kOffsetMask) | due.offset;
  for (std::uint64_t probes = 0; probes <= mask; ++probes) {
    const std::uint64_t slot = index_.slot((due.hash + probes) & mask);
    if (slot == wanted) {
      ++found_;
      return;
    }
    std::uint64_t earlier = 0;
    if (slot != 0 && has_tag(slot, due.hash) && leads_to_same_key(slot, due, earlier)) {
      repeated_.push_back({data_name_, due.offset, 0,
                           "the key is that of the entry at offset " + std::to_string(earlier),
                           false, true});
      return;
    }
    if (slot == 0) {
      break;
    }
  }
  first_missed_ = missed_++ == 0 ? due.offset : first_missed_;
}

bool IndexCheck::leads_to_same_key(std::uint64_t slot, const Due& due, std::uint64_t& earlier) {
  earlier = slot & kOffsetMask;
  return leads_to_entry(slot) && other_.key == due.key;
}

bool IndexCheck::leads_to_entry(std::uint64_t slot) {
  const std::uint64_t offset = slot & kOffsetMask;
  return offset >= format::kDataHeaderSize && offset % format::kAlignment == 0 &&
         offset < data_.size() && IndexedScan::read(data_, offset, other_) == nullptr &&
         has_tag(slot, hash_of(other_.key));
}

void IndexCheck::look_up_rest() {
  for (std::size_t i = 0; i < due_count_; ++i) {
    look_up(due_[i]);
  }
  due_count_ = 0;
}

void IndexCheck::add(IndexCheck& other) {
  look_up_rest();
  other.look_up_rest();
  found_ += other.found_;
  first_missed_ = missed_ == 0 ? other.first_missed_ : first_missed_;
  missed_ += other.missed_;
  repeated_.insert(repeated_.end(), other.repeated_.begin(), other.repeated_.end());
}

void IndexCheck::finish() {
  look_up_rest();
  if (missed_ != 0) {
    visitor_.place({index_.name(), format::kIndexPageSize, index_.slots() * sizeof(std::uint64_t),
                    "no slot leads to " + grouped(missed_) + " entries, the first at offset " +
                        std::to_string(first_missed_) + " of " + data_name_});
  }
  check_slots();
  if (index_.is_moving()) {
    tell_odd(kMovingAt, sizeof(std::uint64_t),
             "a process was killed while it replaced the index; the next writer goes on");
  }
  if (index_.indexed() < index_.covered()) {
    tell_odd(kIndexedAt, sizeof(std::uint64_t),
             "the last entries have no slots yet; the next writer makes them");
  }
  if (!index_.has_only_zeros_behind()) {
    tell_odd(kZerosAt, format::kIndexPageSize - kZerosAt, "the rest of the page is not zero");
  }
  for (const Place& place : repeated_) {
    visitor_.place(place);
  }
}

// Slots of entries that are appended meanwhile don't count.
void IndexCheck::check_slots() {
  std::uint64_t used = 0;
  const std::uint64_t slots = index_.slots();
  const std::uint64_t indexed = index_.indexed();
  for (std::uint64_t at = 0; at < slots; ++at) {
    const std::uint64_t slot = index_.slot(at);
    used +=
        static_cast<unsigned>(slot != 0) & static_cast<unsigned>((slot & kOffsetMask) < indexed);
  }
  if (used != found_) {
    tell_wrong_slots();
  }
  if (used < index_.entries()) {
    tell_odd(kEntriesAt, sizeof(std::uint64_t), "the number of entries is wrong");
  }
}

void IndexCheck::tell_wrong_slots() {
  std::uint64_t wrong = 0;
  std::uint64_t first = 0;
  for (std::uint64_t at = 0; at < index_.slots(); ++at) {
    const std::uint64_t slot = index_.slot(at);
    if (slot != 0 && (slot & kOffsetMask) < index_.indexed() && !leads_to_entry(slot)) {
      first = wrong++ == 0 ? at : first;
    }
  }
  if (wrong != 0) {
    tell_odd(place_of(first), sizeof(std::uint64_t),
             grouped(wrong) + " slots lead to no entry, this is the first");
  }
}

void IndexCheck::tell_odd(std::uint64_t offset, std::uint64_t size, const std::string& reason) {
  visitor_.place({index_.name(), offset, size, reason, false});
}

}  // namespace quorvane::tool
