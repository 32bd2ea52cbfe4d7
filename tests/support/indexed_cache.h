// Caches on indexed stores, and the entries in their data files.
#ifndef TESTS_SUPPORT_INDEXED_CACHE_H_
#define TESTS_SUPPORT_INDEXED_CACHE_H_

#include <quorvane/cache.h>
#include <quorvane/file_store.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "support/store_bytes.h"
#include "support/temp_dir.h"

namespace test {

// Of the store "maps".
inline quorvane::cache::StoreOptions indexed_options(const std::string& root,
                                                     std::uint64_t flush_after = 0) {
  quorvane::cache::StoreOptions options;
  options.name = "maps";
  options.root = root;
  options.flush_after = flush_after;
  return options;
}

inline std::unique_ptr<quorvane::cache::Cache> open_cache(
    const quorvane::cache::StoreOptions& options) {
  return std::make_unique<quorvane::cache::Cache>(options.name,
                                                  quorvane::cache::make_store(options), false);
}

inline std::unique_ptr<quorvane::cache::Cache> open_cache(const std::string& root) {
  return open_cache(indexed_options(root));
}

inline bool add(quorvane::cache::Cache& cache, const std::string& key, const std::string& value) {
  return cache.add_value(buffer(key), buffers({value}));
}

// The first atom.
inline std::optional<std::string> get(quorvane::cache::Cache& cache, const std::string& key) {
  const auto* value = cache.get_value(buffer(key));
  return value == nullptr ? std::nullopt : std::optional(bytes_of(value->front()));
}

inline std::string numbered(const std::string& text, std::size_t number) {
  return text + std::to_string(number);
}

// --- the data file ---

inline std::uint64_t number_at(const std::string& bytes, std::size_t offset, std::size_t width) {
  std::uint64_t number = 0;
  for (std::size_t i = 0; i < width && offset + i < bytes.size(); ++i) {
    number |= std::uint64_t{static_cast<unsigned char>(bytes[offset + i])} << (8 * i);
  }
  return number;
}

constexpr std::size_t kFirstIndexedEntry = 64;

// The offsets of the entries of an intact file.
inline std::vector<std::size_t> indexed_offsets(const std::string& bytes) {
  std::vector<std::size_t> offsets;
  for (std::size_t at = kFirstIndexedEntry; at < bytes.size();) {
    offsets.push_back(at);
    at += (number_at(bytes, at + 8, 8) + 15) / 16 * 16;
  }
  return offsets;
}

inline Entry indexed_entry(const std::string& bytes, std::size_t offset) {
  const auto key_size = number_at(bytes, offset + 16, 4);
  const auto atoms = number_at(bytes, offset + 20, 4);
  std::size_t at = offset + 24 + 8 * atoms;
  Entry entry{bytes.substr(at, key_size), {}};
  at += key_size;
  for (std::uint64_t atom = 0; atom < atoms; ++atom) {
    const auto size = number_at(bytes, offset + 24 + 8 * atom, 8);
    entry.atoms.push_back(bytes.substr(at, size));
    at += size;
  }
  return entry;
}

// All entries of the store "maps", in the order of the file.
inline std::vector<Entry> indexed_entries(const std::string& root) {
  const std::string bytes = read_file(root + "/dat_maps");
  std::vector<Entry> entries;
  for (const std::size_t offset : indexed_offsets(bytes)) {
    entries.push_back(indexed_entry(bytes, offset));
  }
  return entries;
}

}  // namespace test

#endif  // TESTS_SUPPORT_INDEXED_CACHE_H_
