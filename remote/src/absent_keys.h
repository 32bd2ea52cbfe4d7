// Keys that the servers are known not to have.
#ifndef QUORVANE_REMOTE_SRC_ABSENT_KEYS_H_
#define QUORVANE_REMOTE_SRC_ABSENT_KEYS_H_

#include <cstddef>
#include <cstdint>
#include <vector>

namespace quorvane {
namespace remote {

// Their 64-bit hashes, at most 2^20 of them; then all are forgotten together. If two keys have
// one hash, the second counts as absent too. Memory grows with the number, up to 16 MiB.
// Not thread-safe: the owner's mutex guards it.
class AbsentKeys {
 public:
  static constexpr std::size_t kMost = std::size_t{1} << 20;

  bool has(std::uint64_t hash) const;
  void add(std::uint64_t hash) noexcept;  // without memory, doesn't
  void forget() noexcept;                 // and frees the memory

 private:
  bool make_room() noexcept;

  // Open addressing; a power of two, at most half of them taken. 0 is a free one.
  std::vector<std::uint64_t> slots_;
  std::size_t count_ = 0;
};

}  // namespace remote
}  // namespace quorvane

#endif  // QUORVANE_REMOTE_SRC_ABSENT_KEYS_H_
