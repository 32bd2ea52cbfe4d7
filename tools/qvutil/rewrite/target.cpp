#include "qvutil/rewrite/target.h"

#include <algorithm>
#include <array>
#include <filesystem>
#include <string_view>
#include <system_error>

#include "qvutil/output/outcome.h"
#include "qvutil/output/text.h"
#include "qvutil/rewrite/file_calls.h"
#include "qvutil/store/format.h"

namespace quorvane::tool {
namespace {

// What the names of the files of a cache NAME begin with.
constexpr std::array<std::string_view, 9> kPrefixes{
    "lock_", "key_", "val_", "dat_", "idx_", "new_", "newdat_", "newidx_", ".qvutil_"};

}  // namespace

CacheFiles named_cache(const std::string& cache, Kind kind) {
  const std::size_t slash = cache.rfind('/');
  const bool has_root = slash != std::string::npos;
  const std::string name = has_root ? cache.substr(slash + 1) : cache;
  if (name.empty() || name == "." || name == "..") {
    throw Failure("a cache is ROOT/NAME or NAME, not " + shown(cache));
  }
  return {kind, root_or_default(has_root ? cache.substr(0, slash + 1) : ""), name};
}

void expect_own_name(const CacheFiles& cache) {
  const std::string& name = cache.name;
  const auto* const prefix =
      std::find_if(kPrefixes.begin(), kPrefixes.end(),
                   [&](std::string_view each) { return name.compare(0, each.size(), each) == 0; });
  if (prefix != kPrefixes.end()) {
    throw Failure("the new cache can't be named " + shown(name) + ": files of other caches have " +
                  "names that begin with " + std::string(*prefix) + "; choose another with --as");
  }
  if (name == "lock") {
    throw Failure("the new cache can't be named lock: that is a lock file");
  }
}

std::string canonical_lock(const CacheFiles& cache) {
  std::error_code error;
  const std::filesystem::path root = std::filesystem::canonical(cache.root, error);
  if (error) {
    throw Failure("can't use " + shown(cache.root) + ": " + error.message());
  }
  return (root / ("lock_" + cache.name)).string();
}

bool has_content(const CacheFiles& cache) {
  const std::uint64_t header =
      cache.kind == Kind::indexed ? format::kDataHeaderSize : format::kHeaderSize;
  return size_of_file(cache.main_file()).value_or(0) > header;
}

}  // namespace quorvane::tool
