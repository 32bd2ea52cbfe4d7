#include "qvutil/log/source.h"

#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>

#include "qvutil/output/outcome.h"
#include "qvutil/output/text.h"

namespace quorvane::tool {
namespace {

using std::string_view_literals::operator""sv;

struct Format {
  std::string_view magic;
  const char* name;
};

constexpr std::array kOtherFormats{Format{"\xfd"
                                          "7zXZ\0"sv,
                                          "xz"},
                                   Format{"\x28\xb5\x2f\xfd"sv, "zstd"}, Format{"BZh"sv, "bzip2"}};
constexpr std::string_view kGzipMagic = "\x1f\x8b"sv;
constexpr std::size_t kMagicSize = 6;

bool begins_with(std::string_view bytes, std::string_view magic) {
  return bytes.substr(0, magic.size()) == magic;
}

}  // namespace

Source::Source(int fd, std::string path) : fd_(fd), path_(std::move(path)) {}

Source::~Source() {
  if (gzip_ != nullptr) {
    gzclose(gzip_);  // closes the descriptor, too
  } else {
    close(fd_);
  }
}

std::size_t Source::read(char* bytes, std::size_t size) {
  if (!is_kind_known_) {
    find_out_kind();
  }
  const std::size_t got = gzip_ != nullptr ? read_gzip(bytes, size) : read_plain(bytes, size);
  read_ += got;
  return got;
}

// The first bytes are read like the others, since standard input can't seek; only zlib wants them
// again. False if there are too few yet.
bool Source::read_head() {
  std::array<char, kMagicSize> bytes;
  while (head_.size() < bytes.size()) {
    const ssize_t got = ::read(fd_, bytes.data(), bytes.size() - head_.size());
    if (got < 0 && errno == EINTR) {
      continue;
    }
    if (got < 0) {
      throw failure_of("can't read " + shown(path_), errno);
    }
    if (got == 0) {
      return false;
    }
    head_.append(bytes.data(), static_cast<std::size_t>(got));
  }
  return true;
}

void Source::find_out_kind() {
  is_kind_known_ = read_head() || path_.ends_with(".gz");
  if (!is_kind_known_) {
    return;  // too short to be compressed; it may grow
  }
  for (const Format& format : kOtherFormats) {
    if (begins_with(head_, format.magic)) {
      head_.clear();
      throw Failure("can't read " + shown(path_) + ": " + format.name +
                    " is not supported; decompress it first");
    }
  }
  if (begins_with(head_, kGzipMagic)) {
    if (lseek(fd_, 0, SEEK_SET) != 0) {
      throw Failure("can't read " + shown(path_) + ": gzip needs a file; decompress it first");
    }
    head_.clear();
    gzip_ = gzdopen(fd_, "rb");
    if (gzip_ == nullptr) {
      throw failure_of("can't read " + shown(path_), ENOMEM);
    }
  } else if (path_.ends_with(".gz")) {
    throw Failure("can't read " + shown(path_) + ": it is no gzip file");
  }
}

std::size_t Source::read_plain(char* bytes, std::size_t size) {
  if (!head_.empty()) {
    const std::size_t count = std::min(size, head_.size());
    std::memcpy(bytes, head_.data(), count);
    head_.erase(0, count);
    return count;
  }
  ssize_t got = 0;
  do {
    got = ::read(fd_, bytes, size);
  } while (got < 0 && errno == EINTR);
  if (got < 0) {
    throw failure_of("can't read " + shown(path_), errno);
  }
  return static_cast<std::size_t>(got);
}

std::size_t Source::read_gzip(char* bytes, std::size_t size) {
  const int got = gzread(gzip_, bytes, static_cast<unsigned>(size));
  int error = Z_OK;
  const char* const text = gzerror(gzip_, &error);
  if (got > 0) {
    return static_cast<std::size_t>(got);
  }
  if (error == Z_BUF_ERROR) {
    throw Failure(shown(path_) + " is cut short");
  }
  if (got < 0) {
    throw Failure("can't read " + shown(path_) + ": " + shown(text));
  }
  return 0;
}

std::uint64_t Source::size() const {
  struct stat status {};
  return fstat(fd_, &status) == 0 && S_ISREG(status.st_mode)
             ? static_cast<std::uint64_t>(status.st_size)
             : 0;
}

std::uint64_t Source::done() const {
  const off_t at = lseek(fd_, 0, SEEK_CUR);
  return at >= 0 ? static_cast<std::uint64_t>(at) : read_;
}

void Source::rewind_if_truncated() {
  struct stat status {};
  const off_t at = lseek(fd_, 0, SEEK_CUR);
  if (gzip_ == nullptr && at > 0 && fstat(fd_, &status) == 0 && status.st_size < at) {
    lseek(fd_, 0, SEEK_SET);
    head_.clear();
  }
}

}  // namespace quorvane::tool
