/// \file
/// Incremental hashers behind one interface: BLAKE2b of 256 bits, and FarmHash's seeded
/// hash of 128 bits.
///
/// Thread-safety: a hasher belongs to one thread at a time; different hashers are
/// independent. Fork-safety: a child may continue with its copy. Nothing is logged.
#ifndef QUORVANE_HASHER_H_
#define QUORVANE_HASHER_H_

#include <cstddef>
#include <cstdint>
#include <memory>

#include <quorvane/buffer.h>
#include <quorvane/export.h>

namespace quorvane {
namespace hash {

/// Takes bytes in pieces and gives their digest.
///
/// Thread-safety: one thread at a time; different hashers are independent. Fork-safety: a
/// child may continue with its copy, which ends in the same digest.
class QV_EXPORT Hasher {
 public:
  virtual ~Hasher();

  /// Hashes `size` more bytes. Returns false and changes nothing when `data` is null or
  /// `size` is 0.
  virtual bool push(const std::uint8_t* data, std::size_t size) = 0;

  /// Returns the digest of what was pushed, in a buffer of its own, and starts again from
  /// nothing. When nothing was pushed the buffer is empty: it isn't the hash of no bytes.
  /// Throws std::bad_alloc without memory, and then keeps what was pushed.
  virtual util::RoBuffer calculate_and_reset() = 0;
};

namespace strong {

/// BLAKE2b-256, unkeyed, of everything pushed, however it was split.
///
/// Copyable: a copy continues from what was pushed so far.
/// Thread-safety: one thread at a time. Fork-safety: a child may continue with its copy.
class QV_EXPORT Blake2Hasher : public Hasher {
 public:
  Blake2Hasher();
  bool push(const std::uint8_t* data, std::size_t size) override;
  util::RoBuffer calculate_and_reset() override;  ///< 32 bytes

 private:
  // libb2's blake2b_state; its header stays out of this one.
  alignas(64) unsigned char state_[384];
  bool pushed_ = false;
};

}  // namespace strong

namespace fast {

/// FarmHash's Hash128WithSeed. The first push is seeded with 0 and each later one with
/// the result of the one before, so the digest depends on how the input was split.
///
/// Copyable: a copy continues from what was pushed so far.
/// Thread-safety: one thread at a time. Fork-safety: a child may continue with its copy.
class QV_EXPORT FarmHash128Hasher : public Hasher {
 public:
  bool push(const std::uint8_t* data, std::size_t size) override;
  util::RoBuffer calculate_and_reset() override;  ///< 16 bytes, low half first

 private:
  bool pushed_ = false;
  std::uint64_t chained_low_ = 0;
  std::uint64_t chained_high_ = 0;
};

}  // namespace fast
}  // namespace hash
}  // namespace quorvane

#endif  // QUORVANE_HASHER_H_
