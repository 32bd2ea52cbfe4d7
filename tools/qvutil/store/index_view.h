// The index of an indexed store, as a reader of the library sees it.
#ifndef TOOLS_QVUTIL_STORE_INDEX_VIEW_H_
#define TOOLS_QVUTIL_STORE_INDEX_VIEW_H_

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

  // The slot as it is now, at most slots() - 1. Only if it fits.
  std::uint64_t slot(std::uint64_t at) const;
  // Fetches it, so that slot() doesn't wait for memory.
  void prefetch(std::uint64_t at) const;
  // Maps the slots.
  void map();

 private:
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
