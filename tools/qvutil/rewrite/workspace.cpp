#include "qvutil/rewrite/workspace.h"

#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <system_error>

#include "qvutil/output/outcome.h"
#include "qvutil/output/text.h"

namespace quorvane::tool {
namespace {

std::string directory_of(const CacheFiles& cache) { return cache.path(".qvutil_"); }

void remove(const std::string& directory) {
  std::error_code ignored;
  std::filesystem::remove_all(directory, ignored);
}

}  // namespace

Workspace::Workspace(const CacheFiles& cache) : staged_(cache) {
  remove_leftovers(cache);
  staged_.root = directory_of(cache);
  if (mkdir(staged_.root.c_str(), 0700) != 0) {
    throw failure_of("can't make the directory " + shown(staged_.root), errno);
  }
}

Workspace::~Workspace() { remove(staged_.root); }

void Workspace::remove_leftovers(const CacheFiles& cache) { remove(directory_of(cache)); }

}  // namespace quorvane::tool
