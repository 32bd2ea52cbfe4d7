#include <quorvane/buffer.h>

#include <cstring>

#include <quorvane/circular_buffer_pool.h>

namespace quorvane {
namespace util {
namespace {

// One allocation for the bytes and the count of their owners.
std::shared_ptr<unsigned char> make_bytes(std::size_t size) {
  auto array = std::make_shared_for_overwrite<unsigned char[]>(size);
  unsigned char* const first = array.get();
  return std::shared_ptr<unsigned char>(std::move(array), first);
}

// memcpy that may be given null with a length of 0, as an empty buffer does.
void copy_bytes(void* dst, const void* src, std::size_t n) {
  if (n > 0) {
    std::memcpy(dst, src, n);
  }
}

void give_back(CircularBufferPool* pool, bool is_free, unsigned char* data, std::size_t size) {
  if (is_free) {
    pool->free(data, size, nullptr);
  } else {
    pool->deallocate(data, size, nullptr);
  }
}

}  // namespace

BufferBase& BufferBase::operator=(BufferBase&& other) noexcept {
  if (this != &other) {
    owner_ = std::move(other.owner_);
    data_ = std::exchange(other.data_, nullptr);
    size_ = std::exchange(other.size_, 0);
  }
  return *this;
}

// `other` keeps its pool: its destructor returns a range at null, which aborts.
// Kept: docs/compatibility.md
RoBuffer::RoBuffer(RwBuffer&& other) noexcept : BufferBase(static_cast<BufferBase&&>(other)) {}

RoBuffer RoBuffer::copy(const void* data, std::size_t size) {
  if (size == 0) {
    return RoBuffer();
  }
  RwBuffer bytes(size);
  std::memcpy(bytes.get_buffer(), data, size);
  return RoBuffer(std::move(bytes));
}

RoBuffer RoBuffer::view(const void* data, std::size_t size) {
  return share(nullptr, static_cast<const unsigned char*>(data), size);
}

RoBuffer RoBuffer::share(std::shared_ptr<unsigned char> owner, const unsigned char* data,
                         std::size_t size) {
  RoBuffer buffer;
  buffer.owner_ = std::move(owner);
  // Writable buffers need a writable pointer in the base; no RoBuffer writes through it.
  buffer.data_ = const_cast<unsigned char*>(data);
  buffer.size_ = size;
  return buffer;
}

RwBuffer::RwBuffer(std::size_t size) {
  owner_ = make_bytes(size);
  data_ = owner_.get();
  size_ = size;
}

RwBuffer::RwBuffer(unsigned char* data, std::size_t size, CircularBufferPool* pool) : pool_(pool) {
  data_ = data;
  size_ = size;
}

RwBuffer::RwBuffer(RwBuffer&& other) noexcept
    : BufferBase(static_cast<BufferBase&&>(other)),
      pool_release_is_free_(other.pool_release_is_free_),
      pool_(std::exchange(other.pool_, nullptr)) {}

RwBuffer& RwBuffer::operator=(RwBuffer&& other) noexcept {
  if (this != &other) {
    if (pool_ != nullptr) {
      give_back(pool_, pool_release_is_free_, data_, size_);
    }
    BufferBase::operator=(static_cast<BufferBase&&>(other));
    pool_release_is_free_ = other.pool_release_is_free_;
    pool_ = std::exchange(other.pool_, nullptr);
  }
  return *this;
}

RwBuffer::~RwBuffer() {
  if (pool_ != nullptr) {
    give_back(pool_, pool_release_is_free_, data_, size_);
    pool_ = nullptr;
  }
}

bool BufferReader::get_raw(void* dst, std::size_t n) {
  // Null is refused even for no bytes.
  // Kept: docs/compatibility.md
  if (dst == nullptr || n > remaining()) {
    return false;
  }
  copy_bytes(dst, buffer_->get_buffer() + pos_, n);
  pos_ += n;
  return true;
}

// Stays before the string.
// Kept: docs/compatibility.md
bool BufferReader::get_c_string(char* dst, std::size_t capacity) {
  const std::size_t left = remaining();
  if (dst == nullptr || left == 0) {
    return false;
  }
  const unsigned char* const text = buffer_->get_buffer() + pos_;
  const std::size_t length = strnlen(reinterpret_cast<const char*>(text), left);
  if (length >= capacity || length == left) {
    return false;
  }
  std::memcpy(dst, text, length + 1);
  return true;
}

bool BufferWriter::put_raw(const void* src, std::size_t n) {
  const std::size_t size = buffer_->get_size();
  // Null is refused even for no bytes.
  // Kept: docs/compatibility.md
  if (src == nullptr || pos_ > size || n > size - pos_) {
    return false;
  }
  copy_bytes(buffer_->get_buffer() + pos_, src, n);
  pos_ += n;
  return true;
}

}  // namespace util
}  // namespace quorvane
