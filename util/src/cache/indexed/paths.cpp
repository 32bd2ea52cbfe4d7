#include "src/cache/indexed/paths.h"

namespace quorvane {
namespace cache {
namespace indexed {
namespace {

// Not inlined five times: every line of code that a process runs for the first time costs it.
__attribute__((noinline)) std::string join(const std::string& root, const char* prefix,
                                           const std::string& name) {
  std::string path;
  path.reserve(root.size() + name.size() + sizeof("/newdat_"));
  path.append(root).append(prefix).append(name);
  return path;
}

}  // namespace

Paths::Paths(const std::string& root, const std::string& name)
    : data(join(root, "/dat_", name)),
      index(join(root, "/idx_", name)),
      new_index(join(root, "/new_", name)),
      cleaned_data(join(root, "/newdat_", name)),
      cleaned_index(join(root, "/newidx_", name)) {}

}  // namespace indexed
}  // namespace cache
}  // namespace quorvane
