#include "qvutil/store/cache_files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <filesystem>
#include <set>
#include <system_error>
#include <tuple>

#include "qvutil/output/outcome.h"
#include "qvutil/output/suggest.h"
#include "qvutil/output/text.h"
#include "qvutil/store/format.h"

namespace quorvane::tool {
namespace {

bool exists(const std::string& path) {
  struct stat status {};
  return stat(path.c_str(), &status) == 0;
}

bool is_regular(const std::string& path) {
  struct stat status {};
  return stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

format::Start start_of_file(const std::string& path) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0) {
    return {};
  }
  std::array<char, sizeof(format::Start)> bytes;
  const ssize_t size = read(fd, bytes.data(), bytes.size());
  close(fd);
  return format::start_of({bytes.data(), static_cast<std::size_t>(std::max<ssize_t>(size, 0))});
}

bool has_prefix(const std::string& name, std::string_view prefix) {
  return name.size() > prefix.size() && name.compare(0, prefix.size(), prefix) == 0;
}

// A basic cache may be named "key_x" or "dat_x".
bool is_basic(const format::Start& start) {
  return start.magic == format::kMagic && start.version == format::kBasicVersion;
}

// What the names of files begin with whose caches aren't basic.
struct Prefix {
  const char* text;
  Kind kind;
};
constexpr std::array<Prefix, 4> kPrefixes{Prefix{"key_", Kind::lazy_lookup},
                                          {"val_", Kind::lazy_lookup},
                                          {"dat_", Kind::indexed},
                                          {"idx_", Kind::indexed}};

bool is_of_no_cache(const std::string& name) {
  return name == "lock" || has_prefix(name, "lock_") || has_prefix(name, "new_") ||
         has_prefix(name, "newdat_") || has_prefix(name, "newidx_");
}

// NAME.damaged, NAME.damaged.2 and so on: of a cache that was repaired. Still to be looked at by
// name.
bool is_kept_by_repair(const std::string& name) {
  const std::size_t at = name.rfind(".damaged");
  return at != std::string::npos && at != 0 &&
         name.find_first_not_of(".0123456789", at + std::string_view(".damaged").size()) ==
             std::string::npos;
}

std::string joined(const std::string& root, const std::string& name) {
  return root == "/" ? root + name : root + "/" + name;
}

// The cache that a file of a root belongs to; nothing for a file of no cache.
std::optional<CacheFiles> cache_of_file(const std::string& root, const std::string& name) {
  if (is_of_no_cache(name) || !is_regular(joined(root, name))) {
    return std::nullopt;
  }
  const format::Start start = start_of_file(joined(root, name));
  for (const Prefix& prefix : kPrefixes) {
    if (has_prefix(name, prefix.text) && !is_basic(start)) {
      return CacheFiles{prefix.kind, root, name.substr(4)};
    }
  }
  // A file whose header is damaged is known by its lock.
  if (start.magic == format::kMagic || exists(joined(root, "lock_" + name))) {
    return CacheFiles{Kind::basic, root, name};
  }
  return std::nullopt;
}

bool has_files(const CacheFiles& cache) {
  const std::vector<std::string> files = cache.files();
  return std::any_of(files.begin(), files.end(), is_regular);
}

// The caches of this name, and the one that has a file of this name.
std::vector<CacheFiles> caches_named(const std::string& root, const std::string& name) {
  std::vector<CacheFiles> found;
  for (const Kind kind : {Kind::basic, Kind::lazy_lookup, Kind::indexed}) {
    const CacheFiles cache{kind, root, name};
    if (kind != Kind::basic && has_files(cache)) {
      const format::Start start = start_of_file(cache.main_file());
      if (!is_basic(start)) {
        found.push_back(cache);
      }
    }
  }
  if (!is_regular(joined(root, name))) {
    return found;
  }
  // Asked for by name, any other file is a basic cache, perhaps a damaged one.
  const CacheFiles own = cache_of_file(root, name).value_or(CacheFiles{Kind::basic, root, name});
  found.insert(found.begin(), own);
  return found;
}

[[noreturn]] void fail_as_missing(const std::string& root, const std::string& name,
                                  std::optional<Kind> kind) {
  std::vector<std::string> names;
  for (const CacheFiles& cache : caches_of(root)) {
    names.push_back(cache.name);
  }
  const std::string meant = suggestion(name, names);
  throw Failure("no " + (kind ? name_of(*kind) + std::string(" ") : "") + "cache " + shown(name) +
                " in " + shown(root) +
                (meant.empty() ? "" : "; did you mean " + shown(meant) + "?"));
}

std::string without_slashes(std::string root) {
  while (root.size() > 1 && root.back() == '/') {
    root.pop_back();
  }
  return root;
}

}  // namespace

const char* name_of(Kind kind) {
  switch (kind) {
    case Kind::basic:
      return "basic";
    case Kind::lazy_lookup:
      return "lazy_lookup";
    case Kind::indexed:
      return "indexed";
  }
  return "";
}

std::optional<Kind> kind_named(const std::string& name) {
  for (const Kind kind : {Kind::basic, Kind::lazy_lookup, Kind::indexed}) {
    if (name == name_of(kind)) {
      return kind;
    }
  }
  return std::nullopt;
}

std::string CacheFiles::path(const std::string& prefix) const {
  return joined(root, prefix + name);
}

std::string CacheFiles::main_file() const { return files().front(); }

std::vector<std::string> CacheFiles::files() const {
  switch (kind) {
    case Kind::basic:
      return {path("")};
    case Kind::lazy_lookup:
      return {path("key_"), path("val_")};
    case Kind::indexed:
      return {path("dat_"), path("idx_")};
  }
  return {};
}

std::string CacheFiles::lock_file() const { return path("lock_"); }

CacheFiles find_cache(const std::string& cache, std::optional<Kind> kind) {
  const std::size_t slash = cache.rfind('/');
  const bool is_path = slash != std::string::npos;
  const std::string name = is_path ? cache.substr(slash + 1) : cache;
  const std::string root =
      is_path ? without_slashes(cache.substr(0, slash + 1)) : root_or_default("");
  if (name.empty()) {
    throw Failure("a cache is ROOT/NAME or NAME, not \"" + shown(cache) + "\"");
  }
  std::vector<CacheFiles> found = caches_named(root, name);
  if (kind) {
    found.erase(std::remove_if(found.begin(), found.end(),
                               [&](const CacheFiles& other) { return other.kind != *kind; }),
                found.end());
  }
  if (found.empty()) {
    fail_as_missing(root, name, kind);
  }
  if (found.size() > 1) {
    throw Failure("there is a cache " + shown(name) + " of the kinds " + name_of(found[0].kind) +
                  " and " + name_of(found[1].kind) + " in " + shown(root) + "; say --kind");
  }
  return found.front();
}

std::vector<CacheFiles> caches_of(const std::string& root) {
  std::error_code error;
  std::filesystem::directory_iterator files(root, error);
  if (error) {
    throw Failure("can't read " + shown(root) + ": " + error.message());
  }
  std::set<std::tuple<std::string, Kind>> found;
  for (; !error && files != std::filesystem::directory_iterator(); files.increment(error)) {
    const std::string name = files->path().filename();
    const auto cache = is_kept_by_repair(name) ? std::nullopt : cache_of_file(root, name);
    if (cache) {
      found.emplace(cache->name, cache->kind);
    }
  }
  if (error) {
    throw Failure("can't read " + shown(root) + ": " + error.message());
  }
  std::vector<CacheFiles> caches;
  caches.reserve(found.size());
  for (const auto& [name, kind] : found) {
    caches.push_back({kind, root, name});
  }
  return caches;
}

std::string root_or_default(const std::string& root) {
  const char* const set = getenv("QV_CACHE_STORE_ROOT");
  if (root.empty() && (set == nullptr || *set == '\0')) {
    throw Failure("no root: give a path, or set QV_CACHE_STORE_ROOT");
  }
  return without_slashes(root.empty() ? set : root);
}

}  // namespace quorvane::tool
