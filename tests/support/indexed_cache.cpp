#include "support/indexed_cache.h"

#include "support/temp_dir.h"

namespace test {

quorvane::cache::StoreOptions indexed_options(const std::string& root, std::uint64_t flush_after) {
  quorvane::cache::StoreOptions options;
  options.name = "maps";
  options.root = root;
  options.flush_after = flush_after;
  return options;
}

std::unique_ptr<quorvane::cache::Cache> open_cache(const quorvane::cache::StoreOptions& options) {
  return std::make_unique<quorvane::cache::Cache>(options.name,
                                                  quorvane::cache::make_store(options), false);
}

std::unique_ptr<quorvane::cache::Cache> open_cache(const std::string& root) {
  return open_cache(indexed_options(root));
}

bool add(quorvane::cache::Cache& cache, const std::string& key, const std::string& value) {
  return cache.add_value(buffer(key), buffers({value}));
}

std::optional<std::string> get(quorvane::cache::Cache& cache, const std::string& key) {
  const auto* value = cache.get_value(buffer(key));
  return value == nullptr ? std::nullopt : std::optional(bytes_of(value->front()));
}

std::uint64_t number_at(const std::string& bytes, std::size_t offset, std::size_t width) {
  std::uint64_t number = 0;
  for (std::size_t i = 0; i < width && offset + i < bytes.size(); ++i) {
    number |= std::uint64_t{static_cast<unsigned char>(bytes[offset + i])} << (8 * i);
  }
  return number;
}

std::vector<std::size_t> indexed_offsets(const std::string& bytes) {
  std::vector<std::size_t> offsets;
  for (std::size_t at = kFirstIndexedEntry; at < bytes.size();) {
    offsets.push_back(at);
    at += (number_at(bytes, at + 8, 8) + 15) / 16 * 16;
  }
  return offsets;
}

Entry indexed_entry(const std::string& bytes, std::size_t offset) {
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

std::vector<Entry> indexed_entries(const std::string& root) {
  const std::string bytes = read_file(root + "/dat_maps");
  std::vector<Entry> entries;
  for (const std::size_t offset : indexed_offsets(bytes)) {
    entries.push_back(indexed_entry(bytes, offset));
  }
  return entries;
}

}  // namespace test
