#include "qvutil/store/headers.h"

#include <string_view>

#include "qvutil/store/format.h"

namespace quorvane::tool {

bool check_header(MappedFile& file, std::uint32_t magic, std::uint32_t version, std::uint64_t size,
                  Visitor& visitor) {
  const std::string_view bytes = file.bytes();
  const format::Start start = format::start_of(bytes);
  if (bytes.size() < size) {
    visitor.place({file.name(), 0, bytes.size(),
                   bytes.empty() ? "the file is empty" : "the header is cut short"});
    return false;
  }
  if (start.magic != magic || start.version != version) {
    visitor.place({file.name(), 0, size, "the header is damaged"});
  }
  return true;
}

bool check_data_header(MappedFile& file, Visitor& visitor) {
  const std::string_view bytes = file.bytes();
  if (bytes.size() < format::kDataHeaderSize) {
    visitor.place({file.name(), 0, bytes.size(),
                   "the header is cut short; the next process writes it", false});
    return false;
  }
  constexpr std::uint64_t kRestAt = 16;
  if (bytes.substr(kRestAt, format::kDataHeaderSize - kRestAt).find_first_not_of('\0') !=
      std::string_view::npos) {
    visitor.place({file.name(), kRestAt, format::kDataHeaderSize - kRestAt,
                   "the rest of the header is not zero", false});
  }
  return check_header(file, format::kDataMagic, format::kIndexedVersion, format::kDataHeaderSize,
                      visitor);
}

}  // namespace quorvane::tool
