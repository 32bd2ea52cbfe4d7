/// \file
/// Runs of bytes: read-only buffers with a shared owner, writable buffers of a
/// fixed size, and cursors that refuse to leave their buffer.
///
/// Thread-safety: different threads may use copies of an RoBuffer; a writable buffer or a
/// cursor belongs to one thread at a time.
/// Fork-safety: a child has its own copy of heap bytes; bytes lent by a pool are shared
/// with the parent (see CircularBufferPool).
/// Nothing here throws except std::bad_alloc where memory is allocated.
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

/// A view of bytes, with a share in their owner.
///
/// Invariant: the bytes live as long as the buffer. Their owner ensures that; where there is
/// none, whoever made the buffer must.
/// Thread-safety: threads may read one buffer at the same time; copies that share bytes
/// are independent objects. Fork-safety: as for the bytes; see RoBuffer and RwBuffer.
class QV_EXPORT BufferBase {
 public:
  /// The first byte; null in a buffer that was made empty by default or by a move. Don't
  /// read from it when the size is 0.
  const unsigned char* get_buffer() const { return data_; }

  /// How many bytes there are.
  std::size_t get_size() const { return size_; }

  /// A reader at position 0. This buffer must outlive it.
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

  std::shared_ptr<unsigned char> owner_;  ///< keeps the bytes alive; null: something else does
  unsigned char* data_ = nullptr;         ///< the first byte
  std::size_t size_ = 0;                  ///< in bytes
};

/// Immutable bytes. Copying shares them; the last owner frees them.
///
/// Thread-safety: different threads may use copies, and may read one buffer at the same
/// time. Fork-safety: a child may use its copy; bytes of a shared mapping stay shared.
class QV_EXPORT RoBuffer : public BufferBase {
 public:
  /// Empty: null and size 0.
  RoBuffer() = default;

  /// Takes over the bytes of `other` and leaves it empty. The conversion is implicit, so
  /// that a function can return a filled buffer as a key. Bytes lent by a pool can't be taken
  /// over: destroying such an `other`, or assigning to it, aborts.
  RoBuffer(RwBuffer&& other) noexcept;

  /// Owns a copy of the `size` bytes at `data`. When `size` is 0 the result is empty, and
  /// `data` may be null.
  static RoBuffer copy(const void* data, std::size_t size);

  /// Owns nothing: the bytes must outlive the view and all its copies.
  static RoBuffer view(const void* data, std::size_t size);

  /// The `size` bytes at `data`, which live as long as `owner`. A null `owner` makes a
  /// view.
  static RoBuffer share(std::shared_ptr<unsigned char> owner, const unsigned char* data,
                        std::size_t size);
};

/// Writable bytes of a fixed size: a heap array, or bytes lent by a pool, which the
/// destructor returns. Movable, but never copied, so that no bytes are returned twice.
///
/// Invariant: lent bytes have exactly one buffer.
/// Thread-safety: one thread at a time. Fork-safety: a child may use its copy of heap
/// bytes; lent bytes are shared with the parent, so only one of the two may return them.
class QV_EXPORT RwBuffer : public BufferBase {
 public:
  /// A heap buffer of exactly `size` bytes, not initialised.
  explicit RwBuffer(std::size_t size);

  /// The `size` bytes at `data`, lent by `pool`, which must outlive the buffer. With a
  /// null `pool` nobody gets the bytes back; they must outlive the buffer.
  RwBuffer(unsigned char* data, std::size_t size, CircularBufferPool* pool);

  ///@{ Takes over the other's bytes, with the duty to return lent ones, and leaves it
  /// empty. An assignment returns lent bytes of its own first, as the destructor does.
  RwBuffer(RwBuffer&& other) noexcept;
  RwBuffer& operator=(RwBuffer&& other) noexcept;
  ///@}
  RwBuffer(const RwBuffer&) = delete;
  RwBuffer& operator=(const RwBuffer&) = delete;

  /// Returns lent bytes to the pool. A return out of the pool's order logs an ERROR record
  /// and aborts.
  ~RwBuffer();

  using BufferBase::get_buffer;

  /// The first byte, to write to.
  unsigned char* get_buffer() { return data_; }

  /// How to return lent bytes: as the pool's oldest (free) if true, as its newest
  /// (deallocate) if false, the default. Moves with the bytes. Means nothing for heap bytes.
  void set_pool_release_is_free(bool is_free) { pool_release_is_free_ = is_free; }

  /// A writer at position 0. This buffer must outlive it.
  BufferWriter writer();

 private:
  bool pool_release_is_free_ = false;
  CircularBufferPool* pool_ = nullptr;
};

/// A cursor that reads a buffer from front to end.
///
/// Invariant: it never reads beyond the buffer, and a call that fails moves and changes
/// nothing. Thread-safety: one thread at a time. Fork-safety: a child may use its copy.
class QV_EXPORT BufferReader {
 public:
  /// Starts at position 0 of `buffer`, which must outlive the reader. Once the buffer's
  /// bytes are moved elsewhere, nothing remains to be read.
  explicit BufferReader(const BufferBase& buffer) : buffer_(&buffer) {}

  /// Copies the next `n` bytes to `dst` and moves past them. Fails when `dst` is null,
  /// even for no bytes, or when fewer remain: it then returns false, stays at its
  /// position and leaves `dst` alone.
  bool get_raw(void* dst, std::size_t n);

  /// Copies the NUL-terminated string at the position, with its NUL, into the `capacity`
  /// bytes at `dst`. Never moves: skip the string yourself. Fails when `dst` is null,
  /// when the string with its NUL doesn't fit, or when no NUL remains: it then returns
  /// false and leaves `dst` alone.
  bool get_c_string(char* dst, std::size_t capacity);

  /// Reads one scalar in the machine's byte order and moves past it. Fails when `out` is
  /// null or too few bytes remain: it then returns false, stays at its position and
  /// leaves `*out` alone.
  template <typename T>
  bool get(T* out) {
    static_assert(std::is_trivially_copyable<T>::value, "plain scalar types only");
    return get_raw(out, sizeof(T));
  }

  /// The next `n` bytes in place, without a copy; moves past them. They live as long as
  /// the buffer's bytes. Fails when fewer remain: it then returns null and stays at its
  /// position.
  const unsigned char* buffer(std::size_t n) {
    if (n > remaining()) {
      return nullptr;
    }
    const unsigned char* here = buffer_->get_buffer() + pos_;
    pos_ += n;
    return here;
  }

  /// How many bytes it has moved past.
  std::size_t position() const { return pos_; }

  /// How many bytes are left; none once the buffer's bytes were moved elsewhere.
  std::size_t remaining() const {
    const std::size_t size = buffer_->get_size();
    return pos_ <= size ? size - pos_ : 0;
  }

 private:
  const BufferBase* buffer_;
  std::uint64_t pos_ = 0;
};

/// A cursor that fills a buffer from front to end.
///
/// Invariant: it never writes beyond the buffer, and a call that fails moves and changes
/// nothing. Thread-safety: one thread at a time. Fork-safety: a child may use its copy.
class QV_EXPORT BufferWriter {
 public:
  /// Starts at position 0 of `buffer`, which must outlive the writer. Once the buffer's
  /// bytes are moved elsewhere, there is no room.
  explicit BufferWriter(RwBuffer& buffer) : buffer_(&buffer) {}

  /// Writes the `n` bytes at `src` at the position and moves past them. Fails when `src`
  /// is null, even for no bytes, or when there is less room: it then returns false, writes
  /// nothing and stays at its position.
  bool put_raw(const void* src, std::size_t n);

  /// Writes one scalar in the machine's byte order and moves past it. Fails when there is
  /// too little room: it then returns false, writes nothing and stays at its position.
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
