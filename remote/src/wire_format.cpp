#include "src/wire_format.h"

#include <farmhash.h>

#include <algorithm>
#include <cstring>
#include <limits>
#include <memory>

namespace quorvane {
namespace remote {
namespace {

constexpr std::string_view kBegin{"QV\1\0", 4};  // the version is 1, there are no flags
constexpr std::size_t kHashAt = kBegin.size();
constexpr std::size_t kBodyAt = kHashAt + sizeof(std::uint64_t);  // the hash covers the body
constexpr std::size_t kCountSize = sizeof(std::uint32_t);
constexpr std::uint64_t kLargest = std::numeric_limits<std::uint32_t>::max();

template <typename Number>
void put(char* at, Number number) {
  for (std::size_t i = 0; i < sizeof(number); ++i) {
    at[i] = static_cast<char>(number >> (8 * i));
  }
}

template <typename Number>
Number get(const char* at) {
  Number number = 0;
  for (std::size_t i = 0; i < sizeof(number); ++i) {
    number |= static_cast<Number>(static_cast<unsigned char>(at[i])) << (8 * i);
  }
  return number;
}

std::uint64_t hash_of(const char* bytes, std::size_t size) {
  return ::util::Fingerprint64(bytes, size);
}

bool can_be_encoded(const Value& value) {
  return !value.empty() && value.size() <= kLargest &&
         std::all_of(value.begin(), value.end(), [](const util::RoBuffer& atom) {
           return atom.get_size() != 0 && atom.get_size() <= kLargest;
         });
}

// The number of atoms; 0 if the sizes and the bytes after the header don't match exactly.
std::uint32_t atoms_of(std::string_view body) {
  if (body.size() < kCountSize) {
    return 0;
  }
  const auto count = get<std::uint32_t>(body.data());
  const std::uint64_t sizes = std::uint64_t{count} * kCountSize;
  std::uint64_t left = body.size() - kCountSize;
  if (sizes > left) {
    return 0;
  }
  left -= sizes;
  for (std::uint32_t atom = 0; atom < count; ++atom) {
    const auto size = get<std::uint32_t>(body.data() + kCountSize * (std::size_t{atom} + 1));
    if (size == 0 || size > left) {
      return 0;
    }
    left -= size;
  }
  return left == 0 ? count : 0;
}

}  // namespace

std::string key_prefix(std::string_view name_space, std::string_view cache) {
  constexpr char kNul = '\0';
  if (name_space.find(kNul) != name_space.npos || cache.find(kNul) != cache.npos) {
    return "";
  }
  std::string prefix("qv1{}");
  prefix.append(name_space).append(1, kNul).append(cache).append(1, kNul);
  return prefix;
}

std::string wire_key(const std::string& prefix, const util::RoBuffer& key) {
  std::string bytes;
  bytes.reserve(prefix.size() + key.get_size());
  bytes.append(prefix);
  bytes.append(reinterpret_cast<const char*>(key.get_buffer()), key.get_size());
  return bytes;
}

std::uint64_t encoded_size(const Value& value) {
  std::uint64_t size = kBodyAt + kCountSize;
  for (const util::RoBuffer& atom : value) {
    size += kCountSize + atom.get_size();
  }
  return size;
}

std::string encode(std::string_view wire_key, const Value& value) {
  if (!can_be_encoded(value)) {
    return "";
  }
  // The key goes before the body while the hash is computed: the two must be one run of bytes.
  const std::size_t before_body = std::max(wire_key.size(), kBodyAt);
  const std::size_t body_size = encoded_size(value) - kBodyAt;
  std::string bytes(before_body + body_size, '\0');
  char* const body = bytes.data() + before_body;
  char* size_at = body;
  put(size_at, static_cast<std::uint32_t>(value.size()));
  char* atom_at = body + kCountSize * (value.size() + 1);
  for (const util::RoBuffer& atom : value) {
    size_at += kCountSize;
    put(size_at, static_cast<std::uint32_t>(atom.get_size()));
    std::memcpy(atom_at, atom.get_buffer(), atom.get_size());
    atom_at += atom.get_size();
  }
  wire_key.copy(body - wire_key.size(), wire_key.size());
  const std::uint64_t hash = hash_of(body - wire_key.size(), wire_key.size() + body_size);
  kBegin.copy(body - kBodyAt, kBegin.size());
  put(body - kBodyAt + kHashAt, hash);
  bytes.erase(0, before_body - kBodyAt);
  return bytes;
}

bool decode(std::string_view wire_key, std::string_view bytes, Value& value) {
  if (bytes.size() < kBodyAt || bytes.substr(0, kBegin.size()) != kBegin) {
    return false;
  }
  const std::string_view body = bytes.substr(kBodyAt);
  const std::uint32_t atoms = atoms_of(body);
  if (atoms == 0) {
    return false;
  }
  // One copy, with the key before it, for the hash; then for the atoms.
  const std::size_t size = wire_key.size() + body.size();
  const auto copy = std::make_shared_for_overwrite<unsigned char[]>(size);
  char* const run = reinterpret_cast<char*>(copy.get());
  wire_key.copy(run, wire_key.size());
  body.copy(run + wire_key.size(), body.size());
  if (hash_of(run, size) != get<std::uint64_t>(bytes.data() + kHashAt)) {
    return false;
  }
  const std::shared_ptr<unsigned char> owner(copy, copy.get());
  Value decoded;
  decoded.reserve(atoms);
  const char* size_at = run + wire_key.size() + kCountSize;
  const unsigned char* atom = copy.get() + wire_key.size() + kCountSize * (std::size_t{atoms} + 1);
  for (std::uint32_t i = 0; i < atoms; ++i, size_at += kCountSize) {
    const auto atom_size = get<std::uint32_t>(size_at);
    decoded.push_back(util::RoBuffer::share(owner, atom, atom_size));
    atom += atom_size;
  }
  value = std::move(decoded);
  return true;
}

}  // namespace remote
}  // namespace quorvane
