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
quorvane::cache::StoreOptions indexed_options(const std::string& root,
                                              std::uint64_t flush_after = 0);

std::unique_ptr<quorvane::cache::Cache> open_cache(const quorvane::cache::StoreOptions& options);

std::unique_ptr<quorvane::cache::Cache> open_cache(const std::string& root);

bool add(quorvane::cache::Cache& cache, const std::string& key, const std::string& value);

// The first atom.
std::optional<std::string> get(quorvane::cache::Cache& cache, const std::string& key);

inline std::string numbered(const std::string& text, std::size_t number) {
  return text + std::to_string(number);
}

// --- the data file ---

std::uint64_t number_at(const std::string& bytes, std::size_t offset, std::size_t width);

constexpr std::size_t kFirstIndexedEntry = 64;

// The offsets of the entries of an intact file.
std::vector<std::size_t> indexed_offsets(const std::string& bytes);

Entry indexed_entry(const std::string& bytes, std::size_t offset);

// All entries of the store "maps", in the order of the file.
std::vector<Entry> indexed_entries(const std::string& root);

}  // namespace test

#endif  // TESTS_SUPPORT_INDEXED_CACHE_H_
