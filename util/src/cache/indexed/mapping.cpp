#include "src/cache/indexed/mapping.h"

#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace quorvane {
namespace cache {
namespace indexed {
namespace {

constexpr std::uint64_t kReadAtOnce = std::uint64_t{64} << 10;

}  // namespace

void Mapping::unmap() {
  if (data_ != nullptr) {
    munmap(data_, size_);
  }
  data_ = nullptr;
  size_ = 0;
}

bool Mapping::map(int fd, std::uint64_t size, std::uint64_t least, bool writable) {
  const int protection = writable ? PROT_READ | PROT_WRITE : PROT_READ;
  void* mapped = mmap(nullptr, size, protection, MAP_SHARED, fd, 0);
  if (mapped == MAP_FAILED && least < size) {
    size = least;
    mapped = mmap(nullptr, size, protection, MAP_SHARED, fd, 0);
  }
  if (mapped == MAP_FAILED) {
    return false;
  }
  data_ = static_cast<unsigned char*>(mapped);
  size_ = size;
  // Look-ups go all over the file. Reading ahead made 1,000 of them, with nothing in memory,
  // eight times as slow. What is this small is read at once.
  if (size_ > kReadAtOnce) {
    madvise(data_, size_, MADV_RANDOM);
  }
  return true;
}

// The call itself and not mmap: ThreadSanitizer takes that for a write to all of the bytes,
// which races with the look-ups. To those, the kernel replaces one page after another.
// Only readable: nobody writes through it any more, and the kernel need not account for it.
void Mapping::empty() {
  syscall(SYS_mmap, data_, size_, PROT_READ,
          MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED | MAP_NORESERVE, -1, 0);
}

}  // namespace indexed
}  // namespace cache
}  // namespace quorvane
