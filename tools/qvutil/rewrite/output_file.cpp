#include "qvutil/rewrite/output_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "qvutil/output/outcome.h"
#include "qvutil/output/text.h"
#include "qvutil/rewrite/file_calls.h"

namespace quorvane::tool {
namespace {

// Written with one call.
constexpr std::size_t kBatch = std::size_t{1} << 18;

}  // namespace

OutputFile::OutputFile(std::string path)
    : path_(std::move(path)),
      fd_(open(path_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666)) {
  if (fd_ < 0) {
    throw failure_of("can't create " + shown(path_), errno);
  }
}

OutputFile::~OutputFile() { close(fd_); }

void OutputFile::write(std::string_view bytes) {
  size_ += bytes.size();
  if (buffer_.size() + bytes.size() < kBatch) {
    buffer_ += bytes;
    return;
  }
  finish();
  put(bytes);
}

void OutputFile::finish() {
  put(buffer_);
  buffer_.clear();
}

void OutputFile::put(std::string_view bytes) {
  if (!write_all(fd_, bytes, written_)) {
    throw failure_of("can't write " + shown(path_), errno);
  }
  written_ += bytes.size();
}

}  // namespace quorvane::tool
