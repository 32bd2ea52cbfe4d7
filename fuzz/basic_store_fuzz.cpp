// Any bytes as a basic store's file: loading them and scanning them for new keys
// either refuses them or gives entries that can be read to their last byte, and
// both ways of reading agree on the keys.
#include <quorvane/file_store.h>

#include "store_fuzz.h"

using quorvane::cache::BasicStore;
using quorvane::cache::EntryMap;

namespace {

// How many bytes a file of these entries has, after reading all of them.
std::size_t file_size(const EntryMap& entries) {
  std::size_t size = 8;
  for (const auto& [key, value] : entries) {
    size += BasicStore::get_entry_representation_size(key, value);
    fuzz::expect_readable(key);
    fuzz::expect_readable(value);
  }
  return size;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const fuzz::Root root;
  fuzz::log_nothing();

  root.write("maps", data, size);
  const fuzz::Reading<BasicStore> reading;
  fuzz::expect(reading.is_loaded == reading.is_scanned);
  fuzz::expect(file_size(reading.entries) <= size || reading.entries.empty());
  fuzz::expect_same_keys(reading.entries, reading.keys);
  return 0;
}
