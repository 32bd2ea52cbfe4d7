// The C functions of the cache, for tests: strings go in and come out.
#ifndef TESTS_SUPPORT_C_CACHE_H_
#define TESTS_SUPPORT_C_CACHE_H_

#include <quorvane/cache_c.h>

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace test {

struct CacheCloser {
  void operator()(qv_cache_t* cache) const { qv_cache_close(cache); }
};
using CCache = std::unique_ptr<qv_cache_t, CacheCloser>;

// The cache "maps" in the directory `root`.
inline CCache open_cache(const std::string& kind, const std::string& root, unsigned flags = 0) {
  return CCache(qv_cache_open(kind.c_str(), root.c_str(), "maps", flags));
}

inline int add(const CCache& cache, const std::string& key, const std::vector<std::string>& atoms) {
  std::vector<const void*> bytes;
  std::vector<std::size_t> sizes;
  for (const std::string& atom : atoms) {
    bytes.push_back(atom.data());
    sizes.push_back(atom.size());
  }
  return qv_cache_add(cache.get(), key.data(), key.size(), bytes.data(), sizes.data(),
                      atoms.size());
}

inline const qv_cache_value_t* find(const CCache& cache, const std::string& key) {
  return qv_cache_get(cache.get(), key.data(), key.size());
}

inline std::string atom_of(const qv_cache_value_t* value, std::size_t index) {
  std::size_t size = 0;
  const void* const bytes = qv_cache_atom(value, index, &size);
  return {static_cast<const char*>(bytes), size};
}

// "atom,atom"
inline std::string text_of(const qv_cache_value_t* value) {
  std::string text;
  for (std::size_t i = 0; i < qv_cache_atoms(value); ++i) {
    text += (i == 0 ? "" : ",") + atom_of(value, i);
  }
  return text;
}

// "atom,atom", or nothing if there is no such key.
inline std::optional<std::string> get(const CCache& cache, const std::string& key) {
  const qv_cache_value_t* const value = find(cache, key);
  return value != nullptr ? std::optional(text_of(value)) : std::nullopt;
}

// What qv_cache_each calls in listing(): adds "key=atom,atom\n" to a string.
inline int append_entry(const void* key, std::size_t size, const qv_cache_value_t* value,
                        void* text) {
  static_cast<std::string*>(text)->append(static_cast<const char*>(key), size);
  static_cast<std::string*>(text)->append("=" + text_of(value) + "\n");
  return 0;
}

inline std::string listing(const CCache& cache) {
  std::string text;
  return qv_cache_each(cache.get(), &append_entry, &text) == 0 ? text : "failed";
}

}  // namespace test

#endif  // TESTS_SUPPORT_C_CACHE_H_
