#include "qvutil/store/records.h"

#include <algorithm>
#include <string>
#include <utility>

#include "qvutil/store/format.h"

namespace quorvane::tool {
namespace {

constexpr std::string_view kMagicBytes = "\xa5\xc3\xa5\xc3";
constexpr const char* kWrongSizes = "the sizes of the entry are wrong: no other follows it";

}  // namespace

bool RecordFormat::take(std::uint64_t& at, std::uint64_t& number) const {
  if (bytes_.size() - at < sizeof(number)) {
    return false;
  }
  number = format::number_at<std::uint64_t>(bytes_, at);
  at += sizeof(number);
  return true;
}

const char* RecordFormat::take_key(std::uint64_t& at, Entry& entry) const {
  std::uint64_t size = 0;
  if (!take(at, size)) {
    return "the entry is cut short in the size of its key";
  }
  if (size == 0 || size > bytes_.size() - at) {
    at -= sizeof(size);
    return size == 0 ? "the size of the key is 0" : "the key extends beyond the end of the file";
  }
  entry.key = bytes_.substr(at, size);
  at += size;
  return nullptr;
}

RecordWalk::RecordWalk(std::string name, const RecordFormat& format, Visitor& visitor)
    : name_(std::move(name)),
      format_(format),
      bytes_(format.bytes()),
      visitor_(visitor),
      tries_left_(1'000'000 + bytes_.size()) {}

std::uint64_t RecordWalk::run(std::uint64_t offset, Progress& progress) {
  std::uint64_t entries = 0;
  while (offset < bytes_.size()) {
    progress.at(offset);
    // Made in place: a copy would wait for what read() has just written, for 4 ns an entry.
    Record record =
        has_magic(offset) ? format_.read(offset, entry_) : Record{kNoEntry, offset, false};
    if (record.reason == nullptr && !is_followed(record.end) && !is_believed(offset, record.end)) {
      record.reason = kWrongSizes;
    }
    if (record.reason == nullptr) {
      tell_pending();
      entry_.offset = offset;
      entry_.size = record.end - offset;
      visitor_.entry(entry_);
      ++entries;
      offset = record.end;
    } else {
      const std::uint64_t next = resume(offset, record);
      tell({name_, offset, next - offset, record.reason});
      offset = next;
    }
  }
  tell_pending();
  return entries;
}

std::uint64_t RecordWalk::entry_from(std::uint64_t offset) {
  return next_entry(offset, bytes_.size(), offset);
}

bool RecordWalk::has_magic(std::uint64_t offset) const {
  return bytes_.size() - offset >= kMagicBytes.size() &&
         format::number_at<std::uint32_t>(bytes_, offset) == format::kMagic;
}

// By the beginning of another entry, even if that is cut short in its magic number.
bool RecordWalk::is_followed(std::uint64_t end) const {
  const std::string_view next = bytes_.substr(end, kMagicBytes.size());
  return has_magic(end) ||
         (next.size() < kMagicBytes.size() && next == kMagicBytes.substr(0, next.size()));
}

// Whatever its magic number is.
bool RecordWalk::is_whole_at(std::uint64_t offset, std::uint64_t& end) {
  if (bytes_.size() - offset < format_.least_size() || tries_left_ == 0) {
    return false;
  }
  const Record record = format_.read(offset, tried_);
  tries_left_ -= std::min<std::uint64_t>(tries_left_, 1 + tried_.atoms.size());
  end = record.end;
  return (record.reason == nullptr || record.has_end) && is_followed(end);
}

// Whether the sizes of the entry at `offset` are right, although something else than an entry
// follows its end.
bool RecordWalk::is_believed(std::uint64_t offset, std::uint64_t end) {
  std::uint64_t next_end = 0;
  if (is_whole_at(end, next_end)) {
    return true;  // only the magic number of the next entry is damaged
  }
  if (next_entry(offset + 1, end, end) < end) {
    return false;  // an entry begins inside and ends behind it: its sizes are too large
  }
  // Otherwise the next entry is damaged, if there is room for it, or the system has left zeros
  // behind the last one, unless the value seems to go on: its sizes are too small.
  const std::uint64_t next = next_entry(end, bytes_.size(), end);
  return (next - end >= format_.least_size() || is_zero_from(end)) && !goes_on(end);
}

// After a power loss, for example. Zeros behind zeros may belong to the value.
bool RecordWalk::is_zero_from(std::uint64_t end) const {
  return bytes_.find_first_not_of('\0', end) == std::string_view::npos &&
         (!format_.ends_with_value() || bytes_[end - 1] != '\0');
}

bool RecordWalk::goes_on(std::uint64_t end) const {
  if (!format_.ends_with_value()) {
    return false;
  }
  constexpr std::uint64_t kRun = 4;
  const std::string_view run = bytes_.substr(end - kRun, 2 * kRun);
  return run.find_first_not_of(run.front()) == std::string_view::npos;
}

// Behind the last of the whole entries that follow one another from `offset` on, or at the first
// end that is behind `limit`.
std::uint64_t RecordWalk::chain_end(std::uint64_t offset, std::uint64_t limit) {
  std::uint64_t end = offset;
  while (offset <= limit && offset < bytes_.size() && has_magic(offset) &&
         is_whole_at(offset, end)) {
    offset = end;
  }
  return offset;
}

// The first entry in [from, limit) that others follow, to behind `beyond`. Where there is none,
// `limit`.
std::uint64_t RecordWalk::next_entry(std::uint64_t from, std::uint64_t limit,
                                     std::uint64_t beyond) {
  std::size_t at = bytes_.find(kMagicBytes, from);
  while (at < limit && tries_left_ != 0) {
    std::uint64_t end = 0;
    // A value may hold the file of a store. No entry follows a header elsewhere.
    const bool is_header = bytes_.size() - at > format::kHeaderSize &&
                           has_magic(at + format::kHeaderSize) &&
                           format::number_at<std::uint32_t>(bytes_, at + 4) < 256;
    const std::uint64_t held = is_header ? chain_end(at + format::kHeaderSize, bytes_.size()) : 0;
    if (is_header && held < bytes_.size()) {
      at = bytes_.find(kMagicBytes, held);
      continue;
    }
    if (is_whole_at(at, end) && chain_end(at, beyond) > beyond) {
      return at;
    }
    at = bytes_.find(kMagicBytes, at + 1);
  }
  return limit;
}

// Where to go on after a damaged entry.
std::uint64_t RecordWalk::resume(std::uint64_t offset, const Record& record) {
  std::uint64_t end = 0;
  if (record.reason != kWrongSizes && is_whole_at(offset, end)) {
    return end;  // only its magic number is damaged, or its value is
  }
  // A size that is too large spans entries. Those go on behind it, unlike bytes of a value that
  // look like entries.
  const std::uint64_t spanned = next_entry(offset + 1, record.end, record.end);
  return spanned < record.end ? spanned : next_entry(offset + 1, bytes_.size(), 0);
}

void RecordWalk::tell(const Place& place) {
  if (is_pending_ && pending_.reason == place.reason &&
      pending_.offset + pending_.size == place.offset) {
    pending_.size += place.size;
    return;
  }
  tell_pending();
  pending_ = place;
  is_pending_ = true;
}

void RecordWalk::tell_pending() {
  if (is_pending_) {
    is_pending_ = false;
    visitor_.place(pending_);
  }
}

}  // namespace quorvane::tool
