#include "qvutil/store/indexed_scan.h"

#include <farmhash.h>

#include <algorithm>
#include <string>
#include <utility>

#include "qvutil/store/format.h"

namespace quorvane::tool {
namespace {

constexpr std::uint64_t kEntryHeaderSize = 24;
constexpr std::uint64_t kSizeAt = 8;
constexpr std::uint64_t kAtomsAt = 20;
constexpr const char* kCut = "the entry is cut short";
constexpr const char* kContradict = "the sizes of the entry contradict each other";
constexpr const char* kChecksum = "the checksum of the entry is wrong";

// How the bytes of an entry are divided.
struct Sizes {
  std::uint64_t all = 0;
  std::uint64_t key = 0;
  std::uint64_t atoms = 0;  // how many
};

// Not null: what is wrong. None of the sums wraps: the factors have 32 bits.
const char* read_sizes(std::string_view bytes, std::uint64_t offset, Sizes& sizes) {
  const std::uint64_t available = bytes.size() - offset;
  if (available < kEntryHeaderSize) {
    return kCut;
  }
  if (format::number_at<std::uint32_t>(bytes, offset) != format::kEntryMagic) {
    return kNoEntry;
  }
  sizes.all = format::number_at<std::uint64_t>(bytes, offset + kSizeAt);
  sizes.key = format::number_at<std::uint32_t>(bytes, offset + 16);
  sizes.atoms = format::number_at<std::uint32_t>(bytes, offset + kAtomsAt);
  const std::uint64_t fixed = kEntryHeaderSize + sizes.atoms * format::kNumber + sizes.key;
  if (sizes.key == 0 || sizes.atoms == 0 || fixed > sizes.all) {
    return kContradict;
  }
  if (sizes.atoms * format::kNumber > available - kEntryHeaderSize) {
    return kCut;
  }
  std::uint64_t left = sizes.all - fixed;
  for (std::uint64_t i = 0; i < sizes.atoms; ++i) {
    const auto size =
        format::number_at<std::uint64_t>(bytes, offset + kEntryHeaderSize + i * format::kNumber);
    if (size == 0 || size > left) {
      return kContradict;
    }
    left -= size;
  }
  return left == 0 ? nullptr : kContradict;
}

}  // namespace

IndexedScan::IndexedScan(std::string name, std::string_view bytes, std::uint64_t covered,
                         Visitor& visitor)
    : name_(std::move(name)),
      bytes_(bytes),
      covered_(covered),
      visitor_(visitor),
      tries_left_(bytes.size()) {}

const char* IndexedScan::read(std::string_view bytes, std::uint64_t offset, Entry& entry) {
  Sizes sizes;
  if (const char* const reason = read_sizes(bytes, offset, sizes)) {
    return reason;
  }
  if (sizes.all > bytes.size() - offset || format::padded(sizes.all) > bytes.size() - offset) {
    return kCut;
  }
  entry.offset = offset;
  entry.size = sizes.all;
  std::uint64_t at = offset + kEntryHeaderSize + sizes.atoms * format::kNumber;
  entry.key = bytes.substr(at, sizes.key);
  at += sizes.key;
  entry.atoms.clear();
  for (std::uint64_t i = 0; i < sizes.atoms; ++i) {
    const auto size =
        format::number_at<std::uint64_t>(bytes, offset + kEntryHeaderSize + i * format::kNumber);
    entry.atoms.push_back(bytes.substr(at, size));
    at += size;
  }
  return nullptr;
}

bool IndexedScan::read_any(std::string_view bytes, std::uint64_t offset, Entry& entry,
                           std::uint64_t& tries) {
  if (offset < format::kDataHeaderSize || offset % format::kAlignment != 0 ||
      offset >= bytes.size() || bytes.size() - offset < kEntryHeaderSize ||
      format::number_at<std::uint32_t>(bytes, offset) != format::kEntryMagic) {
    return false;
  }
  const std::uint64_t atoms = format::number_at<std::uint32_t>(bytes, offset + kAtomsAt);
  if (atoms > (bytes.size() - offset) / format::kNumber || atoms >= tries) {
    return false;
  }
  tries -= 1 + atoms;
  return read(bytes, offset, entry) == nullptr;
}

bool IndexedScan::has_checksum(std::string_view bytes, const Entry& entry) {
  const auto checksum = static_cast<std::uint32_t>(
      ::util::Fingerprint64(bytes.data() + entry.offset + kSizeAt, entry.size - kSizeAt));
  return checksum == format::number_at<std::uint32_t>(bytes, entry.offset + 4);
}

bool IndexedScan::is_cut(std::string_view bytes, std::uint64_t offset) {
  const std::uint64_t left = bytes.size() - offset;
  Sizes sizes;
  return left < kEntryHeaderSize || (read_sizes(bytes, offset, sizes) == nullptr &&
                                     (sizes.all > left || format::padded(sizes.all) > left));
}

Place IndexedScan::rest(const std::string& name, std::uint64_t offset, std::uint64_t end) {
  return {name, offset, end - offset, "an append was cut short here; the next one overwrites it",
          false};
}

std::uint64_t IndexedScan::entry_from(std::uint64_t offset) {
  for (std::uint64_t at = format::padded(offset); at < bytes_.size() && tries_left_ != 0;
       at += format::kAlignment) {
    if (is_whole_at(at)) {
      return at;
    }
  }
  return bytes_.size();
}

std::uint64_t IndexedScan::run(std::uint64_t offset, Progress& progress) {
  std::uint64_t entries = 0;
  while (offset < bytes_.size()) {
    progress.at(offset);
    const char* const reason = why_not(offset);
    if (reason == nullptr) {
      const std::uint64_t end = offset + format::padded(entry_.size);
      check_padding(offset + entry_.size, end);
      visitor_.entry(entry_);
      ++entries;
      offset = end;
    } else {
      const std::uint64_t next = next_entry(offset);
      tell_damage(offset, next, reason);
      offset = next;
    }
  }
  return entries;
}

const char* IndexedScan::why_not(std::uint64_t offset) {
  const char* const reason = read(bytes_, offset, entry_);
  return reason == nullptr && !has_checksum(bytes_, entry_) ? kChecksum : reason;
}

bool IndexedScan::is_whole_at(std::uint64_t offset) {
  if (read(bytes_, offset, entry_) != nullptr) {
    return false;
  }
  tries_left_ -= std::min(tries_left_, entry_.size);
  return has_checksum(bytes_, entry_);
}

// The first whole entry behind the one at `offset`, which is not whole; the end of the file if
// there is none. If its sizes fit together they are believed, as the library does, and its
// value is skipped: that may look like entries.
std::uint64_t IndexedScan::next_entry(std::uint64_t offset) {
  Sizes sizes;
  std::uint64_t at = offset + format::kAlignment;
  if (read_sizes(bytes_, offset, sizes) == nullptr) {
    if (is_cut(bytes_, offset)) {
      return bytes_.size();
    }
    at = offset + format::padded(sizes.all);
  }
  return entry_from(at);
}

void IndexedScan::tell_damage(std::uint64_t offset, std::uint64_t next, const char* reason) {
  const bool is_rest = offset >= covered_ && next == bytes_.size() && tries_left_ != 0;
  visitor_.place(is_rest ? rest(name_, offset, next) : Place{name_, offset, next - offset, reason});
}

void IndexedScan::check_padding(std::uint64_t from, std::uint64_t end) {
  if (bytes_.substr(from, end - from).find_first_not_of('\0') != std::string_view::npos) {
    visitor_.place({name_, from, end - from, "the padding is not zero", false});
  }
}

}  // namespace quorvane::tool
