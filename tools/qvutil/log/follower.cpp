#include "qvutil/log/follower.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <utility>

namespace quorvane::tool {
namespace {

bool is_same_file(int a, int b) {
  struct stat first {};
  struct stat second {};
  return fstat(a, &first) == 0 && fstat(b, &second) == 0 && first.st_dev == second.st_dev &&
         first.st_ino == second.st_ino;
}

}  // namespace

Follower::Follower(Logs& logs) {
  for (Log& log : logs.logs()) {
    if (log.path() == "-") {
      continue;
    }
    Path path{log.path(), {}};
    if (auto reader = log.take_reader()) {
      path.readers.push_back(std::move(reader));
    }
    paths_.push_back(std::move(path));
  }
}

void Follower::look_for_rotation(Path& path) {
  const int fd = open(path.path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    return;  // between the two steps of a rotation
  }
  auto source = std::make_unique<Source>(fd, path.path);
  for (const auto& reader : path.readers) {
    if (is_same_file(fd, reader->source().fd())) {
      return;
    }
  }
  path.readers.push_back(std::make_unique<RecordReader>(std::move(source)));
  constexpr std::size_t kMost = 2;
  if (path.readers.size() > kMost) {
    path.readers.erase(path.readers.begin());
  }
}

std::optional<LogRecord> Follower::next_read() {
  for (const Path& path : paths_) {
    for (const auto& reader : path.readers) {
      if (auto record = reader->next(true)) {
        return record;
      }
    }
  }
  return std::nullopt;
}

std::optional<LogRecord> Follower::next() {
  if (auto record = next_read()) {
    return record;
  }
  for (Path& path : paths_) {
    for (const auto& reader : path.readers) {
      reader->source().rewind_if_truncated();
    }
    look_for_rotation(path);
  }
  return next_read();
}

}  // namespace quorvane::tool
