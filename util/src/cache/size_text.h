// Sizes as people write them.
#ifndef QUORVANE_SRC_CACHE_SIZE_TEXT_H_
#define QUORVANE_SRC_CACHE_SIZE_TEXT_H_

#include <cstdint>
#include <optional>
#include <string_view>

namespace quorvane {
namespace cache {

// The bytes that a text such as "10G" means: digits, then perhaps one of K, M, G and T, which
// are powers of 1024. Nothing for any other text, and for a size beyond 2^64-1.
std::optional<std::uint64_t> parse_size(std::string_view text) noexcept;

}  // namespace cache
}  // namespace quorvane

#endif  // QUORVANE_SRC_CACHE_SIZE_TEXT_H_
