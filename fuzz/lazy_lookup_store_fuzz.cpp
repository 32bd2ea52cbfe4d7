// Any bytes as the two files of a lazy store: loading them and scanning them for
// new keys either refuses them or gives entries that can be read to their last
// byte. When the pair loads, a scan gives the same keys.
//
// An input is the size of the key file in two bytes, the key file, and the value
// file in what is left.
#include <quorvane/file_store.h>

#include <algorithm>

#include "store_fuzz.h"

using quorvane::cache::EntryMap;
using quorvane::cache::LazyLookupStore;

namespace {

constexpr std::size_t kHeader = 8;

// The size of a key file that holds these entries. Reads them to their last byte.
std::size_t key_file_size(const EntryMap& entries, std::size_t val_file_size) {
  std::size_t size = kHeader;
  for (const auto& [key, value] : entries) {
    size += LazyLookupStore::get_key_file_entry_representation_size(key, value);
    fuzz::expect(LazyLookupStore::get_val_file_entry_representation_size(value) <=
                 val_file_size - kHeader);
    fuzz::expect_readable(key);
    fuzz::expect_readable(value);
  }
  return size;
}

// After a load that failed: the atoms are dangling views, but the keys are there.
void expect_readable_keys(const EntryMap& entries) {
  for (const auto& entry : entries) {
    fuzz::expect_readable(entry.first);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const fuzz::Root root;
  fuzz::log_nothing();
  if (size < 2) {
    return 0;
  }
  const std::size_t named = data[0] + std::size_t{256} * data[1];
  data += 2;
  size -= 2;
  const std::size_t key_size = std::min(named, size);
  root.write("key_maps", data, key_size);
  root.write("val_maps", data + key_size, size - key_size);

  const fuzz::Reading<LazyLookupStore> reading;
  if (!reading.is_loaded) {
    expect_readable_keys(reading.entries);
    return 0;
  }
  fuzz::expect(reading.is_scanned);
  fuzz::expect(key_file_size(reading.entries, size - key_size) == key_size);
  fuzz::expect_same_keys(reading.entries, reading.keys);
  return 0;
}
