// The records of several logs in the order of time.
#ifndef TOOLS_QVUTIL_LOG_LOGS_H_
#define TOOLS_QVUTIL_LOG_LOGS_H_

#include <cstddef>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "qvutil/log/reader.h"
#include "qvutil/log/record.h"
#include "qvutil/output/console.h"
#include "qvutil/output/outcome.h"
#include "qvutil/output/progress.h"

namespace quorvane::tool {

// A log and what was rotated out of it, oldest first, as one sequence of records. Holds one
// record, and 128 KB of the file that is read at the moment.
class Log {
 public:
  // With `is_growing`, the last file's last bytes wait until they are a whole record.
  Log(std::string path, std::vector<std::unique_ptr<Source>> sources, bool is_growing);

  // Reads the next record. Throws what RecordReader throws; reading goes on with the next file.
  void advance();

  const std::optional<LogRecord>& current() const { return current_; }
  // The time by which the record is sorted. A record keeps its place behind the earlier ones of
  // its log even if another thread was faster to write.
  const std::string& time() const { return time_; }
  const std::string& path() const { return path_; }
  // Bytes of all files, and how many of them have been read.
  std::uint64_t size() const { return size_; }
  std::uint64_t done() const {
    return finished_ + (reader_ == nullptr ? 0 : reader_->source().done());
  }
  std::optional<LogRecord> take() { return std::exchange(current_, std::nullopt); }
  // That of the newest file, after the last record; null if there is none.
  std::unique_ptr<RecordReader> take_reader() { return std::move(reader_); }

 private:
  std::string path_;
  std::deque<std::unique_ptr<Source>> sources_;  // those after reader_'s
  std::unique_ptr<RecordReader> reader_;
  bool is_growing_;
  std::uint64_t size_ = 0;
  std::uint64_t finished_ = 0;  // of the files before reader_'s
  std::optional<LogRecord> current_;
  std::string time_;
};

class Logs {
 public:
  // Opens each file and what was rotated out of it. What can't be read is said on standard error
  // and left out. Throws Failure if no file at all can be opened.
  Logs(Console& console, const std::vector<std::string>& paths, bool is_growing = false);

  // Nothing at the end. Records of the same time come in the order of the paths.
  std::optional<LogRecord> next();

  // Whether something couldn't be read.
  bool has_damage() const { return has_damage_; }

  // To be followed further, when next() has returned nothing.
  std::vector<Log>& logs() { return logs_; }

 private:
  void complain_of(const Failure& failure);
  void show_progress();
  void advance(std::size_t index);
  bool is_later(std::size_t a, std::size_t b) const;

  Console& console_;
  std::vector<Log> logs_;
  std::vector<std::size_t> heap_;  // indexes of those that have a record
  bool has_damage_ = false;
  std::optional<Progress> progress_;  // until the end
  std::uint64_t records_ = 0;
};

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_LOG_LOGS_H_
