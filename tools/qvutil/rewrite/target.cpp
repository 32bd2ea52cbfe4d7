#include "qvutil/rewrite/target.h"

#include <filesystem>
#include <system_error>

#include "qvutil/output/outcome.h"
#include "qvutil/output/text.h"
#include "qvutil/rewrite/file_calls.h"
#include "qvutil/store/format.h"

namespace quorvane::tool {

CacheFiles named_cache(const std::string& cache, Kind kind) {
  const std::size_t slash = cache.rfind('/');
  const bool has_root = slash != std::string::npos;
  const std::string name = has_root ? cache.substr(slash + 1) : cache;
  if (name.empty() || name == "." || name == "..") {
    throw Failure("a cache is ROOT/NAME or NAME, not " + shown(cache));
  }
  return {kind, root_or_default(has_root ? cache.substr(0, slash + 1) : ""), name};
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
