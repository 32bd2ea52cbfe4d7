// Entries as the servers hold them.
#ifndef QUORVANE_REMOTE_SRC_WIRE_FORMAT_H_
#define QUORVANE_REMOTE_SRC_WIRE_FORMAT_H_

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include <quorvane/buffer.h>

namespace quorvane {
namespace remote {

using Value = std::vector<util::RoBuffer>;

// "qv1{}", the namespace, NUL, the cache's name, NUL: what all keys of a cache begin with. The
// empty braces switch hash tags off, so keys that have braces spread like others. "" if either
// has a NUL: two caches could then have the same keys.
std::string key_prefix(std::string_view name_space, std::string_view cache);

// The key on the servers.
std::string wire_key(const std::string& prefix, const util::RoBuffer& key);

// The value on the servers, little-endian: "QV"; u8 version 1; u8 flags 0; u64 hash; u32 count of
// atoms; u32 size of each; the atoms. The hash is FarmHash's Fingerprint64 of one run of bytes: the
// wire key, immediately followed by all that is behind the hash in the value.
// "" for what decode() refuses: no atom, an empty one, sizes or a count that don't fit into 32
// bits. May throw std::bad_alloc.
std::string encode(std::string_view wire_key, const Value& value);
// How many bytes that gives.
std::uint64_t encoded_size(const Value& value);

// False for everything that encode() with this key doesn't give: another version, a wrong hash, no
// atom, an empty atom, too few or too many bytes. `value` is then as it was. The atoms share one
// copy of the bytes. Allocates no more than the size of `bytes` calls for. May throw
// std::bad_alloc.
bool decode(std::string_view wire_key, std::string_view bytes, Value& value);

}  // namespace remote
}  // namespace quorvane

#endif  // QUORVANE_REMOTE_SRC_WIRE_FORMAT_H_
