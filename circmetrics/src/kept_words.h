// Where metrics put the values that a child of fork remembers.
#ifndef CIRCMETRICS_SRC_KEPT_WORDS_H_
#define CIRCMETRICS_SRC_KEPT_WORDS_H_

#include <cstddef>
#include <cstdint>
#include <span>

namespace circmetrics {

// Allocates nothing. Words beyond the room are only counted.
class KeptWords {
 public:
  explicit KeptWords(std::span<std::uint64_t> room = {}) : room_(room) {}

  void add(std::uint64_t word) { set(size_++, word); }

  void set(std::size_t at, std::uint64_t word) {
    if (at < room_.size()) {
      room_[at] = word;
    }
  }

  std::size_t size() const { return size_; }

 private:
  const std::span<std::uint64_t> room_;
  std::size_t size_ = 0;
};

}  // namespace circmetrics

#endif  // CIRCMETRICS_SRC_KEPT_WORDS_H_
