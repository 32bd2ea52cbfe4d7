// Makes a new index file.
#ifndef QUORVANE_SRC_CACHE_INDEXED_INDEX_BUILDER_H_
#define QUORVANE_SRC_CACHE_INDEXED_INDEX_BUILDER_H_

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "src/cache/indexed/data_file.h"
#include "src/cache/indexed/format.h"
#include "src/cache/indexed/scan.h"

namespace quorvane {
namespace cache {
namespace indexed {

// Collects the entries of a data file and writes their index. The store lock is held.
class IndexBuilder {
 public:
  struct Place {
    std::uint64_t hash;
    std::uint64_t offset;
  };

  explicit IndexBuilder(const DataFile& data) : data_(data) {}

  // Collects the entries up to `limit`. See scan(). May throw std::bad_alloc.
  ScanResult collect(std::uint64_t limit, bool check);

  // The same for a caller that knows the entries, up to the offset `covered`.
  void take(std::vector<Place> places, std::uint64_t covered) {
    places_ = std::move(places);
    covered_ = covered;
  }

  // Writes the index, with room for `more` entries, to a file of this name. False with errno,
  // and without the file. May throw std::bad_alloc.
  bool write(const std::string& path, std::uint64_t more);

 private:
  bool is_same_key(std::uint64_t offset, std::uint64_t other) const;
  bool is_intact(std::uint64_t offset) const;
  void fill(std::vector<std::uint64_t>& slots);

  const DataFile& data_;
  std::vector<Place> places_;
  std::uint64_t covered_ = 0;
  std::uint64_t entries_ = 0;
};

// The number of slots for so many entries: at most half of them are taken.
std::uint64_t slots_for(std::uint64_t entries);

// The size of a new index file for so many entries, in bytes.
inline std::uint64_t index_size_for(std::uint64_t entries) {
  return kIndexPageSize + slots_for(entries) * sizeof(std::uint64_t);
}

// Whether an index of so many slots takes so many entries.
constexpr bool has_room(std::uint64_t slots, std::uint64_t entries) {
  return entries <= slots / 3 * 2;
}

}  // namespace indexed
}  // namespace cache
}  // namespace quorvane

#endif  // QUORVANE_SRC_CACHE_INDEXED_INDEX_BUILDER_H_
