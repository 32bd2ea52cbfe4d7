// Any bytes as a value on a server: decode() refuses them, or they are just what encode() gives
// for what it read.
//
// An input is the size of the key in a byte, the key, a byte of flags, and the value. Flag 1
// puts the right hash into the value: random bytes would never get past it.
#include <farmhash.h>

#include <cstdint>
#include <cstring>
#include <string>

#include "src/wire_format.h"
#include "store_fuzz.h"

namespace remote = quorvane::remote;

namespace {

constexpr std::size_t kHashAt = 4;
constexpr std::size_t kBodyAt = 12;

void seal(const std::string& key, std::string& value) {
  if (value.size() >= kBodyAt) {
    const std::string run = key + value.substr(kBodyAt);
    const std::uint64_t hash = ::util::Fingerprint64(run.data(), run.size());
    std::memcpy(value.data() + kHashAt, &hash, sizeof(hash));
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  const std::string input(reinterpret_cast<const char*>(bytes), size);
  const std::size_t key_size = size == 0 ? 0 : bytes[0];
  if (size < key_size + 2) {
    return 0;
  }
  const std::string key = input.substr(1, key_size);
  std::string stored = input.substr(key_size + 2);
  if ((bytes[key_size + 1] & 1) != 0) {
    seal(key, stored);
  }
  remote::Value value;
  if (remote::decode(key, stored, value)) {
    fuzz::expect_readable(value);
    fuzz::expect(remote::encoded_size(value) == stored.size());
    fuzz::expect(remote::encode(key, value) == stored);
  } else {
    fuzz::expect(value.empty());
  }
  return 0;
}
