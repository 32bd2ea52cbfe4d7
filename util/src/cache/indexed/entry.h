// One entry of an indexed store's data file.
#ifndef QUORVANE_SRC_CACHE_INDEXED_ENTRY_H_
#define QUORVANE_SRC_CACHE_INDEXED_ENTRY_H_

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <quorvane/buffer.h>

#include "src/cache/indexed/format.h"
#include "src/cache/key_hash.h"

namespace quorvane {
namespace cache {
namespace indexed {

// The hash that places a key in the index.
inline std::uint64_t hash_of(const unsigned char* key, std::size_t size) {
  return key_hash::lasting(key, size);
}

// A view of an entry in memory whose sizes fit together.
// Thread-safety: any number of threads. The bytes must outlive the view.
class Entry {
 public:
  // The header at the start of `available` bytes. Nothing when there is none. What it says of
  // the entry may be wrong.
  static std::optional<EntryHeader> header_at(const unsigned char* bytes, std::uint64_t available);

  // The same as at() for an entry that may exceed `available`, as the write of a killed process
  // leaves it. Only its sizes may be asked for then.
  static std::optional<Entry> start_at(const unsigned char* bytes, std::uint64_t available);

  // The entry at the start of `available` bytes. Nothing when there is none, or when its
  // sizes contradict each other or exceed `available`. Doesn't look at the checksum.
  static std::optional<Entry> at(const unsigned char* bytes, std::uint64_t available);

  // In bytes, without padding.
  std::uint64_t size() const { return header_.size; }

  const unsigned char* bytes() const { return bytes_; }
  const unsigned char* key() const;
  std::size_t key_size() const { return header_.key_size; }
  bool has_key(const util::RoBuffer& key) const;

  // Reads all of the entry.
  bool is_intact() const;

  // Copies the entry and returns the atoms of the copy, which share one allocation. Nothing
  // when the copy is not intact. May throw std::bad_alloc.
  std::optional<std::vector<util::RoBuffer>> copy_value() const;

  // Atoms as views. The bytes must outlive them.
  std::vector<util::RoBuffer> value_views() const;

 private:
  Entry(const unsigned char* bytes, const EntryHeader& header) : bytes_(bytes), header_(header) {}
  std::uint64_t atom_size(std::uint32_t atom) const;

  const unsigned char* bytes_;
  EntryHeader header_;
};

// The size of an entry in the data file, with its padding. 0 when it exceeds the format: a
// key or a number of atoms of 4 GiB or more.
std::uint64_t size_in_file(const util::RoBuffer& key, const std::vector<util::RoBuffer>& value);

// Appends an entry with its padding. May throw std::bad_alloc.
void encode(std::string& bytes, const util::RoBuffer& key,
            const std::vector<util::RoBuffer>& value);

}  // namespace indexed
}  // namespace cache
}  // namespace quorvane

#endif  // QUORVANE_SRC_CACHE_INDEXED_ENTRY_H_
