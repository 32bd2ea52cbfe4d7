#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <quorvane/pidset.h>

#include "qvutil/output/outcome.h"
#include "qvutil/output/text.h"
#include "qvutil/processes/members.h"

namespace quorvane::tool {
namespace {

using Set = std::unique_ptr<qv_pidset_t, void (*)(qv_pidset_t*)>;

class Descriptor {
 public:
  Descriptor(const std::string& path, int mode) : fd_(open(path.c_str(), mode | O_CLOEXEC)) {
    if (fd_ < 0) {
      throw failure_of("can't open " + shown(path), errno);
    }
  }
  ~Descriptor() {
    if (fd_ >= 0) {
      close(fd_);
    }
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  int get() const { return fd_; }
  void release() { fd_ = -1; }

 private:
  int fd_;
};

// Of the file, which is 0 or one page.
std::size_t size_of(int fd, const std::string& path) {
  struct stat status {};
  if (fstat(fd, &status) != 0) {
    throw failure_of("can't read " + shown(path), errno);
  }
  if (!S_ISREG(status.st_mode)) {
    throw Failure(shown(path) + " is no process id set: it is no regular file");
  }
  if (status.st_size != 0 && status.st_size != getpagesize()) {
    throw Failure(shown(path) + " is no process id set: it has " + std::to_string(status.st_size) +
                  " bytes, not " + std::to_string(getpagesize()));
  }
  return static_cast<std::size_t>(status.st_size);
}

std::vector<std::int32_t> ids_of(const std::string& page, const std::string& path) {
  std::uint64_t count = 0;
  std::memcpy(&count, page.data(), sizeof(count));
  if (count > qv_pidset_max_pid_count()) {
    throw Failure(shown(path) + " is no process id set: it counts " + std::to_string(count) +
                  " ids, and has room for " + std::to_string(qv_pidset_max_pid_count()));
  }
  std::vector<std::int32_t> ids(count);
  if (count != 0) {
    std::memcpy(ids.data(), page.data() + sizeof(count), count * sizeof(ids[0]));
  }
  // A process that was killed in the middle of a change leaves an id twice.
  ids.erase(std::unique(ids.begin(), ids.end()), ids.end());
  return ids;
}

// Through a descriptor of its own that can only read: the library's handle maps the file for
// writing, and makes an empty file a set.
std::vector<std::int32_t> read_ids(Console& console, const std::string& path) {
  const Descriptor file(path, O_RDONLY | O_NONBLOCK);
  if (size_of(file.get(), path) == 0) {
    return {};
  }
  lock_file(console, file.get(), LOCK_SH, path);
  std::string page(static_cast<std::size_t>(getpagesize()), '\0');
  const ssize_t size = pread(file.get(), page.data(), page.size(), 0);
  if (size < 0) {
    throw failure_of("can't read " + shown(path), errno);
  }
  if (static_cast<std::size_t>(size) != page.size()) {
    throw Failure(shown(path) + " has shrunk");
  }
  return ids_of(page, path);
}

Set open_for_change(Console& console, int fd, const std::string& path) {
  if (size_of(fd, path) == 0) {
    throw Failure(shown(path) + " has shrunk");
  }
  lock_file(console, fd, LOCK_EX, path);
  Set set(qv_pidset_open_fd(fd), &qv_pidset_close);
  if (set == nullptr) {
    throw Failure("can't open the process id set " + shown(path));
  }
  return set;
}

void remove_dead(Console& console, const std::vector<Member>& members, const std::string& path) {
  Descriptor file(path, O_RDWR | O_NONBLOCK);
  const int fd = file.get();
  const Set set = open_for_change(console, fd, path);
  file.release();
  for (const Member& member : members) {
    // A process that gets the id after this look adds it after the removal: the lock is held
    // from here on, and qv_pidset_remove releases it.
    lock_file(console, fd, LOCK_EX, path);
    const bool is_dead = !member.lives() && !living_process(member.pid);
    if (is_dead && qv_pidset_remove(set.get(), member.pid) != 0) {
      throw failure_of("can't change " + shown(path), errno);
    }
  }
}

bool has_dead(const std::vector<Member>& members) {
  return std::any_of(members.begin(), members.end(), [](const Member& m) { return !m.lives(); });
}

}  // namespace

std::vector<Member> members_of_set(Console& console, const std::string& path, bool prune) {
  std::vector<Member> members;
  for (const std::int32_t pid : read_ids(console, path)) {
    members.push_back({pid, living_process(pid)});
  }
  if (!prune || !has_dead(members)) {
    return members;
  }
  remove_dead(console, members, path);
  const std::vector<std::int32_t> kept = read_ids(console, path);
  for (Member& member : members) {
    member.is_removed = std::find(kept.begin(), kept.end(), member.pid) == kept.end();
    if (!member.lives() && !member.is_removed) {
      member.process = living_process(member.pid);  // it has appeared meanwhile
    }
  }
  return members;
}

}  // namespace quorvane::tool
