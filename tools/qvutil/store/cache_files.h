// Which files a cache has.
#ifndef TOOLS_QVUTIL_STORE_CACHE_FILES_H_
#define TOOLS_QVUTIL_STORE_CACHE_FILES_H_

#include <optional>
#include <string>
#include <vector>

namespace quorvane::tool {

enum class Kind { basic, lazy_lookup, indexed };

// "basic", "lazy_lookup", "indexed".
const char* name_of(Kind kind);

// The kind of this name; nothing for another one.
std::optional<Kind> kind_named(const std::string& name);

// The files of one cache. They needn't exist.
struct CacheFiles {
  Kind kind = Kind::basic;
  std::string root;  // without a slash at its end, unless it is "/"
  std::string name;

  std::string path(const std::string& prefix) const;  // ROOT/PREFIXNAME
  // The file with the keys: ROOT/NAME, ROOT/key_NAME or ROOT/dat_NAME.
  std::string main_file() const;
  // All files that hold the cache, the main one first: one, or two.
  std::vector<std::string> files() const;
  std::string lock_file() const;  // ROOT/lock_NAME
};

// The cache that `cache` means: a path ROOT/NAME, or a name under QV_CACHE_STORE_ROOT. Throws
// Failure if there is none, or one of several kinds and `kind` doesn't say which.
CacheFiles find_cache(const std::string& cache, std::optional<Kind> kind);

// All caches of a directory, by name and then by kind, without the files that a repair has kept
// (NAME.damaged). Throws Failure if it can't be read.
std::vector<CacheFiles> caches_of(const std::string& root);

// `root`, or that of the environment if it is empty. Throws Failure if there is none.
std::string root_or_default(const std::string& root);

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_STORE_CACHE_FILES_H_
