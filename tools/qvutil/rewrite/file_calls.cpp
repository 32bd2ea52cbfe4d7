#include "qvutil/rewrite/file_calls.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <vector>

#include "qvutil/output/outcome.h"
#include "qvutil/output/text.h"

namespace quorvane::tool {
namespace {

constexpr std::size_t kCopied = std::size_t{1} << 18;

std::string directory_of(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  return slash == 0 ? "/" : path.substr(0, slash);
}

}  // namespace

FileDescriptor::FileDescriptor(const std::string& path, int flags)
    : fd_(open(path.c_str(), flags | O_CLOEXEC)) {
  if (fd_ < 0) {
    throw failure_of("can't open " + shown(path), errno);
  }
}

FileDescriptor::~FileDescriptor() { close(fd_); }

bool write_all(int fd, std::string_view bytes, std::uint64_t offset) {
  while (!bytes.empty()) {
    const ssize_t written = pwrite(fd, bytes.data(), bytes.size(), static_cast<off_t>(offset));
    if (written < 0 && errno != EINTR) {
      return false;
    }
    if (written > 0) {
      bytes.remove_prefix(static_cast<std::size_t>(written));
      offset += static_cast<std::uint64_t>(written);
    }
  }
  return true;
}

std::optional<std::uint64_t> size_of_file(const std::string& path) {
  struct stat status {};
  if (stat(path.c_str(), &status) == 0) {
    return static_cast<std::uint64_t>(status.st_size);
  }
  if (errno != ENOENT) {
    throw failure_of("can't look at " + shown(path), errno);
  }
  return std::nullopt;
}

std::uint64_t bytes_of(const CacheFiles& cache) {
  std::uint64_t bytes = 0;
  for (const std::string& path : cache.files()) {
    bytes += size_of_file(path).value_or(0);
  }
  return bytes;
}

void expect_no_links(const CacheFiles& cache) {
  for (const std::string& path : cache.files()) {
    struct stat status {};
    if (lstat(path.c_str(), &status) == 0 && S_ISLNK(status.st_mode)) {
      throw Failure(shown(path) + " is a symbolic link; put the file itself in its place first");
    }
  }
}

void copy_bytes(int from, std::uint64_t offset, int to, std::uint64_t to_offset) {
  struct stat status {};
  // The end is where it was at first: it moves if both are the same file.
  if (fstat(from, &status) != 0) {
    throw failure_of("can't copy a file", errno);
  }
  const auto end = static_cast<std::uint64_t>(status.st_size);
  std::vector<char> buffer(kCopied);
  while (offset < end) {
    const std::uint64_t most = std::min<std::uint64_t>(end - offset, kCopied);
    const ssize_t size = pread(from, buffer.data(), most, static_cast<off_t>(offset));
    if (size < 0 && errno == EINTR) {
      continue;
    }
    if (size == 0) {
      throw Failure("can't copy a file: it became shorter");
    }
    const auto bytes = static_cast<std::size_t>(std::max<ssize_t>(size, 0));
    if (size < 0 || !write_all(to, {buffer.data(), bytes}, to_offset)) {
      throw failure_of("can't copy a file", errno);
    }
    offset += bytes;
    to_offset += bytes;
  }
}

void adopt_mode(const std::string& path, const std::string& from) {
  struct stat status {};
  if (stat(from.c_str(), &status) == 0) {
    const FileDescriptor file(path, O_RDONLY);
    // Only root may give a file away. Without that, the group and others may still use it.
    [[maybe_unused]] const int owned = fchown(file.get(), status.st_uid, status.st_gid);
    fchmod(file.get(), status.st_mode & 07777);
  }
}

void sync_file(const std::string& path) {
  const FileDescriptor file(path, O_RDONLY);
  if (fsync(file.get()) != 0) {
    throw failure_of("can't write " + shown(path), errno);
  }
}

void put_in_place(const std::string& from, const std::string& to) {
  if (std::rename(from.c_str(), to.c_str()) != 0) {
    throw failure_of("can't rename " + shown(from) + " to " + shown(to), errno);
  }
  sync_file(directory_of(to));
}

}  // namespace quorvane::tool
