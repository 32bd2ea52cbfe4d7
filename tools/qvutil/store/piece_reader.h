// Reads a part of a file once, from its beginning to its end.
#ifndef TOOLS_QVUTIL_STORE_PIECE_READER_H_
#define TOOLS_QVUTIL_STORE_PIECE_READER_H_

#include <cstddef>
#include <cstdint>
#include <vector>

#include "qvutil/store/mapped_file.h"

namespace quorvane::tool {

// For a caller that looks at each byte only once, a piece of the file in the processor's cache is
// faster than a mapping: the kernel maps and unmaps no pages, and reads ahead.
class PieceReader {
 public:
  // A caller can have no more at a time.
  static constexpr std::uint64_t kPiece = std::uint64_t{256} << 10;

  PieceReader(const MappedFile& file, std::uint64_t from, std::uint64_t to)
      : file_(file), offset_(from), end_(to), piece_(kPiece) {}

  bool is_at_end() const { return next_ == filled_ && offset_ == end_; }

  // Where the next byte is.
  std::uint64_t offset() const { return offset_ - (filled_ - next_); }

  // The next `size` bytes, good until the next call. Null if the part doesn't have them, they are
  // more than a piece, or the file can't be read.
  const char* take(std::uint64_t size) {
    if (size > filled_ - next_ && !fill(size)) {
      return nullptr;
    }
    const char* const bytes = piece_.data() + next_;
    next_ += size;
    return bytes;
  }

  // Skips `size` bytes, but reads them: a disk may have an error there. False if they can't be
  // read.
  bool pass(std::uint64_t size);

 private:
  bool fill(std::uint64_t size);

  const MappedFile& file_;
  std::uint64_t offset_;  // behind the piece
  std::uint64_t end_;
  std::vector<char> piece_;
  std::size_t next_ = 0;  // in the piece
  std::size_t filled_ = 0;
};

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_STORE_PIECE_READER_H_
