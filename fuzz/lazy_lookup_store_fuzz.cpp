// Any bytes as the two files of a lazy store: loading them and scanning them for
// new keys ends in a refusal or in entries that can be read to their last byte,
// and a pair that loads gives a scan the same keys.
//
// An input is the size of the key file in two bytes, the key file, and, in what is
// left, the value file.
#include <quorvane/file_store.h>

#include <algorithm>
#include <memory>

#include "store_fuzz.h"

using fuzz::expect;
using quorvane::cache::CleanupController;
using quorvane::cache::EntryMap;
using quorvane::cache::KeySet;
using quorvane::cache::LazyLookupStore;
using quorvane::util::RoBuffer;

namespace {

constexpr std::size_t kHeader = 8;

// How many bytes a key file of these entries has, reading all of them.
std::size_t key_file_size(const EntryMap& entries, std::size_t val_file_size) {
  std::size_t size = kHeader;
  volatile std::size_t total = 0;
  for (const auto& [key, value] : entries) {
    size += LazyLookupStore::get_key_file_entry_representation_size(key, value);
    expect(!value.empty());
    expect(LazyLookupStore::get_val_file_entry_representation_size(value) <=
           val_file_size - kHeader);
    total = total + fuzz::sum(key);
    for (const RoBuffer& atom : value) {
      total = total + fuzz::sum(atom);
    }
  }
  return size;
}

// The atoms of a load that failed are views of nothing, but the keys are there.
void expect_readable_keys(const EntryMap& entries) {
  volatile std::size_t total = 0;
  for (const auto& entry : entries) {
    total = total + fuzz::sum(entry.first);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const fuzz::Root root;
  static const auto lock = std::make_shared<fuzz::FreeLock>();
  static CleanupController controller(0);
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

  EntryMap entries;
  KeySet keys;
  LazyLookupStore loading("maps", lock, &controller);
  LazyLookupStore scanning("maps", lock, &controller);
  const bool loaded = loading.try_load(entries);
  const bool scanned = scanning.try_nonlock_load_new_keys(keys);
  if (!loaded) {
    expect_readable_keys(entries);
    return 0;
  }
  expect(scanned);
  expect(key_file_size(entries, size - key_size) == key_size);
  fuzz::expect_same_keys(entries, keys);
  KeySet none;
  expect(loading.try_nonlock_load_new_keys(none) && none.empty());
  return 0;
}
