#include "qvutil/output/new_file.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <string>
#include <utility>

#include "qvutil/output/outcome.h"
#include "qvutil/output/text.h"

namespace quorvane::tool {

NewFile::NewFile(std::string path) : path_(std::move(path)), written_path_(path_) {
  struct stat status {};
  if (stat(path_.c_str(), &status) != 0 || S_ISREG(status.st_mode)) {
    written_path_ += "." + std::to_string(getpid()) + ".new";
  }
  errno = 0;
  out_.open(written_path_, std::ios::binary);
  if (!out_) {
    is_finished_ = true;  // there is nothing to remove
    throw failure_of("can't write " + shown(path_), errno);
  }
}

NewFile::~NewFile() {
  if (!is_finished_ && written_path_ != path_) {
    unlink(written_path_.c_str());
  }
}

void NewFile::finish() {
  errno = 0;
  out_.close();
  if (!out_ || (written_path_ != path_ && rename(written_path_.c_str(), path_.c_str()) != 0)) {
    throw failure_of("can't write " + shown(path_), errno == 0 ? EIO : errno);
  }
  is_finished_ = true;
}

}  // namespace quorvane::tool
