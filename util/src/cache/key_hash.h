// What the hash tables over keys share.
#ifndef QUORVANE_SRC_CACHE_KEY_HASH_H_
#define QUORVANE_SRC_CACHE_KEY_HASH_H_

#include <farmhash.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

#include <quorvane/buffer.h>

namespace quorvane {
namespace cache {
namespace key_hash {

inline std::uint64_t of(const util::RoBuffer& key) {
  return ::util::Hash64(reinterpret_cast<const char*>(key.get_buffer()), key.get_size());
}

// The same in every build: the index files of indexed stores are made of it. A look-up in one
// needs it anyway, so the table of what was found there uses it too.
inline std::uint64_t lasting(const unsigned char* key, std::size_t size) {
  return ::util::Fingerprint64(reinterpret_cast<const char*>(key), size);
}
inline std::uint64_t lasting(const util::RoBuffer& key) {
  return lasting(key.get_buffer(), key.get_size());
}

// The upper half of the product distributes hashes over any number of slots.
inline std::size_t scaled(std::uint64_t hash, std::size_t slots) {
  __extension__ using Wide = unsigned __int128;
  return static_cast<std::size_t>((static_cast<Wide>(hash) * slots) >> 64);
}

inline bool is_key(const unsigned char* bytes, std::size_t size, const util::RoBuffer& wanted) {
  return size == wanted.get_size() &&
         (size == 0 || std::memcmp(bytes, wanted.get_buffer(), size) == 0);
}

}  // namespace key_hash
}  // namespace cache
}  // namespace quorvane

#endif  // QUORVANE_SRC_CACHE_KEY_HASH_H_
