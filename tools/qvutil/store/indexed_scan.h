// The data file of an indexed store, and its index.
#ifndef TOOLS_QVUTIL_STORE_INDEXED_SCAN_H_
#define TOOLS_QVUTIL_STORE_INDEXED_SCAN_H_

#include <cstdint>
#include <string>
#include <string_view>

#include "qvutil/output/progress.h"
#include "qvutil/store/scan.h"

namespace quorvane::tool {

// Visits the entries of a data file behind its header, and the places between them.
class IndexedScan {
 public:
  // Nothing from `covered` on is acknowledged: what is not whole there, and is followed by
  // nothing whole, was cut short. `name` is the file's.
  IndexedScan(std::string name, std::string_view bytes, std::uint64_t covered, Visitor& visitor);

  // From `offset` on. Returns the number of whole entries.
  std::uint64_t run(std::uint64_t offset, Progress& progress);

  // The first whole entry at `offset` or behind it; the end of the file if none is found.
  std::uint64_t entry_from(std::uint64_t offset);

  // Reads the entry at `offset`. Null if its sizes fit; else why they don't. Doesn't look at the
  // checksum.
  static const char* read(std::string_view bytes, std::uint64_t offset, Entry& entry);

  // The same for an offset from a slot, which may be any: whether an entry may be there. Each call
  // takes what it costs off `tries`, and fails if that is too little: forged slots may all lead to
  // the same large entry.
  static bool read_any(std::string_view bytes, std::uint64_t offset, Entry& entry,
                       std::uint64_t& tries);

  static bool has_checksum(std::string_view bytes, const Entry& entry);

  // Whether the entry at `offset` exceeds the bytes, as the write of a killed process leaves it.
  static bool is_cut(std::string_view bytes, std::uint64_t offset);
  // The place that such an entry is.
  static Place rest(const std::string& name, std::uint64_t offset, std::uint64_t end);

 private:
  bool is_whole_at(std::uint64_t offset);
  std::uint64_t next_entry(std::uint64_t offset);
  const char* why_not(std::uint64_t offset);
  void tell_damage(std::uint64_t offset, std::uint64_t next, const char* reason);
  void check_padding(std::uint64_t from, std::uint64_t end);

  const std::string name_;
  const std::string_view bytes_;
  const std::uint64_t covered_;
  Visitor& visitor_;
  Entry entry_;
  // A forged file may have headers that claim more than all of its bytes; the search in them
  // ends at some time.
  std::uint64_t tries_left_;
};

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_STORE_INDEXED_SCAN_H_
