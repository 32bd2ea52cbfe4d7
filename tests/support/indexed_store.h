// The engine of an indexed store under test, and the bytes of its files. For tests that link
// the library's objects.
#ifndef TESTS_SUPPORT_INDEXED_STORE_H_
#define TESTS_SUPPORT_INDEXED_STORE_H_

#include <farmhash.h>
#include <quorvane/file_store.h>

#include <cstddef>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "src/cache/indexed/engine.h"
#include "src/cache/indexed/entry.h"
#include "src/cache/indexed/format.h"
#include "support/store_bytes.h"
#include "support/store_root.h"

namespace test {

// --- inside a scenario ---

inline std::unique_ptr<quorvane::cache::indexed::Engine> indexed_store() {
  return std::make_unique<quorvane::cache::indexed::Engine>(
      root_path(), "maps", std::make_shared<quorvane::cache::StoreFLock>("maps"));
}

inline std::string data_path() { return root_file("dat_maps"); }
inline std::string index_path() { return root_file("idx_maps"); }

// "[atom][atom]", or nothing.
inline std::optional<std::string> look_up(quorvane::cache::indexed::Engine& store,
                                          const std::string& key) {
  std::vector<quorvane::util::RoBuffer> value;
  if (!store.find(buffer(key), value)) {
    return std::nullopt;
  }
  std::string text;
  for (const quorvane::util::RoBuffer& atom : value) {
    text += "[" + bytes_of(atom) + "]";
  }
  return text;
}

inline std::string text_of(const Entry& entry) {
  std::string text;
  for (const std::string& atom : entry.atoms) {
    text += "[" + atom + "]";
  }
  return text;
}

inline std::uint64_t hash_of(const std::string& key) {
  return quorvane::cache::indexed::hash_of(reinterpret_cast<const unsigned char*>(key.data()),
                                           key.size());
}

// How many of these entries the store finds, and doesn't lack, with their values; -1 when a value
// is wrong.
inline int count_found(quorvane::cache::indexed::Engine& store, const std::vector<Entry>& entries) {
  int count = 0;
  for (const Entry& entry : entries) {
    const std::optional<std::string> found = look_up(store, entry.key);
    if (found && *found != text_of(entry)) {
      return -1;
    }
    count += found && !store.lacks(hash_of(entry.key)) ? 1 : 0;
  }
  return count;
}

// Entries "key0", "key1" ... of a few hundred bytes.
inline std::vector<Entry> numbered_entries(int from, int to) {
  std::vector<Entry> entries;
  for (int i = from; i < to; ++i) {
    const std::string number = std::to_string(i);
    entries.push_back({"key" + number, {"value" + number, std::string(200, 'x')}});
  }
  return entries;
}

// --- bytes ---

template <typename Number>
void put(std::string& bytes, std::size_t offset, Number number) {
  std::memcpy(bytes.data() + offset, &number, sizeof(number));
}

template <typename Number>
Number number_at(const std::string& bytes, std::size_t offset) {
  Number number;
  std::memcpy(&number, bytes.data() + offset, sizeof(number));
  return number;
}

// Where the entries of an intact data file begin.
inline std::vector<std::size_t> entry_offsets(const std::string& data) {
  using quorvane::cache::indexed::EntryHeader;
  std::vector<std::size_t> offsets;
  for (std::size_t at = quorvane::cache::indexed::kFirstEntry; at < data.size();) {
    offsets.push_back(at);
    at += quorvane::cache::indexed::padded(
        number_at<std::uint64_t>(data, at + offsetof(EntryHeader, size)));
  }
  return offsets;
}

// Makes a changed header of an entry count as written.
inline void mark_header(std::string& data, std::size_t offset) {
  put(data, offset, quorvane::cache::indexed::kEntryMagic);
}

// Makes the changed words of an index page that never change count as written.
inline void seal_index(std::string& index) {
  constexpr std::size_t kAt = offsetof(quorvane::cache::indexed::IndexPage, checksum);
  put(index, kAt, ::util::Fingerprint64(index.data(), kAt));
}

}  // namespace test

#endif  // TESTS_SUPPORT_INDEXED_STORE_H_
