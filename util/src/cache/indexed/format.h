// The bytes of an indexed store's two files. All numbers are little-endian.
#ifndef QUORVANE_SRC_CACHE_INDEXED_FORMAT_H_
#define QUORVANE_SRC_CACHE_INDEXED_FORMAT_H_

#include <cstddef>
#include <cstdint>

namespace quorvane {
namespace cache {
namespace indexed {

constexpr std::uint32_t kDataMagic = 0x44495651;   // "QVID"
constexpr std::uint32_t kEntryMagic = 0x45495651;  // "QVIE"
constexpr std::uint32_t kIndexMagic = 0x58495651;  // "QVIX"
constexpr std::uint32_t kVersion = 1;

// The data file begins with this. Entries follow, each at a multiple of kAlignment.
struct DataHeader {
  std::uint32_t magic;
  std::uint32_t version;
  std::uint64_t identity;  // random; differs between data files of one name
  std::uint64_t zeros[6];
};
static_assert(sizeof(DataHeader) == 64);

constexpr std::uint64_t kAlignment = 16;
constexpr std::uint64_t kFirstEntry = sizeof(DataHeader);

constexpr std::uint64_t padded(std::uint64_t size) {
  return (size + kAlignment - 1) / kAlignment * kAlignment;
}

// An entry: this, the sizes of the atoms (8 bytes each), the key, the atoms.
struct EntryHeader {
  std::uint32_t magic;
  std::uint32_t checksum;  // of everything that follows in the entry
  std::uint64_t size;      // of the entry, with this header and without padding
  std::uint32_t key_size;
  std::uint32_t atoms;
};
static_assert(sizeof(EntryHeader) == 24);

// Where the checksummed bytes of an entry begin.
constexpr std::size_t kChecksummedFrom = offsetof(EntryHeader, size);

// The index file begins with a page of this; 2^k slots follow.
struct IndexPage {
  // These never change.
  std::uint32_t magic;
  std::uint32_t version;
  std::uint64_t identity;  // of the data file
  std::uint64_t device;    // of the data file, as its inode
  std::uint64_t inode;
  unsigned char boot_id[16];  // of the boot in which the index was written
  std::uint64_t slots;
  // Of the above. It is here in every version: the number of a version counts only if this
  // is right, so a damaged one isn't taken for another version.
  std::uint64_t checksum;

  // These change, under the store lock only.
  std::uint64_t covered;  // the data file has whole entries up to this offset
  std::uint64_t indexed;  // those up to this offset have slots; at most `covered`
  std::uint64_t entries;
  std::uint64_t moving;  // 1 once the name may belong to another index
};
static_assert(offsetof(IndexPage, covered) == 64);

constexpr std::size_t kIndexPageSize = 4096;

// A slot is 0 when it is free. Otherwise it has the upper 16 bits of the key's hash above
// the 48 bits of the entry's offset.
constexpr unsigned kOffsetBits = 48;
constexpr std::uint64_t kOffsetMask = (std::uint64_t{1} << kOffsetBits) - 1;

constexpr std::uint64_t make_slot(std::uint64_t hash, std::uint64_t offset) {
  return (hash & ~kOffsetMask) | offset;
}
constexpr std::uint64_t offset_in(std::uint64_t slot) { return slot & kOffsetMask; }
constexpr bool has_tag(std::uint64_t slot, std::uint64_t hash) {
  return ((slot ^ hash) & ~kOffsetMask) == 0;
}

}  // namespace indexed
}  // namespace cache
}  // namespace quorvane

#endif  // QUORVANE_SRC_CACHE_INDEXED_FORMAT_H_
