#include <quorvane/hasher.h>
#include <quorvane/module.h>

#include <blake2.h>
#include <farmhash.h>

#include <cstring>
#include <new>
#include <utility>

#ifdef QV_FARMHASH_USE_CITY
// FarmHash exports it but declares it in none of its headers.
namespace farmhashcc {
util::uint128_t CityHash128WithSeed(const char* s, size_t len, util::uint128_t seed);
}
#endif

namespace quorvane {
namespace hash {
namespace {

// Nothing is logged, but the module can be found.
// Kept: docs/compatibility.md
[[maybe_unused]] const Module g_module("util/src/hasher");

constexpr std::size_t kBlake2Size = 32;

// On the first call of each function libb2 chooses its code for this machine, and keeps
// the choice in plain variables. Calling each of them at load, before threads can hash,
// avoids a race for those variables.
bool choose_blake2_code() {
  blake2b_state state;
  const unsigned char byte = 0;
  unsigned char digest[kBlake2Size];
  return blake2b_init(&state, kBlake2Size) == 0 && blake2b_update(&state, &byte, 1) == 0 &&
         blake2b_final(&state, digest, kBlake2Size) == 0;
}

[[maybe_unused]] const bool g_blake2_code_is_chosen = choose_blake2_code();

blake2b_state* blake2(unsigned char* state) {
  return std::launder(reinterpret_cast<blake2b_state*>(state));
}

::util::uint128_t hash_128_with_seed(const std::uint8_t* data, std::size_t size,
                                     const ::util::uint128_t& seed) {
  const char* const bytes = reinterpret_cast<const char*>(data);
#ifdef QV_FARMHASH_USE_CITY
  return farmhashcc::CityHash128WithSeed(bytes, size, seed);
#else
  return ::util::Hash128WithSeed(bytes, size, seed);
#endif
}

}  // namespace

Hasher::~Hasher() = default;

namespace strong {

Blake2Hasher::Blake2Hasher() {
  static_assert(sizeof(blake2b_state) <= sizeof(state_));
  static_assert(alignof(blake2b_state) <= 64);
  std::memset(state_, 0, sizeof(state_));
  blake2b_init(new (state_) blake2b_state, kBlake2Size);
}

bool Blake2Hasher::push(const std::uint8_t* data, std::size_t size) {
  if (data == nullptr || size == 0) {
    return false;
  }
  blake2b_update(blake2(state_), data, size);
  pushed_ = true;
  return true;
}

// Without a push the digest is an empty buffer.
// Kept: docs/compatibility.md
util::RoBuffer Blake2Hasher::calculate_and_reset() {
  if (!pushed_) {
    return util::RoBuffer();
  }
  util::RwBuffer digest(kBlake2Size);
  blake2b_final(blake2(state_), digest.get_buffer(), kBlake2Size);
  blake2b_init(blake2(state_), kBlake2Size);
  pushed_ = false;
  return util::RoBuffer(std::move(digest));
}

}  // namespace strong

namespace fast {

// The digest depends on how the input is split.
// Kept: docs/compatibility.md
bool FarmHash128Hasher::push(const std::uint8_t* data, std::size_t size) {
  if (data == nullptr || size == 0) {
    return false;
  }
  const auto chained = hash_128_with_seed(data, size, {chained_low_, chained_high_});
  chained_low_ = chained.first;
  chained_high_ = chained.second;
  pushed_ = true;
  return true;
}

// Without a push the digest is an empty buffer.
// Kept: docs/compatibility.md
util::RoBuffer FarmHash128Hasher::calculate_and_reset() {
  if (!pushed_) {
    return util::RoBuffer();
  }
  const std::uint64_t halves[] = {chained_low_, chained_high_};
  util::RwBuffer digest(sizeof(halves));
  std::memcpy(digest.get_buffer(), halves, sizeof(halves));
  chained_low_ = 0;
  chained_high_ = 0;
  pushed_ = false;
  return util::RoBuffer(std::move(digest));
}

}  // namespace fast
}  // namespace hash
}  // namespace quorvane
