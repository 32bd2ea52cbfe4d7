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
  std::string date;  // its digits; empty: it has a number
  std::uint64_t number = 0;
  std::string ending;  // ".1", ".2.gz", "-2024-03-01.gz"

  bool is_same(const Generation& other) const {
    return date == other.date && number == other.number;
  }

  // The newest first. Where both kinds are there, numbers are taken for the older one. Where a
  // file is there plain and compressed, it is just being compressed, and the plain one is whole.
  bool operator<(const Generation& other) const {
    return date != other.date       ? date > other.date
           : number != other.number ? number < other.number
                                    : ending.size() < other.ending.size();
  }
};

// Whether digits are a day, perhaps with a time of the day, or seconds since 1970.
bool is_date(const std::string& digits) {
  constexpr std::size_t kSecondsDigits = 10;
  if (digits.size() < 8) {
    return false;
  }
  const int month = std::stoi(digits.substr(4, 2));
  const int day = std::stoi(digits.substr(6, 2));
  return (month >= 1 && month <= 12 && day >= 1 && day <= 31) || digits.size() == kSecondsDigits;
}

bool is_compression(std::string_view text) {
  return text.empty() || text == ".gz" || text == ".xz" || text == ".zst" || text == ".bz2";
}

std::optional<Generation> generation_of(std::string_view name, const std::string& base) {
  if (name.size() < base.size() + 2 || name.substr(0, base.size()) != base) {
    return std::nullopt;
  }
  const std::string_view ending = name.substr(base.size());
  const std::size_t end = std::min(ending.find_first_not_of("0123456789-", 1), ending.size());
  std::string stamp(ending.substr(1, end - 1));
  const bool has_separator = ending.front() == '.' || ending.front() == '-';
  if (!has_separator || stamp.empty() || stamp.front() == '-' ||
      !is_compression(ending.substr(end))) {
    return std::nullopt;
  }
  const bool is_plain = stamp.find('-') == std::string::npos;
  stamp.erase(std::remove(stamp.begin(), stamp.end(), '-'), stamp.end());
  if (is_date(stamp)) {
    return Generation{std::move(stamp), 0, std::string(ending)};
  }
  Generation generation{"", 0, std::string(ending)};
  const bool is_number =
      is_plain && ending.front() == '.' &&
      std::from_chars(stamp.data(), stamp.data() + stamp.size(), generation.number).ec ==
          std::errc();
  return is_number ? std::optional(std::move(generation)) : std::nullopt;
}

// The newest first.
std::vector<Generation> generations_of(const std::string& path, std::vector<Failure>& failures) {
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
    failures.push_back(failure_of("can't read " + shown(directory), errno));
  }
  std::sort(generations.begin(), generations.end());
  return generations;
}

using Sources = std::vector<std::unique_ptr<Source>>;

// Opens a file that was not seen before. False if there is no such file. What has the name of a
// rotated file may be something else, and then counts as none.
bool add_unseen(const std::string& path, bool is_rotated, FileIds& seen, Sources& sources) {
  const int flags = O_RDONLY | O_CLOEXEC | (is_rotated ? O_NONBLOCK : 0);
  const int fd = path == "-" ? dup(STDIN_FILENO) : open(path.c_str(), flags);
  if (fd < 0) {
    if (errno == ENOENT) {
      return false;
    }
    throw failure_of("can't open " + shown(path), errno);
  }
  auto source = std::make_unique<Source>(fd, path);
  struct stat status {};
  if (fstat(fd, &status) != 0) {
    throw failure_of("can't read " + shown(path), errno);
  }
  if (is_rotated && !S_ISREG(status.st_mode)) {
    return false;
  }
  if (S_ISDIR(status.st_mode)) {
    throw failure_of("can't read " + shown(path), EISDIR);
  }
  if (seen.emplace(status.st_dev, status.st_ino).second) {
    sources.push_back(std::move(source));
  }
  return true;
}

// The same, but false for a file that can't be opened, too.
bool try_unseen(const std::string& path, bool is_rotated, FileIds& seen, Sources& sources,
                std::vector<Failure>& failures) {
  try {
    return add_unseen(path, is_rotated, seen, sources);
  } catch (const Failure& failure) {
    failures.push_back(failure);
    return false;
  }
}

// One of those that are the same generation: if the plain one is gone, it is compressed by now.
void add_generations(const std::string& path, FileIds& seen, Sources& sources,
                     std::vector<Failure>& failures) {
  const std::vector<Generation> generations = generations_of(path, failures);
  const Generation* added = nullptr;
  for (const Generation& generation : generations) {
    if ((added == nullptr || !added->is_same(generation)) &&
        try_unseen(path + generation.ending, true, seen, sources, failures)) {
      added = &generation;
    }
  }
}

}  // namespace

std::vector<std::unique_ptr<Source>> open_rotated(const std::string& path, FileIds& seen,
                                                  std::vector<Failure>& failures) {
  const std::size_t failures_before = failures.size();
  Sources sources;
  // From the newest one: a file that a rotation renames meanwhile is met again, not missed.
  try_unseen(path, false, seen, sources, failures);
  if (path != "-") {
    add_generations(path, seen, sources, failures);
  }
  if (sources.empty() && failures.size() == failures_before && access(path.c_str(), F_OK) != 0) {
    failures.push_back(failure_of("can't open " + shown(path), ENOENT));
  }
  std::reverse(sources.begin(), sources.end());
  return sources;
}

}  // namespace quorvane::tool
