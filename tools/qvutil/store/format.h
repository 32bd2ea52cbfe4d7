// What the files of caches have at fixed places. docs/formats.md describes them.
#ifndef TOOLS_QVUTIL_STORE_FORMAT_H_
#define TOOLS_QVUTIL_STORE_FORMAT_H_

#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "qvutil/output/outcome.h"

namespace quorvane::tool::format {

// Basic and lazy look-up stores: the header of each file, and the beginning of each entry.
constexpr std::uint32_t kMagic = 0xC3A5C3A5;
constexpr std::uint32_t kBasicVersion = 1;
constexpr std::uint32_t kLazyVersion = 2;
constexpr std::uint64_t kHeaderSize = 8;

// Sizes, counts and offsets.
constexpr std::uint64_t kNumber = sizeof(std::uint64_t);

// Indexed stores.
constexpr std::uint32_t kDataMagic = 0x44495651;   // "QVID"
constexpr std::uint32_t kEntryMagic = 0x45495651;  // "QVIE"
constexpr std::uint32_t kIndexMagic = 0x58495651;  // "QVIX"
constexpr std::uint32_t kIndexedVersion = 1;
constexpr std::uint64_t kDataHeaderSize = 64;
constexpr std::uint64_t kAlignment = 16;
constexpr std::uint64_t kIndexPageSize = 4096;

// The size of an indexed entry with its padding.
constexpr std::uint64_t padded(std::uint64_t size) {
  return (size + kAlignment - 1) / kAlignment * kAlignment;
}

// The number at `offset`, which must be inside.
template <typename Number>
Number number_at(std::string_view bytes, std::uint64_t offset) {
  Number number;
  std::memcpy(&number, bytes.data() + offset, sizeof(number));
  return number;
}

// Both numbers that every file begins with, or zeros.
struct Start {
  std::uint32_t magic = 0;
  std::uint32_t version = 0;
};

inline Start start_of(std::string_view bytes) {
  Start start;
  if (bytes.size() >= sizeof(start)) {
    std::memcpy(&start, bytes.data(), sizeof(start));
  }
  return start;
}

// A file is of a version of its format that this tool doesn't know.
class OtherVersion : public Failure {
 public:
  // `path` as it can be shown.
  OtherVersion(const std::string& path, std::uint32_t version, std::uint32_t own)
      : Failure(path + " has version " + std::to_string(version) +
                " of its format, this tool knows version " + std::to_string(own)) {}
};

// Versions count up from 1. A greater number is a damaged one.
inline bool is_other_version(std::uint32_t version, std::uint32_t own) {
  return version != own && version < 256;
}

}  // namespace quorvane::tool::format

#endif  // TOOLS_QVUTIL_STORE_FORMAT_H_
