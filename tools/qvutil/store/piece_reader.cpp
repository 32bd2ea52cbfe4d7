#include "qvutil/store/piece_reader.h"

#include <algorithm>
#include <cstring>

namespace quorvane::tool {

bool PieceReader::pass(std::uint64_t size) {
  while (size > filled_ - next_) {
    size -= filled_ - next_;
    next_ = filled_;
    if (!fill(std::min(size, kPiece))) {
      return false;
    }
  }
  next_ += size;
  return true;
}

// Until the piece has `size` bytes at least.
bool PieceReader::fill(std::uint64_t size) {
  filled_ -= next_;
  std::memmove(piece_.data(), piece_.data() + next_, filled_);
  next_ = 0;
  if (size > kPiece || size - filled_ > end_ - offset_) {
    return false;
  }
  while (filled_ < size) {
    const std::size_t most = std::min<std::uint64_t>(kPiece - filled_, end_ - offset_);
    const std::size_t read = file_.read(offset_, piece_.data() + filled_, most);
    if (read == 0) {
      return false;
    }
    filled_ += read;
    offset_ += read;
  }
  return true;
}

}  // namespace quorvane::tool
