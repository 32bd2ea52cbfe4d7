// A key as it appears in log records.
#ifndef QUORVANE_SRC_CACHE_HEX_KEY_H_
#define QUORVANE_SRC_CACHE_HEX_KEY_H_

#include <algorithm>
#include <array>
#include <cstddef>

#include <quorvane/buffer.h>

namespace quorvane {
namespace cache {

// The first 32 bytes of a key in hexadecimal. Allocates nothing.
class HexKey {
 public:
  explicit HexKey(const util::RoBuffer& key) {
    constexpr const char* kDigits = "0123456789abcdef";
    char* out = text_.data();
    for (std::size_t i = 0; i < std::min(key.get_size(), kBytes); ++i) {
      *out++ = kDigits[key.get_buffer()[i] >> 4];
      *out++ = kDigits[key.get_buffer()[i] & 15];
    }
  }

  const char* text() const { return text_.data(); }

 private:
  static constexpr std::size_t kBytes = 32;

  std::array<char, 2 * kBytes + 1> text_{};
};

}  // namespace cache
}  // namespace quorvane

#endif  // QUORVANE_SRC_CACHE_HEX_KEY_H_
