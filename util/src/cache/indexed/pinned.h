// Keeps a pair's files while a thread writes through it or copies it.
#ifndef QUORVANE_SRC_CACHE_INDEXED_PINNED_H_
#define QUORVANE_SRC_CACHE_INDEXED_PINNED_H_

#include <utility>

#include "src/cache/indexed/pair.h"

namespace quorvane {
namespace cache {
namespace indexed {

class Pinned {
 public:
  // Holds nothing when the pair is null or retired.
  explicit Pinned(Pair* pair) : pair_(pair != nullptr && pair->pin() ? pair : nullptr) {}
  ~Pinned() {
    if (pair_ != nullptr) {
      pair_->unpin();
    }
  }
  Pinned(Pinned&& other) noexcept : pair_(std::exchange(other.pair_, nullptr)) {}
  Pinned& operator=(Pinned&&) = delete;

  explicit operator bool() const { return pair_ != nullptr; }
  Pair& operator*() const { return *pair_; }
  Pair* operator->() const { return pair_; }

 private:
  Pair* pair_;
};

}  // namespace indexed
}  // namespace cache
}  // namespace quorvane

#endif  // QUORVANE_SRC_CACHE_INDEXED_PINNED_H_
