// A part of a basic store's file.
#ifndef TOOLS_QVUTIL_STORE_BASIC_PART_H_
#define TOOLS_QVUTIL_STORE_BASIC_PART_H_

#include <cstdint>

#include "qvutil/output/progress.h"
#include "qvutil/store/piece_reader.h"
#include "qvutil/store/repeated_keys.h"

namespace quorvane::tool {

// Finds out whether a part is nothing but whole entries, and collects their keys.
class BasicPart {
 public:
  BasicPart(const MappedFile& file, std::uint64_t from, std::uint64_t to, std::uint64_t most_keys)
      : pieces_(file, from, to), most_keys_(most_keys) {}

  // False if it may not be, has more keys, or a key that exceeds a piece.
  bool is_whole(Progress& progress);

  // After that.
  std::uint64_t entries() const { return keys_.count(); }
  const RepeatedKeys& keys() const { return keys_; }

 private:
  bool take_entry();

  PieceReader pieces_;
  const std::uint64_t most_keys_;
  RepeatedKeys keys_{0, 1};
};

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_STORE_BASIC_PART_H_
