// A shared mapping of a file.
#ifndef QUORVANE_SRC_CACHE_INDEXED_MAPPING_H_
#define QUORVANE_SRC_CACHE_INDEXED_MAPPING_H_

#include <cstddef>
#include <cstdint>

namespace quorvane {
namespace cache {
namespace indexed {

// Maps the front of a file. It may be longer than the file, which then can grow without
// another mapping. Whoever reads it must know how long the file is: beyond its end a read
// ends the process.
// Thread-safety: any thread may read; one thread makes, empties and destroys. Fork-safety: a
// child has the same mapping.
class Mapping {
 public:
  Mapping() = default;
  ~Mapping() { unmap(); }
  Mapping(const Mapping&) = delete;
  Mapping& operator=(const Mapping&) = delete;

  // Maps `size` bytes, at least `least` of them when the kernel refuses more. False, with
  // errno, when it refuses those too.
  bool map(int fd, std::uint64_t size, std::uint64_t least, bool writable);

  // For a file that turns out to be the wrong one, before anybody has read.
  void unmap();

  // Replaces the file's bytes by zeros, at the same address: a thread that is still reading
  // finds nothing, and the file's space on disk is free once its descriptors are closed.
  void empty();

  unsigned char* data() const { return data_; }
  std::uint64_t size() const { return size_; }

 private:
  unsigned char* data_ = nullptr;
  std::uint64_t size_ = 0;
};

}  // namespace indexed
}  // namespace cache
}  // namespace quorvane

#endif  // QUORVANE_SRC_CACHE_INDEXED_MAPPING_H_
