// A file of entries that each begin with a magic number: that of a basic store, or the key file
// of a lazy look-up store.
#ifndef TOOLS_QVUTIL_STORE_RECORDS_H_
#define TOOLS_QVUTIL_STORE_RECORDS_H_

#include <cstdint>
#include <string>
#include <string_view>

#include "qvutil/output/progress.h"
#include "qvutil/store/scan.h"

namespace quorvane::tool {

// What the bytes behind a magic number are.
struct Record {
  const char* reason = nullptr;  // why they are no whole entry; null: they are one
  // Behind the entry. For one that is not whole: where the field begins that is wrong, or also
  // behind the entry if `has_end`.
  std::uint64_t end = 0;
  bool has_end = false;
};

class RecordFormat {
 public:
  RecordFormat(std::string_view bytes, std::uint64_t least_size, bool ends_with_value)
      : bytes_(bytes), least_size_(least_size), ends_with_value_(ends_with_value) {}
  virtual ~RecordFormat() = default;

  // What stands at `offset`, where 4 bytes are. Doesn't look at the magic number.
  virtual Record read(std::uint64_t offset, Entry& entry) const = 0;

  std::string_view bytes() const { return bytes_; }
  std::uint64_t least_size() const { return least_size_; }  // of an entry
  bool ends_with_value() const { return ends_with_value_; }

 protected:
  // The number at `at`, and moves it on. False if there are no 8 bytes.
  bool take(std::uint64_t& at, std::uint64_t& number) const;
  // Reads the key at `at`, and moves that on. Not null: what is wrong.
  const char* take_key(std::uint64_t& at, Entry& entry) const;

 private:
  std::string_view bytes_;
  std::uint64_t least_size_;
  bool ends_with_value_;
};

// Visits all entries of a file behind its header, and the places between them.
//
// An entry is whole if its sizes fit and another entry, or the end of the file, follows it. If
// something else follows, either its own sizes are wrong or the next entry is damaged. Which of
// them is told by what stands there; see is_believed().
class RecordWalk {
 public:
  // `name` is the file's.
  RecordWalk(std::string name, const RecordFormat& format, Visitor& visitor);

  // From `offset` on. Returns the number of whole entries.
  std::uint64_t run(std::uint64_t offset, Progress& progress);

  // Where an entry seems to begin, at `offset` or later; the end of the file if none is found.
  std::uint64_t entry_from(std::uint64_t offset);

 private:
  bool has_magic(std::uint64_t offset) const;
  bool is_followed(std::uint64_t end) const;
  bool is_whole_at(std::uint64_t offset, std::uint64_t& end);
  bool is_believed(std::uint64_t offset, std::uint64_t end);
  bool is_zero_from(std::uint64_t end) const;
  bool goes_on(std::uint64_t end) const;
  std::uint64_t chain_end(std::uint64_t offset, std::uint64_t limit);
  std::uint64_t next_entry(std::uint64_t from, std::uint64_t limit, std::uint64_t beyond);
  std::uint64_t resume(std::uint64_t offset, const Record& record);
  void tell(const Place& place);
  void tell_pending();

  const std::string name_;
  const RecordFormat& format_;
  const std::string_view bytes_;
  Visitor& visitor_;
  Entry entry_;
  Entry tried_;
  Place pending_;  // grows while the same is wrong with what follows
  bool is_pending_ = false;
  // A forged file may have entries in entries in entries; the search in them ends at some time.
  std::uint64_t tries_left_;
};

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_STORE_RECORDS_H_
