#include "qvutil/log/rotated.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "qvutil/output/outcome.h"
#include "qvutil/output/text.h"

namespace quorvane::tool {
namespace {

// A file that was rotated out of a log: by number, as in FILE.2.gz, or by date, as in
// FILE-20240301.gz.
struct Generation {
  std::string date;  // "20240301", "2024-03-01-1230"; empty: it has a number
  std::uint64_t number = 0;
  std::string ending;  // ".1", ".2.gz", "-20240301.gz"

  bool is_same(const Generation& other) const {
    return date == other.date && number == other.number;
  }

  // The newest first. Who has both kinds has changed from numbers to dates, as most do. Where a
  // file is there plain and compressed, it is just being compressed, and the plain one is whole.
  bool operator<(const Generation& other) const {
    return date != other.date       ? date > other.date
           : number != other.number ? number < other.number
                                    : ending.size() < other.ending.size();
  }
};

// Of digits and hyphens: whether they are those of a day, at least.
bool is_date(std::string_view text) {
  return !text.empty() && text.front() != '-' &&
         text.size() - static_cast<std::size_t>(std::count(text.begin(), text.end(), '-')) >= 8;
}

bool is_number(std::string_view text, std::uint64_t& number) {
  return std::from_chars(text.data(), text.data() + text.size(), number).ec == std::errc();
}

bool is_compression(std::string_view text) {
  return text.empty() || text == ".gz" || text == ".xz" || text == ".zst" || text == ".bz2";
}

std::optional<Generation> generation_of(std::string_view name, const std::string& base) {
  if (name.size() < base.size() + 2 || name.substr(0, base.size()) != base) {
    return std::nullopt;
  }
  const std::string_view ending = name.substr(base.size());
  const bool is_dated = ending.front() == '-';
  if (!is_dated && ending.front() != '.') {
    return std::nullopt;
  }
  const std::size_t end =
      std::min(ending.find_first_not_of(is_dated ? "0123456789-" : "0123456789", 1), ending.size());
  const std::string_view stamp = ending.substr(1, end - 1);
  Generation generation{is_dated ? std::string(stamp) : "", 0, std::string(ending)};
  const bool is_known = (is_dated ? is_date(stamp) : is_number(stamp, generation.number)) &&
                        is_compression(ending.substr(end));
  return is_known ? std::optional(std::move(generation)) : std::nullopt;
}

// The newest first, each once.
std::vector<Generation> generations_of(const std::string& path) {
  const std::size_t name = path.rfind('/') + 1;  // npos + 1: no slash at all
  const std::string directory = name == 0 ? "." : path.substr(0, name);
  const std::unique_ptr<DIR, int (*)(DIR*)> entries(opendir(directory.c_str()), &closedir);
  std::vector<Generation> generations;
  if (entries == nullptr) {
    return generations;  // a file may be read in a directory that may not
  }
  errno = 0;
  while (const dirent* const entry = readdir(entries.get())) {
    if (auto generation = generation_of(entry->d_name, path.substr(name))) {
      generations.push_back(std::move(*generation));
    }
    errno = 0;
  }
  if (errno != 0) {
    throw failure_of("can't read " + shown(directory), errno);
  }
  std::sort(generations.begin(), generations.end());
  generations.erase(
      std::unique(generations.begin(), generations.end(),
                  [](const Generation& a, const Generation& b) { return a.is_same(b); }),
      generations.end());
  return generations;
}

// Null if the file is gone, is a directory, or was seen before.
std::unique_ptr<Source> open_unseen(const std::string& path, FileIds& seen) {
  const int fd = path == "-" ? dup(STDIN_FILENO) : open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    if (errno == ENOENT) {
      return nullptr;
    }
    throw failure_of("can't open " + shown(path), errno);
  }
  auto source = std::make_unique<Source>(fd, path);
  struct stat status {};
  if (fstat(fd, &status) != 0) {
    throw failure_of("can't read " + shown(path), errno);
  }
  if (S_ISDIR(status.st_mode)) {
    throw failure_of("can't read " + shown(path), EISDIR);
  }
  return seen.emplace(status.st_dev, status.st_ino).second ? std::move(source) : nullptr;
}

}  // namespace

std::vector<std::unique_ptr<Source>> open_rotated(const std::string& path, FileIds& seen) {
  const std::size_t seen_before = seen.size();
  std::vector<std::unique_ptr<Source>> sources;
  const auto add = [&](const std::string& file) {
    if (auto source = open_unseen(file, seen)) {
      sources.push_back(std::move(source));
    }
  };
  // From the newest one: a file that a rotation renames meanwhile is met again, not missed.
  add(path);
  if (path != "-") {
    for (const Generation& generation : generations_of(path)) {
      add(path + generation.ending);
    }
  }
  if (sources.empty() && seen.size() == seen_before && access(path.c_str(), F_OK) != 0) {
    throw failure_of("can't open " + shown(path), ENOENT);
  }
  std::reverse(sources.begin(), sources.end());
  return sources;
}

}  // namespace quorvane::tool
