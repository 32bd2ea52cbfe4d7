// The index of an indexed store, as a reader of the library sees it.
#ifndef TOOLS_QVUTIL_STORE_INDEX_VIEW_H_
#define TOOLS_QVUTIL_STORE_INDEX_VIEW_H_

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "qvutil/store/mapped_file.h"

namespace quorvane::tool {

class IndexView {
 public:
  // The index at `path` of this data. Reads the page; call it with the store's lock. Throws
  // OtherVersion if the index has another version of its format.
  IndexView(const std::string& path, const MappedFile& data, std::uint64_t identity);

  // Whether the library uses it. Otherwise it makes the index anew, and `reason` says why.
  bool fits() const { return reason_.empty(); }
  const std::string& reason() const { return reason_; }
  const std::string& name() const { return name_; }
  std::uint64_t file_size() const { return file_ ? file_->size() : 0; }
  std::int64_t changed() const { return file_ ? file_->changed() : 0; }

  // As they were when the page was read. See docs/formats.md.
  std::uint64_t covered() const { return page_.covered; }
  std::uint64_t indexed() const { return page_.indexed; }
  std::uint64_t entries() const { return page_.entries; }
  bool is_moving() const { return page_.moving != 0; }
  bool has_only_zeros_behind() const { return has_only_zeros_behind_; }
  std::uint64_t slots() const { return page_.slots; }

  // A slot is 0 if it is free. Otherwise it has the upper bits of the key's hash above the offset
  // of the entry.
  static std::uint64_t offset_of(std::uint64_t slot) { return slot & kOffsetMask; }
  static bool has_tag(std::uint64_t slot, std::uint64_t hash) {
    return ((slot ^ hash) & ~kOffsetMask) == 0;
  }

  // Calls `is_it` with the offset of each entry that the hash may lead to, until that returns true.
  // False if none did. Only if the index fits, and after map(), as slot() and prefetch().
  template <typename IsIt>
  bool probe(std::uint64_t hash, const IsIt& is_it) const {
    for (std::uint64_t probes = 0; probes < slots(); ++probes) {
      const std::uint64_t found = slot((hash + probes) & (slots() - 1));
      if (found == 0) {
        return false;
      }
      if (has_tag(found, hash) && is_it(offset_of(found))) {
        return true;
      }
    }
    return false;
  }

  // The slot as it is now, at most slots() - 1.
  std::uint64_t slot(std::uint64_t at) const {
    // A writer may store it meanwhile.
    auto* const slot =
        reinterpret_cast<std::uint64_t*>(const_cast<char*>(slots_ + at * sizeof(std::uint64_t)));
    return std::atomic_ref<std::uint64_t>(*slot).load(std::memory_order_acquire);
  }
  // Fetches it, so that slot() doesn't wait for memory.
  void prefetch(std::uint64_t at) const { __builtin_prefetch(slots_ + at * sizeof(std::uint64_t)); }
  // Maps the slots.
  void map();

 private:
  static constexpr std::uint64_t kOffsetMask = (std::uint64_t{1} << 48) - 1;

  struct Page {
    std::uint32_t magic = 0;
    std::uint32_t version = 0;
    std::uint64_t identity = 0;
    std::uint64_t device = 0;
    std::uint64_t inode = 0;
    std::uint64_t boot[2] = {0, 0};
    std::uint64_t slots = 0;
    std::uint64_t checksum = 0;
    std::uint64_t covered = 0;
    std::uint64_t indexed = 0;
    std::uint64_t entries = 0;
    std::uint64_t moving = 0;
  };

  std::string why_not(const MappedFile& data, std::uint64_t identity) const;
  bool is_of_this_boot() const;

  std::string name_;
  std::optional<MappedFile> file_;
  Page page_;
  std::string reason_;
  bool has_only_zeros_behind_ = true;
  const char* slots_ = nullptr;
};

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_STORE_INDEX_VIEW_H_
