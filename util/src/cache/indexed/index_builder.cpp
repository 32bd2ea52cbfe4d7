#include "src/cache/indexed/index_builder.h"

#include <fcntl.h>
#include <unistd.h>

#include <bit>
#include <cerrno>
#include <cstring>

#include "src/cache/indexed/index_file.h"
#include "src/cache/indexed/write_all.h"
#include "src/descriptor.h"

namespace quorvane {
namespace cache {
namespace indexed {
namespace {

constexpr std::uint64_t kFewestSlots = 1024;

template <typename Bytes>
std::string_view view_of(const Bytes* first, std::size_t size) {
  return {reinterpret_cast<const char*>(first), size};
}

// One call for each page. What one call writes, the kernel may keep as one block of up to 2 MB, and
// mark all of that when a process first stores into it: the first append to a million entries took
// more than twice as long.
bool write_pages(int fd, std::string_view bytes, std::uint64_t offset) {
  for (std::size_t at = 0; at < bytes.size(); at += kIndexPageSize) {
    if (!write_all(fd, bytes.substr(at, kIndexPageSize), offset + at)) {
      return false;
    }
  }
  return true;
}

}  // namespace

std::uint64_t slots_for(std::uint64_t entries) {
  return std::max(std::bit_ceil(2 * entries), kFewestSlots);
}

ScanResult IndexBuilder::collect(std::uint64_t limit, bool check) {
  const ScanResult result =
      scan(data_, kFirstEntry, limit, check, [this](const Entry& entry, std::uint64_t offset) {
        places_.push_back({hash_of(entry.key(), entry.key_size()), offset});
      });
  covered_ = result.end;
  return result;
}

bool IndexBuilder::is_same_key(std::uint64_t offset, std::uint64_t other) const {
  const std::optional<Entry> one = data_.entry_at(offset, covered_);
  const std::optional<Entry> two = data_.entry_at(other, covered_);
  return one && two && one->has_key(util::RoBuffer::view(two->key(), two->key_size()));
}

bool IndexBuilder::is_intact(std::uint64_t offset) const {
  const std::optional<Entry> entry = data_.entry_at(offset, covered_);
  return entry && entry->is_intact();
}

// The first entry of a key gets the slot. A later one is there only after a kill, or because
// the first was damaged when its key was stored.
void IndexBuilder::fill(std::vector<std::uint64_t>& slots) {
  const std::uint64_t mask = slots.size() - 1;
  for (const Place& place : places_) {
    std::uint64_t at = place.hash & mask;
    while (slots[at] != 0 &&
           !(has_tag(slots[at], place.hash) && is_same_key(offset_in(slots[at]), place.offset))) {
      at = (at + 1) & mask;
    }
    entries_ += slots[at] == 0 ? 1 : 0;
    if (slots[at] == 0 || !is_intact(offset_in(slots[at]))) {
      slots[at] = make_slot(place.hash, place.offset);
    }
  }
}

bool IndexBuilder::write(const std::string& path, std::uint64_t more) {
  std::vector<std::uint64_t> slots(slots_for(places_.size() + more));
  entries_ = 0;
  fill(slots);
  std::string head(kIndexPageSize, '\0');
  IndexPage page = page_for(data_, slots.size());
  page.covered = covered_;
  page.indexed = covered_;
  page.entries = entries_;
  std::memcpy(head.data(), &page, sizeof(page));
  unlink(path.c_str());  // the rest of a process that was killed
  const int fd =
      descriptor::open_off_standard(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
  if (fd < 0) {
    return false;
  }
  data_.give_owner_to(fd);
  // Written, not stored through a mapping: on a full disk that would end the process.
  const bool written =
      write_all(fd, head, 0) &&
      write_pages(fd, view_of(slots.data(), slots.size() * sizeof(slots[0])), kIndexPageSize);
  const int error = errno;
  close(fd);
  if (!written) {
    unlink(path.c_str());
  }
  errno = error;
  return written;
}

}  // namespace indexed
}  // namespace cache
}  // namespace quorvane
