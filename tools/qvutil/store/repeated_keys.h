// Finds keys that several entries have, in bounded memory.
#ifndef TOOLS_QVUTIL_STORE_REPEATED_KEYS_H_
#define TOOLS_QVUTIL_STORE_REPEATED_KEYS_H_

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

namespace quorvane::tool {

// In two passes over the same entries: the first finds hashes that may occur again, the second
// compares the keys that have them. Keys must stay in memory. Two keys that share a 64-bit hash
// by accident cost at most the notice of a third.
class RepeatedKeys {
 public:
  // For at most so many entries. More than kMost need several objects: each looks at one part
  // of the keys.
  RepeatedKeys(std::uint64_t entries, std::uint64_t part, std::uint64_t parts);

  static constexpr std::uint64_t kMost = std::uint64_t{1} << 24;

  // First pass.
  void add(std::string_view key);

  // Between the passes: whether a second one is needed.
  bool has_suspects();

  // Second pass, in the order of the first: the offset of the earlier entry with this key.
  std::optional<std::uint64_t> earlier(std::string_view key, std::uint64_t offset);

 private:
  struct Suspect {
    std::uint64_t hash;
    std::string_view key;
    std::uint64_t offset;
  };

  // That many bits are fetched from memory at a time.
  static constexpr std::size_t kAhead = 64;

  void make_bits(std::uint64_t entries);
  bool test_and_set(std::uint64_t hash);
  bool is_set(std::uint64_t hash) const;
  void add_due();
  void keep_once();

  std::uint64_t part_;
  std::uint64_t parts_;
  std::vector<std::uint64_t> bits_;
  std::uint64_t mask_ = 0;
  std::array<std::uint64_t, kAhead> due_;
  std::size_t due_count_ = 0;
  std::vector<std::uint64_t> suspects_;
  std::vector<Suspect> found_;
};

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_STORE_REPEATED_KEYS_H_
