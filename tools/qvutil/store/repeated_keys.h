// Finds keys that several entries have, in bounded memory.
#ifndef TOOLS_QVUTIL_STORE_REPEATED_KEYS_H_
#define TOOLS_QVUTIL_STORE_REPEATED_KEYS_H_

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <string_view>
#include <vector>

namespace quorvane::tool {

// The first pass over the entries finds 64-bit hashes that occur again. Seldom, a second pass is
// needed: it compares the keys that have them. Keys must stay in memory. Two keys that share a
// hash by accident cost at most the notice of a third.
class RepeatedKeys {
 public:
  // Looks at one of so many parts of the keys. A part should have at most kMost of them.
  RepeatedKeys(std::uint64_t part, std::uint64_t parts) : part_(part), parts_(parts) {}

  static constexpr std::uint64_t kMost = 6'000'000;  // 48 MB

  // First pass. What exceeds kMost is left out.
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

  bool is_in_part(std::uint64_t hash) const;
  void find_suspects(const std::deque<std::uint64_t>& hashes);

  const std::uint64_t part_;
  const std::uint64_t parts_;
  std::uint64_t count_ = 0;
  // By their upper bits: a search among all would wait for memory at each hash.
  std::array<std::deque<std::uint64_t>, 256> hashes_;
  std::vector<std::uint64_t> table_;
  std::vector<Suspect> suspects_;
};

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_STORE_REPEATED_KEYS_H_
