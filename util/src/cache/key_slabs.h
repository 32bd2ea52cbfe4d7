// Memory for the keys of a map that is filled at once.
#ifndef QUORVANE_SRC_CACHE_KEY_SLABS_H_
#define QUORVANE_SRC_CACHE_KEY_SLABS_H_

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <memory>
#include <utility>

#include <quorvane/buffer.h>

namespace quorvane {
namespace cache {

// Copies many keys into one allocation, a slab, which lives until its last key is gone. Slabs
// are small, so that a key kept by a program keeps little else in memory.
// Thread-safety: one thread at a time.
class KeySlabs {
 public:
  // `total` is the size of all keys together, in bytes.
  explicit KeySlabs(std::size_t total) : left_(total) {}

  util::RoBuffer copy(const unsigned char* key, std::size_t size) {
    if (size > room_) {
      add_slab(std::max(size, std::min(left_, kSlabSize)));
    }
    std::memcpy(next_, key, size);
    unsigned char* const here = next_;
    next_ += size;
    room_ -= size;
    left_ -= size;
    return util::RoBuffer::share(slab_, here, size);
  }

 private:
  static constexpr std::size_t kSlabSize = 2048;

  void add_slab(std::size_t size) {
    auto bytes = std::make_shared_for_overwrite<unsigned char[]>(size);
    next_ = bytes.get();
    slab_ = std::shared_ptr<unsigned char>(std::move(bytes), next_);
    room_ = size;
  }

  std::size_t left_;
  std::shared_ptr<unsigned char> slab_;
  unsigned char* next_ = nullptr;
  std::size_t room_ = 0;
};

}  // namespace cache
}  // namespace quorvane

#endif  // QUORVANE_SRC_CACHE_KEY_SLABS_H_
