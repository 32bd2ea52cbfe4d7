// Any bytes as a basic store's file: loading them and scanning them for new keys
// ends in a refusal or in entries that can be read to their last byte, and both
// ways of reading agree on the keys.
#include <quorvane/file_store.h>

#include <memory>

#include "store_fuzz.h"

using fuzz::expect;
using fuzz::expect_same_keys;
using fuzz::sum;
using quorvane::cache::BasicStore;
using quorvane::cache::CleanupController;
using quorvane::cache::EntryMap;
using quorvane::cache::KeySet;
using quorvane::util::RoBuffer;

namespace {

// How many bytes a file of these entries has, reading all of them.
std::size_t file_size(const EntryMap& entries) {
  std::size_t size = 8;
  volatile std::size_t total = 0;
  for (const auto& [key, value] : entries) {
    size += BasicStore::get_entry_representation_size(key, value);
    total = total + sum(key);
    expect(!value.empty());
    for (const RoBuffer& atom : value) {
      total = total + sum(atom);
    }
  }
  return size;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const fuzz::Root root;
  static const auto lock = std::make_shared<fuzz::FreeLock>();
  static CleanupController controller(0);
  fuzz::log_nothing();

  root.write("maps", data, size);
  EntryMap entries;
  KeySet keys;
  BasicStore loading("maps", lock, &controller);
  BasicStore scanning("maps", lock, &controller);
  const bool loaded = loading.try_load(entries);
  const bool scanned = scanning.try_nonlock_load_new_keys(keys);
  expect(loaded == scanned);
  expect(file_size(entries) <= size || entries.empty());
  expect_same_keys(entries, keys);
  if (loaded) {
    KeySet none;
    expect(loading.try_nonlock_load_new_keys(none) && none.empty());
  }
  return 0;
}
