#include "qvutil/store/index_view.h"

#include <farmhash.h>

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstring>
#include <fstream>
#include <iterator>

#include "qvutil/output/outcome.h"
#include "qvutil/output/text.h"
#include "qvutil/store/format.h"

namespace quorvane::tool {
namespace {

struct Boot {
  std::uint64_t id[2] = {0, 0};  // zeros: unknown
};

Boot present_boot() {
  std::ifstream file("/proc/sys/kernel/random/boot_id");
  const std::string text{std::istreambuf_iterator<char>(file), {}};
  Boot boot;
  if (!text.empty()) {
    const auto hash = ::util::Fingerprint128(text.data(), text.size());
    boot.id[0] = hash.first;
    boot.id[1] = hash.second;
  }
  return boot;
}

}  // namespace

IndexView::IndexView(const std::string& path, const MappedFile& data, std::uint64_t identity)
    : name_(path.substr(path.rfind('/') + 1)), file_(MappedFile::open(path)) {
  static_assert(sizeof(Page) == 96);
  if (!file_) {
    reason_ = "the index is missing";
    return;
  }
  if (file_->size() < format::kIndexPageSize) {
    reason_ = "the index is shorter than its page";
    return;
  }
  const std::string_view bytes = file_->bytes();
  std::memcpy(&page_, bytes.data(), sizeof(page_));
  has_only_zeros_behind_ =
      bytes.substr(sizeof(page_), format::kIndexPageSize - sizeof(page_)).find_first_not_of('\0') ==
      std::string_view::npos;
  reason_ = why_not(data, identity);
}

std::string IndexView::why_not(const MappedFile& data, std::uint64_t identity) const {
  const bool is_sealed =
      page_.checksum ==
      ::util::Fingerprint64(reinterpret_cast<const char*>(&page_), offsetof(Page, checksum));
  if (page_.magic != format::kIndexMagic || !is_sealed) {
    return "the page of the index is damaged";
  }
  if (page_.version != format::kIndexedVersion) {
    throw format::OtherVersion(shown(file_->path()), page_.version, format::kIndexedVersion);
  }
  if (page_.identity != identity || page_.device != data.device() || page_.inode != data.inode()) {
    return "the index is of another data file";
  }
  if (!is_of_this_boot()) {
    return "the index was written before the system was started";
  }
  const std::uint64_t slot_bytes = file_->size() - format::kIndexPageSize;
  if (!std::has_single_bit(page_.slots) || slot_bytes % sizeof(std::uint64_t) != 0 ||
      page_.slots != slot_bytes / sizeof(std::uint64_t)) {
    return "the number of slots is wrong";
  }
  const bool is_possible = page_.covered <= data.size() &&
                           page_.covered >= format::kDataHeaderSize &&
                           page_.covered % format::kAlignment == 0 &&
                           page_.indexed <= page_.covered && page_.entries < page_.slots;
  return is_possible ? "" : "the index doesn't fit the size of the data";
}

bool IndexView::is_of_this_boot() const {
  static const Boot boot = present_boot();
  const auto is_unknown = [](const std::uint64_t* id) { return id[0] == 0 && id[1] == 0; };
  return is_unknown(page_.boot) || is_unknown(boot.id) ||
         std::equal(std::begin(boot.id), std::end(boot.id), std::begin(page_.boot));
}

void IndexView::map() { slots_ = file_->bytes().data() + format::kIndexPageSize; }

}  // namespace quorvane::tool
