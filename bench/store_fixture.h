// Stores of 32-byte keys and 256-byte values, and a root for them.
#ifndef BENCH_STORE_FIXTURE_H_
#define BENCH_STORE_FIXTURE_H_

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <quorvane/cache.h>
#include <quorvane/file_store.h>

namespace bench {

using Key = std::string;

constexpr std::size_t kKeySize = 32;
constexpr std::size_t kValueSize = 256;

// The same keys in every run.
inline std::vector<Key> make_keys(std::size_t count, std::uint64_t seed = 1) {
  std::mt19937_64 random(seed);
  std::vector<Key> keys(count, Key(kKeySize, '\0'));
  for (Key& key : keys) {
    for (std::size_t at = 0; at < kKeySize; at += sizeof(std::uint64_t)) {
      const std::uint64_t word = random();
      std::memcpy(key.data() + at, &word, sizeof(word));
    }
  }
  return keys;
}

// The store root of this process, removed when it exits.
inline const std::string& root() {
  struct Root {
    Root() : path((std::filesystem::temp_directory_path() / "qvbench.XXXXXX").string()) {
      if (mkdtemp(path.data()) == nullptr || setenv("QV_CACHE_STORE_ROOT", path.c_str(), 1) != 0 ||
          setenv("QV_CACHE_STORE_CLEANUP_THRESHOLD", "0", 1) != 0) {
        std::abort();
      }
    }
    ~Root() { std::filesystem::remove_all(path); }
    std::string path;
  };
  static const Root root;
  return root.path;
}

inline std::string make_value(const Key& key) {
  std::string value(kValueSize, 'v');
  std::memcpy(value.data(), key.data(), kKeySize);
  return value;
}

// Writes the store `name` through the library, in `batches` appends of equal size. Each
// batch is in key order; the key ranges of the batches overlap.
template <typename Store = quorvane::cache::BasicStore>
void write_store(const std::string& name, const std::vector<Key>& keys, std::size_t batches) {
  using namespace quorvane;
  root();
  const std::size_t share = (keys.size() + batches - 1) / batches;
  for (std::size_t begin = 0; begin < keys.size(); begin += share) {
    Store store(name, std::make_shared<cache::StoreFLock>(name), nullptr);
    cache::EntryMap diff;
    for (std::size_t at = begin; at < std::min(begin + share, keys.size()); ++at) {
      const std::string value = make_value(keys[at]);
      diff.emplace(util::RoBuffer::copy(keys[at].data(), kKeySize),
                   std::vector{util::RoBuffer::copy(value.data(), value.size())});
    }
    if (!store.try_nonlock_append(diff, {})) {
      std::abort();
    }
  }
}

}  // namespace bench

#endif  // BENCH_STORE_FIXTURE_H_
