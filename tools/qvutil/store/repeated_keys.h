// Finds keys that several entries have, in bounded memory.
#ifndef TOOLS_QVUTIL_STORE_REPEATED_KEYS_H_
#define TOOLS_QVUTIL_STORE_REPEATED_KEYS_H_

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory_resource>
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

  static constexpr std::uint64_t kMost = 6'000'000;        // 48 MB
  static constexpr std::uint64_t kMostSuspects = 500'000;  // 16 MB, when the 48 are free again

  // First pass. What exceeds kMost is left out.
  void add(std::string_view key);

  // Ends the first pass.
  void finish();

  // Between the passes. False if there are too many for the memory, unless this is one of several
  // parts already.
  bool find_suspects();

  // After that: whether a second pass is needed.
  bool has_suspects() const { return !suspects_.empty(); }

  // Instead of that, for keys that two objects have got: whether all hashes differ. Looks at the
  // part of them whose upper eight bits are in [from, to). Changes nothing: several threads may
  // look at a part each.
  static bool all_differ(const RepeatedKeys& one, const RepeatedKeys& other, std::size_t from,
                         std::size_t to);

  std::uint64_t count() const { return count_; }

  static constexpr std::size_t kLists = 256;

  // Second pass, in the order of the first: the offset of the earlier entry with this key.
  std::optional<std::uint64_t> earlier(std::string_view key, std::uint64_t offset);

 private:
  struct Suspect {
    std::uint64_t hash;
    std::string_view key;
    std::uint64_t offset;
  };

  // An open hash table.
  class Set {
   public:
    void make_room(std::size_t count);
    bool insert(std::uint64_t hash);  // false if it is there

   private:
    std::vector<std::uint64_t> places_;  // 0 is free
  };

  bool is_in_part(std::uint64_t hash) const;

  const std::uint64_t part_;
  const std::uint64_t parts_;
  std::uint64_t count_ = 0;
  // Of hashes_: in a thread of its own, malloc would ask the kernel for a few pages at a time.
  std::pmr::monotonic_buffer_resource memory_;
  // Not in hashes_ yet. Added one by one, each hash would wait for its list: the caller's work
  // between two keys drives the lists from the processor's cache.
  std::array<std::uint64_t, 4096> added_;
  std::size_t added_count_ = 0;
  // By their upper bits: a search among all would wait for memory at each hash.
  std::pmr::vector<std::pmr::deque<std::uint64_t>> hashes_{kLists, &memory_};
  std::vector<Suspect> suspects_;
};

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_STORE_REPEATED_KEYS_H_
