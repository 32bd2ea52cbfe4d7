#include "qvutil/store/record_formats.h"

#include "qvutil/store/format.h"

namespace quorvane::tool {
namespace {

constexpr const char* kNoAtoms = "the number of atoms is 0";
constexpr const char* kEmptyAtom = "the size of an atom is 0";

// Takes `size` bytes of `values` at `at` as the next atom.
bool take_atom(std::string_view values, std::uint64_t& at, std::uint64_t size, Entry& entry) {
  if (size > values.size() - at) {
    return false;
  }
  entry.atoms.push_back(values.substr(at, size));
  at += size;
  return true;
}

}  // namespace

Record BasicFormat::read(std::uint64_t offset, Entry& entry) const {
  std::uint64_t at = offset + sizeof(format::kMagic);
  std::uint64_t atoms = 0;
  entry.atoms.clear();
  if (const char* const reason = take_key(at, entry)) {
    return {reason, at};
  }
  if (!take(at, atoms)) {
    return {"the entry is cut short in the number of its atoms", at};
  }
  if (atoms == 0) {
    return {kNoAtoms, at - format::kNumber};
  }
  for (; atoms > 0; --atoms) {
    std::uint64_t size = 0;
    if (!take(at, size)) {
      return {"the entry is cut short in the size of an atom", at};
    }
    if (size == 0) {
      return {kEmptyAtom, at - format::kNumber};
    }
    if (!take_atom(bytes(), at, size, entry)) {
      return {"an atom extends beyond the end of the file", at - format::kNumber};
    }
  }
  return {nullptr, at};
}

Record LazyFormat::read(std::uint64_t offset, Entry& entry) const {
  std::uint64_t at = offset + sizeof(format::kMagic);
  std::uint64_t value = 0;
  std::uint64_t atoms = 0;
  entry.atoms.clear();
  if (const char* const reason = take_key(at, entry)) {
    return {reason, at};
  }
  if (!take(at, value) || !take(at, atoms)) {
    return {"the entry is cut short behind its key", at};
  }
  if (atoms == 0) {
    return {kNoAtoms, at - format::kNumber};
  }
  if (atoms > (bytes().size() - at) / format::kNumber) {
    return {"the sizes of the atoms extend beyond the end of the file", at - format::kNumber};
  }
  const std::uint64_t end = at + atoms * format::kNumber;
  if (value < format::kHeaderSize) {
    return {"the value begins in the header of its file", end, true};
  }
  std::uint64_t from = value + sizeof(format::kMagic);
  bool is_inside = value < values_.size() && from <= values_.size();
  while (at < end) {
    std::uint64_t size = 0;
    take(at, size);
    if (size == 0) {
      return {kEmptyAtom, at - format::kNumber};
    }
    is_inside = is_inside && take_atom(values_, from, size, entry);
  }
  return is_inside ? Record{nullptr, end}
                   : Record{"the value extends beyond the end of its file", end, true};
}

}  // namespace quorvane::tool
