// Divides the bytes of a log file into records.
#ifndef TOOLS_QVUTIL_LOG_READER_H_
#define TOOLS_QVUTIL_LOG_READER_H_

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "qvutil/log/record.h"
#include "qvutil/log/source.h"

namespace quorvane::tool {

// A message may hold newlines and quotes, so a record reaches up to the next line that begins
// like a record. Every byte of the file is in exactly one record. A record without end comes in
// parts of at most 64 KB.
class RecordReader {
 public:
  explicit RecordReader(std::unique_ptr<Source> source) : source_(std::move(source)) {}

  // Nothing at the end of the file. With `is_growing`, the bytes behind the last whole record stay
  // for a later call; otherwise they are a record, too. Throws what Source throws; the bytes
  // before the damage come first.
  std::optional<LogRecord> next(bool is_growing);

  Source& source() { return *source_; }
  const Source& source() const { return *source_; }

 private:
  bool fill();
  std::size_t end_of_record();
  std::optional<LogRecord> take(std::size_t size);
  std::optional<LogRecord> take_last(bool is_growing);

  std::unique_ptr<Source> source_;
  std::string bytes_;        // from begin_ on: read, not yet handed out
  std::size_t begin_ = 0;    // of the next record
  std::size_t scanned_ = 0;  // no record ends before, from begin_ on
  std::optional<std::string> failure_;
};

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_LOG_READER_H_
