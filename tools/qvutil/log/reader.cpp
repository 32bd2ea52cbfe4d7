#include "qvutil/log/reader.h"

#include <string>
#include <string_view>

#include "qvutil/output/outcome.h"

namespace quorvane::tool {
namespace {

constexpr std::size_t kStep = 65536;
constexpr std::size_t kLongestRecord = 65536;

bool ends_with(std::string_view text, std::string_view end) {
  return text.size() >= end.size() && text.substr(text.size() - end.size()) == end;
}

}  // namespace

// Reads some more bytes. False at the end of the file; damage ends it, too.
bool RecordReader::fill() {
  if (failure_) {
    return false;
  }
  bytes_.erase(0, begin_);
  scanned_ -= begin_;
  begin_ = 0;
  const std::size_t size = bytes_.size();
  bytes_.resize(size + kStep);
  std::size_t got = 0;
  try {
    got = source_->read(bytes_.data() + size, kStep);
  } catch (const Failure& failure) {
    failure_ = failure.what();
  }
  bytes_.resize(size + got);
  return got != 0;
}

// The size of the next record, or 0 if its end has not been read yet.
std::size_t RecordReader::end_of_record() {
  for (;;) {
    const std::size_t newline = bytes_.find('\n', scanned_);
    const std::size_t next = newline + 1;
    if (newline == std::string::npos || next - begin_ > kLongestRecord) {
      break;
    }
    // A line that is still short may become the head of a record.
    if (bytes_.size() - next < kLongestHead) {
      scanned_ = newline;
      return 0;
    }
    if (bytes_[next] == '[' && head_of(std::string_view(bytes_).substr(next, kLongestHead))) {
      return next - begin_;
    }
    scanned_ = next;
  }
  return bytes_.size() - begin_ > kLongestRecord ? kLongestRecord : 0;
}

std::optional<LogRecord> RecordReader::take(std::size_t size) {
  LogRecord record{bytes_.substr(begin_, size), source_->path()};
  begin_ += size;
  scanned_ = begin_;
  return record;
}

// The file has no more bytes than those of bytes_, of which the last lines are shorter than a head.
std::optional<LogRecord> RecordReader::take_last(bool is_growing) {
  const std::string_view rest = std::string_view(bytes_).substr(begin_);
  for (std::size_t next = scanned_ - begin_; (next = rest.find('\n', next)) != rest.npos;) {
    ++next;
    if (head_of(rest.substr(next))) {
      return take(next);
    }
  }
  // A record is one write, so one that ends like a record is whole.
  const bool is_whole = ends_with(rest, head_of(rest) ? "\"\n" : "\n");
  if (rest.empty() || (is_growing && !is_whole)) {
    return std::nullopt;
  }
  return take(rest.size());
}

std::optional<LogRecord> RecordReader::next(bool is_growing) {
  for (;;) {
    if (const std::size_t size = end_of_record()) {
      return take(size);
    }
    if (fill()) {
      continue;
    }
    auto last = take_last(is_growing && !failure_);
    if (!last && failure_) {
      const std::string text = *std::exchange(failure_, std::nullopt);
      throw Failure(text);
    }
    return last;
  }
}

}  // namespace quorvane::tool
