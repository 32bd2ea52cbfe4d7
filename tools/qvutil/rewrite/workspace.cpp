#include "qvutil/rewrite/workspace.h"

#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <system_error>

#include "qvutil/cli/outcome.h"
#include "qvutil/output/text.h"

namespace quorvane::tool {
namespace {

void remove(const std::string& directory) {
  std::error_code ignored;
  std::filesystem::remove_all(directory, ignored);
}

}  // namespace

Workspace::Workspace(const CacheFiles& cache) : staged_(cache) {
  staged_.root = cache.path(".qvutil_");
  remove(staged_.root);
  if (mkdir(staged_.root.c_str(), 0700) != 0) {
    throw failure_of("can't make the directory " + shown(staged_.root), errno);
  }
}

Workspace::~Workspace() { remove(staged_.root); }

}  // namespace quorvane::tool
