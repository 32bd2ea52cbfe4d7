/// \file
/// Incremental hashers behind one interface: BLAKE2b with 32 bytes, and
/// FarmHash's seeded 128 bits.
///
/// Thread-safety: a hasher belongs to one thread at a time; different hashers
/// are independent. Fork-safety: a child may go on with its copy.
#ifndef QUORVANE_HASHER_H_
#define QUORVANE_HASHER_H_

#include <cstddef>
#include <cstdint>
#include <memory>

#include <quorvane/buffer.h>
#include <quorvane/export.h>

namespace quorvane {
namespace hash {

/// Takes bytes in pieces and gives their digest. Thread-safety: one thread at a time.
class QV_EXPORT Hasher {
 public:
  virtual ~Hasher();

  /// Hashes `size` more bytes. False, changing nothing, when `data` is null or
  /// `size` is 0.
  virtual bool push(const std::uint8_t* data, std::size_t size) = 0;

  /// The digest of what was pushed, and back to the start. An empty buffer when
  /// nothing was pushed: that is not the hash of no bytes. May throw
  /// std::bad_alloc.
  virtual util::RoBuffer calculate_and_reset() = 0;
};

namespace strong {

/// BLAKE2b-256, unkeyed, of everything pushed, however it was split.
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

/// FarmHash's Hash128WithSeed, each push seeded with the result of the one
/// before it: the digest depends on how the input was split.
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
