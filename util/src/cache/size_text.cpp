#include "src/cache/size_text.h"

#include <charconv>
#include <limits>

namespace quorvane {
namespace cache {
namespace {

constexpr std::string_view kSuffixes = "KMGT";

// Removes the suffix. Returns how far it shifts the number to the left.
unsigned take_shift(std::string_view& text) {
  const std::size_t power = text.empty() ? kSuffixes.npos : kSuffixes.find(text.back());
  if (power == kSuffixes.npos) {
    return 0;
  }
  text.remove_suffix(1);
  return 10 * (static_cast<unsigned>(power) + 1);
}

}  // namespace

std::optional<std::uint64_t> parse_size(std::string_view text) noexcept {
  const unsigned shift = take_shift(text);
  std::uint64_t number = 0;
  const char* const end = text.data() + text.size();
  const auto parsed = std::from_chars(text.data(), end, number);
  if (parsed.ec != std::errc() || parsed.ptr != end ||
      number > std::numeric_limits<std::uint64_t>::max() >> shift) {
    return std::nullopt;
  }
  return number << shift;
}

}  // namespace cache
}  // namespace quorvane
