#include "support/dir_states.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <set>
#include <stdexcept>

namespace test {
namespace {

ino_t inode_of(const std::string& path) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) {
    throw std::runtime_error("stat " + path);
  }
  return status.st_ino;
}

void overwrite(const std::string& path, const std::string& bytes) {
  const int fd = open(path.c_str(), O_WRONLY | O_CLOEXEC);
  const bool written =
      fd >= 0 && ftruncate(fd, static_cast<off_t>(bytes.size())) == 0 &&
      pwrite(fd, bytes.data(), bytes.size(), 0) == static_cast<ssize_t>(bytes.size());
  close(fd);
  if (!written) {
    throw std::runtime_error("write " + path);
  }
}

void read_into(std::string& bytes, const std::string& path) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  struct stat status {};
  bool is_read = fd >= 0 && fstat(fd, &status) == 0;
  bytes.resize(static_cast<std::size_t>(status.st_size));
  is_read =
      is_read && pread(fd, bytes.data(), bytes.size(), 0) == static_cast<ssize_t>(bytes.size());
  close(fd);
  if (!is_read) {
    throw std::runtime_error("read " + path);
  }
}

// How much of `after` may have been written when a write that turned `before` into it was cut
// short.
std::set<std::size_t> cuts(const std::string& before, const std::string& after) {
  constexpr std::size_t kPage = 4096;
  constexpr std::size_t kMostPages = 8;
  const std::size_t common = std::min(before.size(), after.size());
  const auto same = static_cast<std::size_t>(
      std::mismatch(after.begin(), after.begin() + static_cast<std::ptrdiff_t>(common),
                    before.begin())
          .first -
      after.begin());
  std::set<std::size_t> result;
  if (after.size() < before.size() || after.size() - same < 2) {
    return result;
  }
  result.insert(same + 1);
  result.insert(after.size() - 1);
  const std::size_t pages = (after.size() - same) / kPage + 1;
  const std::size_t step = kPage * std::max<std::size_t>(pages / kMostPages, 1);
  for (std::size_t at = (same / kPage + 1) * kPage; at < after.size(); at += step) {
    result.insert(at);
  }
  return result;
}

}  // namespace

const std::string& DirState::bytes(const std::string& name) const {
  static const std::string none;
  const auto found = names.find(name);
  return found == names.end() ? none : *files.at(found->second);
}

bool DirState::operator==(const DirState& other) const {
  return names == other.names &&
         std::equal(files.begin(), files.end(), other.files.begin(), other.files.end(),
                    [](const auto& one, const auto& two) {
                      return one.first == two.first &&
                             (one.second == two.second || *one.second == *two.second);
                    });
}

DirState DirStates::take() {
  DirState state;
  std::set<ino_t> inodes;
  for (const auto& [inode, bytes] : last_.files) {
    inodes.insert(inode);
  }
  for (const auto& entry : std::filesystem::directory_iterator(directory_)) {
    const ino_t inode = inode_of(entry.path());
    state.names[entry.path().filename()] = inode;
    inodes.insert(inode);
    if (link(entry.path().c_str(), kept(inode).c_str()) != 0 && errno != EEXIST) {
      throw std::runtime_error("link " + entry.path().string());
    }
  }
  for (const ino_t inode : inodes) {
    read_into(read_, kept(inode));
    const auto known = last_.files.find(inode);
    state.files[inode] = known != last_.files.end() && *known->second == read_
                             ? known->second
                             : std::make_shared<const std::string>(read_);
  }
  last_ = state;
  return state;
}

void DirStates::restore(const DirState& state) {
  for (const auto& entry : std::filesystem::directory_iterator(directory_)) {
    std::filesystem::remove(entry.path());
  }
  for (const auto& [inode, bytes] : state.files) {
    overwrite(kept(inode), *bytes);
  }
  for (const auto& [name, inode] : state.names) {
    if (link(kept(inode).c_str(), (directory_ + "/" + name).c_str()) != 0) {
      throw std::runtime_error("link " + name);
    }
  }
  last_ = state;
}

std::vector<DirState> torn_writes(const DirState& before, const DirState& after) {
  std::vector<DirState> states;
  for (const auto& [inode, bytes] : after.files) {
    const auto old = before.files.find(inode);
    if (old == before.files.end() || old->second == bytes) {
      continue;
    }
    for (const std::size_t cut : cuts(*old->second, *bytes)) {
      std::string torn = bytes->substr(0, cut);
      torn += old->second->size() > cut ? old->second->substr(cut) : "";
      states.push_back(after);
      states.back().files[inode] = std::make_shared<const std::string>(std::move(torn));
    }
  }
  return states;
}

}  // namespace test
