/// \file
/// Runs of bytes: read-only buffers with a shared owner, writable buffers of a
/// fixed size, and cursors that refuse to leave their buffer.
///
/// Thread-safety: copies of an RoBuffer may be used by different threads; a
/// writable buffer or a cursor belongs to one thread at a time.
/// Nothing here throws, but for std::bad_alloc where memory is allocated.
#ifndef QUORVANE_BUFFER_H_
#define QUORVANE_BUFFER_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <type_traits>
#include <utility>

#include <quorvane/export.h>

namespace quorvane {
namespace util {

class BufferReader;
class BufferWriter;
class CircularBufferPool;
class RwBuffer;

/// A view on bytes, with a share in whoever owns them.
class QV_EXPORT BufferBase {
 public:
  /// The first byte; null when there is none.
  const unsigned char* get_buffer() const { return data_; }

  /// How many bytes there are.
  std::size_t get_size() const { return size_; }

  /// A reader at position 0. The buffer must outlive it.
  BufferReader reader() const;

 protected:
  BufferBase() = default;

  /// `size` bytes at `data`, which live as long as `owner`.
  BufferBase(std::shared_ptr<unsigned char> owner, unsigned char* data, std::size_t size)
      : owner_(std::move(owner)), data_(data), size_(size) {}

  ///@{ Shares the other's bytes.
  BufferBase(const BufferBase&) = default;
  BufferBase& operator=(const BufferBase&) = default;
  ///@}

  ///@{ Leaves the other empty.
  BufferBase(BufferBase&& other) noexcept
      : owner_(std::move(other.owner_)),
        data_(std::exchange(other.data_, nullptr)),
        size_(std::exchange(other.size_, 0)) {}
  BufferBase& operator=(BufferBase&& other) noexcept;
  ///@}
  ~BufferBase() = default;

  std::shared_ptr<unsigned char> owner_;  ///< keeps the bytes; null: somebody else does
  unsigned char* data_ = nullptr;         ///< the first byte
  std::size_t size_ = 0;                  ///< in bytes
};

/// Immutable bytes. Copying shares them; the last owner frees them.
class QV_EXPORT RoBuffer : public BufferBase {
 public:
  /// Empty: null and size 0.
  RoBuffer() = default;

  /// Takes the bytes of `other` over and leaves it empty; implicit, so that a
  /// filled buffer becomes a key by being returned. Bytes lent by a pool
  /// can't be taken over: such an `other` ends the process when it is destroyed.
  RoBuffer(RwBuffer&& other) noexcept;

  /// Owns a copy of `size` bytes. Empty when `size` is 0.
  static RoBuffer copy(const void* data, std::size_t size);

  /// Owns nothing: the bytes must outlive the view and its copies.
  static RoBuffer view(const void* data, std::size_t size);

  /// `size` bytes at `data`, which live as long as `owner`.
  static RoBuffer share(std::shared_ptr<unsigned char> owner, const unsigned char* data,
                        std::size_t size);
};

/// Writable bytes of a fixed size: a heap array, or bytes lent by a pool, which
/// get back to it on destruction. Movable; never copied, so that no bytes are
/// given back twice.
class QV_EXPORT RwBuffer : public BufferBase {
 public:
  /// A heap buffer of exactly `size` bytes, not initialised.
  explicit RwBuffer(std::size_t size);

  /// `size` bytes lent by `pool`, which must outlive the buffer.
  RwBuffer(unsigned char* data, std::size_t size, CircularBufferPool* pool);

  ///@{ Takes the other's bytes over, with the duty to give lent ones back.
  RwBuffer(RwBuffer&& other) noexcept;
  RwBuffer& operator=(RwBuffer&& other) noexcept;
  ///@}
  RwBuffer(const RwBuffer&) = delete;
  RwBuffer& operator=(const RwBuffer&) = delete;

  /// Gives lent bytes back to the pool, in the pool's order or not at all: a
  /// release out of order ends the process.
  ~RwBuffer();

  using BufferBase::get_buffer;

  /// The first byte, to write to.
  unsigned char* get_buffer() { return data_; }

  /// True: destruction releases the bytes as the pool's oldest (free); false,
  /// the default: as its newest (deallocate).
  void set_pool_release_is_free(bool is_free) { pool_release_is_free_ = is_free; }

  /// A writer at position 0. The buffer must outlive it.
  BufferWriter writer();

 private:
  bool pool_release_is_free_ = false;
  CircularBufferPool* pool_ = nullptr;
};

/// Reads a buffer from front to end. A refused call changes nothing.
class QV_EXPORT BufferReader {
 public:
  /// Starts at position 0 of `buffer`, which must outlive the reader.
  explicit BufferReader(const BufferBase& buffer) : buffer_(&buffer) {}

  /// Copies the next `n` bytes to `dst`. False when `dst` is null or fewer remain.
  bool get_raw(void* dst, std::size_t n);

  /// Copies the NUL-terminated string at the position, with its NUL, into `dst`
  /// of `capacity` bytes, and stays where it is: skip the string yourself. False
  /// when it does not fit or no NUL remains.
  bool get_c_string(char* dst, std::size_t capacity);

  /// Reads one scalar in the machine's byte order.
  template <typename T>
  bool get(T* out) {
    static_assert(std::is_trivially_copyable<T>::value, "plain scalar types only");
    return get_raw(out, sizeof(T));
  }

  /// The next `n` bytes, passed over without a copy; null when fewer remain.
  const unsigned char* buffer(std::size_t n) {
    if (n > remaining()) {
      return nullptr;
    }
    const unsigned char* here = buffer_->get_buffer() + pos_;
    pos_ += n;
    return here;
  }

  /// How many bytes have been read or passed over.
  std::size_t position() const { return pos_; }

  /// How many are left; none once the buffer's bytes were moved elsewhere.
  std::size_t remaining() const {
    const std::size_t size = buffer_->get_size();
    return pos_ <= size ? size - pos_ : 0;
  }

 private:
  const BufferBase* buffer_;
  std::uint64_t pos_ = 0;
};

/// Fills a buffer from front to end. A refused call changes nothing.
class QV_EXPORT BufferWriter {
 public:
  /// Starts at position 0 of `buffer`, which must outlive the writer.
  explicit BufferWriter(RwBuffer& buffer) : buffer_(&buffer) {}

  /// Appends `n` bytes. False when `src` is null or there is less room.
  bool put_raw(const void* src, std::size_t n);

  /// Appends one scalar in the machine's byte order.
  template <typename T>
  bool put(const T& value) {
    static_assert(std::is_trivially_copyable<T>::value, "plain scalar types only");
    return put_raw(&value, sizeof(T));
  }

 private:
  RwBuffer* buffer_;
  std::uint64_t pos_ = 0;
};

inline BufferReader BufferBase::reader() const { return BufferReader(*this); }
inline BufferWriter RwBuffer::writer() { return BufferWriter(*this); }

}  // namespace util
}  // namespace quorvane

#endif  // QUORVANE_BUFFER_H_
