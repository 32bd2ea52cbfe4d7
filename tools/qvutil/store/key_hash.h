// The hash of keys.
#ifndef TOOLS_QVUTIL_STORE_KEY_HASH_H_
#define TOOLS_QVUTIL_STORE_KEY_HASH_H_

#include <farmhash.h>

#include <cstdint>
#include <string_view>

namespace quorvane::tool {

// That of the index of an indexed store.
inline std::uint64_t hash_of(std::string_view key) {
  return ::util::Fingerprint64(key.data(), key.size());
}

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_STORE_KEY_HASH_H_
