#include "qvutil/report/line_reader.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <utility>

#include "qvutil/output/outcome.h"
#include "qvutil/output/text.h"

namespace quorvane::tool {
namespace {

constexpr std::size_t kChunk = 65536;

int open_to_read(const std::string& path) {
  return open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY);
}

}  // namespace

LineReader::LineReader(std::string path, std::size_t longest)
    : path_(std::move(path)), longest_(longest) {
  fd_ = path_ == "-" ? dup(STDIN_FILENO) : open_to_read(path_);
  if (fd_ == -1) {
    throw failure_of(shown(path_), errno);
  }
}

LineReader::~LineReader() { close(fd_); }

bool LineReader::next(std::string_view& line) {
  while (!take_line(line)) {
    if (!fill()) {
      return false;
    }
  }
  return true;
}

bool LineReader::take_line(std::string_view& line) {
  const std::size_t newline = bytes_.find('\n', searched_);
  if (newline == std::string::npos) {
    // The middle of a line that is too long goes. What is kept is long enough to be refused.
    if (bytes_.size() - begin_ > longest_) {
      bytes_.resize(begin_ + longest_);
    }
    searched_ = bytes_.size();
    return false;
  }
  line = std::string_view(bytes_).substr(begin_, newline - begin_);
  begin_ = searched_ = newline + 1;
  return true;
}

// Reads on. False at the end of the file.
bool LineReader::fill() {
  bytes_.erase(0, begin_);
  searched_ -= begin_;
  begin_ = 0;
  const std::size_t size = bytes_.size();
  bytes_.resize(size + kChunk);
  const ssize_t got = read(fd_, bytes_.data() + size, kChunk);
  const int error = errno;
  bytes_.resize(size + static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
  if (got == -1 && error != EINTR) {
    throw failure_of(shown(path_), error);
  }
  is_at_end_ = got == 0;
  done_ += static_cast<std::uint64_t>(std::max<ssize_t>(got, 0));
  return got > 0;
}

bool LineReader::reopen() {
  struct stat mine {};
  struct stat there {};
  if (path_ == "-" || fstat(fd_, &mine) != 0 || stat(path_.c_str(), &there) != 0) {
    return false;
  }
  const bool is_other = mine.st_ino != there.st_ino || mine.st_dev != there.st_dev;
  const bool is_shorter = S_ISREG(mine.st_mode) && mine.st_size < lseek(fd_, 0, SEEK_CUR);
  if (!is_other && !is_shorter) {
    return false;
  }
  const int fd = open_to_read(path_);
  if (fd == -1) {
    return false;  // it is being replaced
  }
  close(fd_);
  fd_ = fd;
  bytes_.clear();
  begin_ = searched_ = 0;
  return true;
}

std::uint64_t LineReader::size() const {
  struct stat status {};
  return fstat(fd_, &status) == 0 && S_ISREG(status.st_mode)
             ? static_cast<std::uint64_t>(status.st_size)
             : 0;
}

}  // namespace quorvane::tool
