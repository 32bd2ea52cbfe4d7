#include "qvutil/store/basic_part.h"

#include <string_view>

#include "qvutil/store/format.h"

namespace quorvane::tool {
namespace {

std::uint64_t number(const char* bytes) {
  return format::number_at<std::uint64_t>({bytes, format::kNumber}, 0);
}

}  // namespace

bool BasicPart::is_whole(Progress& progress) {
  while (!pieces_.is_at_end()) {
    if (keys_.count() == most_keys_ || !take_entry()) {
      return false;
    }
    progress.at(pieces_.offset());
  }
  keys_.finish();
  return true;
}

bool BasicPart::take_entry() {
  constexpr std::uint64_t kHead = sizeof(format::kMagic) + format::kNumber;
  const char* const head = pieces_.take(kHead);
  if (head == nullptr || format::number_at<std::uint32_t>({head, kHead}, 0) != format::kMagic) {
    return false;
  }
  const std::uint64_t key_size = number(head + sizeof(format::kMagic));
  if (key_size == 0 || key_size > PieceReader::kPiece) {
    return false;
  }
  const char* const key = pieces_.take(key_size + format::kNumber);
  if (key == nullptr) {
    return false;
  }
  keys_.add({key, key_size});
  const std::uint64_t atoms = number(key + key_size);
  for (std::uint64_t i = 0; i < atoms; ++i) {
    const char* const size = pieces_.take(format::kNumber);
    if (size == nullptr || number(size) == 0 || !pieces_.pass(number(size))) {
      return false;
    }
  }
  return atoms != 0;
}

}  // namespace quorvane::tool
