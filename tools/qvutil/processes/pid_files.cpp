#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "qvutil/output/outcome.h"
#include "qvutil/output/text.h"
#include "qvutil/processes/members.h"

namespace quorvane::tool {
namespace {

struct Place {
  std::string directory;  // with a slash at its end
  std::string prefix;     // of the names: "qv.", or "xqv."
};

bool is_directory(const std::string& path) {
  struct stat status {};
  return stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

Place place_of(const std::string& path) {
  if (is_directory(path)) {
    return {path + "/", "qv."};
  }
  const std::size_t name = path.rfind('/') + 1;  // npos + 1: no slash at all
  return {name == 0 ? "./" : path.substr(0, name), path.substr(name) + "qv."};
}

std::optional<std::int32_t> pid_of(std::string_view name, const std::string& prefix) {
  if (name.substr(0, prefix.size()) != prefix) {
    return std::nullopt;
  }
  name.remove_prefix(prefix.size());
  std::int32_t pid = 0;
  const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), pid);
  // The library writes no sign and no zeros before the number.
  const bool is_whole = error == std::errc() && name == std::to_string(pid);
  return is_whole && end == name.data() + name.size() && pid > 0 ? std::optional(pid)
                                                                 : std::nullopt;
}

std::vector<std::int32_t> pids_in(const Place& place) {
  const std::unique_ptr<DIR, int (*)(DIR*)> directory(opendir(place.directory.c_str()), &closedir);
  if (directory == nullptr) {
    throw failure_of("can't read " + shown(place.directory), errno);
  }
  std::vector<std::int32_t> pids;
  errno = 0;
  while (const dirent* const entry = readdir(directory.get())) {
    if (const auto pid = pid_of(entry->d_name, place.prefix)) {
      pids.push_back(*pid);
    }
    errno = 0;
  }
  if (errno != 0) {
    throw failure_of("can't read " + shown(place.directory), errno);
  }
  std::sort(pids.begin(), pids.end());
  return pids;
}

// Nothing if it is no pid file, or gone. A file is empty while it is written, and for good if the
// disk was full.
std::optional<Member> member_of(const std::string& file, std::int32_t pid) {
  const int fd = open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
  if (fd < 0) {
    return std::nullopt;
  }
  struct stat status {};
  std::array<char, 16> content;
  const bool is_file = fstat(fd, &status) == 0 && S_ISREG(status.st_mode);
  const ssize_t size = is_file ? read(fd, content.data(), content.size()) : -1;
  close(fd);
  if (size < 0 || (size > 0 && std::string_view(content.data(), static_cast<std::size_t>(size)) !=
                                   std::to_string(pid) + "\n")) {
    return std::nullopt;
  }
  Member member{pid, living_process(pid)};
  // The file is written after the start of its process. A second is more than clocks differ by.
  member.is_reused = member.process && member.process->start != 0 &&
                     static_cast<double>(status.st_mtim.tv_sec) + 1 < member.process->start;
  return member;
}

// Gives a file its name back, unless another one has it by now. Not all file systems can do both
// at once.
void restore(const std::string& aside, const std::string& file) {
  if (renameat2(AT_FDCWD, aside.c_str(), AT_FDCWD, file.c_str(), RENAME_NOREPLACE) == 0) {
    return;
  }
  if (errno == EEXIST) {
    unlink(aside.c_str());
  } else if (rename(aside.c_str(), file.c_str()) != 0) {
    throw failure_of("can't rename " + shown(aside) + " back", errno);
  }
}

// The file leaves its name first: a process that gets the id from now on makes a new file. One
// that got it before is seen, and keeps its file.
bool remove_if_dead(const Place& place, std::int32_t pid) {
  const std::string name = place.prefix + std::to_string(pid);
  const std::string file = place.directory + name;
  const std::string aside = place.directory + "removed_" + name;
  if (rename(file.c_str(), aside.c_str()) != 0) {
    if (errno == ENOENT) {
      return true;
    }
    throw failure_of("can't remove " + shown(file), errno);
  }
  const auto member = member_of(aside, pid);
  if (!member || member->lives()) {
    restore(aside, file);
    return false;
  }
  if (unlink(aside.c_str()) != 0) {
    throw failure_of("can't remove " + shown(aside), errno);
  }
  return true;
}

}  // namespace

std::vector<Member> members_of_files(const std::string& path, bool prune) {
  const Place place = place_of(path);
  std::vector<Member> members;
  for (const std::int32_t pid : pids_in(place)) {
    auto member = member_of(place.directory + place.prefix + std::to_string(pid), pid);
    if (!member) {
      continue;
    }
    if (prune && !member->lives()) {
      member->is_removed = remove_if_dead(place, pid);
      if (!member->is_removed) {
        member = Member{pid, living_process(pid)};
      }
    }
    members.push_back(*member);
  }
  return members;
}

}  // namespace quorvane::tool
