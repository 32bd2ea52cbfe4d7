#include "qvutil/store/index_check.h"

#include <utility>

#include "qvutil/output/text.h"
#include "qvutil/store/format.h"
#include "qvutil/store/indexed_scan.h"
#include "qvutil/store/key_hash.h"

namespace quorvane::tool {
namespace {

// Where the fields of the page are.
constexpr std::uint64_t kIndexedAt = 72;
constexpr std::uint64_t kEntriesAt = 80;
constexpr std::uint64_t kMovingAt = 88;
constexpr std::uint64_t kZerosAt = 96;

std::uint64_t place_of(std::uint64_t slot) {
  return format::kIndexPageSize + slot * sizeof(std::uint64_t);
}

}  // namespace

IndexCheck::IndexCheck(const IndexView& index, std::string data_name, std::string_view data,
                       Visitor& visitor)
    : index_(index),
      data_name_(std::move(data_name)),
      data_(data),
      visitor_(visitor),
      tries_left_(1'000'000 + data.size()) {}

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
  const bool leads = index_.probe(due.hash, [&](std::uint64_t offset) {
    if (offset == due.offset) {
      ++found_;
      return true;
    }
    if (!IndexedScan::read_any(data_, offset, other_, tries_left_) || other_.key != due.key) {
      return false;
    }
    repeated_.push_back({data_name_, due.offset, 0,
                         "the key is that of the entry at offset " + std::to_string(offset), false,
                         true});
    return true;
  });
  if (!leads) {
    first_missed_ = missed_++ == 0 ? due.offset : first_missed_;
  }
}

bool IndexCheck::leads_to_entry(std::uint64_t slot) {
  return IndexedScan::read_any(data_, IndexView::offset_of(slot), other_, tries_left_) &&
         IndexView::has_tag(slot, hash_of(other_.key));
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
    used += static_cast<unsigned>(slot != 0) &
            static_cast<unsigned>(IndexView::offset_of(slot) < indexed);
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
    if (slot != 0 && IndexView::offset_of(slot) < index_.indexed() && !leads_to_entry(slot)) {
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
