#include "qvutil/rewrite/install.h"

#include <quorvane/file_store.h>

#include "qvutil/output/outcome.h"
#include "qvutil/output/text.h"
#include "qvutil/rewrite/file_calls.h"
#include "qvutil/rewrite/install_lazy.h"

namespace quorvane::tool {
namespace {

// The data first. Until the index has its name, the old one doesn't fit the data: whoever opens
// the cache then would make the index again.
void install_files(const CacheFiles& staged, const CacheFiles& cache) {
  const std::vector<std::string> from = staged.files();
  const std::vector<std::string> to = cache.files();
  for (std::size_t i = 0; i < from.size(); ++i) {
    put_in_place(from[i], to[i]);
  }
}

}  // namespace

void install(const CacheFiles& staged, const CacheFiles& cache) {
  install(staged, cache, cache.main_file());
}

void install(const CacheFiles& staged, const CacheFiles& cache, const std::string& like) {
  for (const std::string& path : staged.files()) {
    adopt_mode(path, like);
    sync_file(path);
  }
  if (cache.kind == Kind::lazy_lookup) {
    install_lazy(staged, cache);
  } else {
    install_files(staged, cache);
  }
}

void ensure_pair(const CacheFiles& cache) {
  if (cache.kind != Kind::lazy_lookup) {
    return;
  }
  cache::CleanupController no_limit(0);  // the bounds of the environment are for programs
  cache::StoreOptions options;
  options.controller = &no_limit;
  options.kind = cache::StoreKind::lazy_lookup;
  options.name = cache.name;
  options.root = cache.root;
  const auto store = cache::make_store(options);
  if (store == nullptr || !store->is_valid()) {
    throw Failure("can't make " + shown(cache.main_file()) + "; the library's log says why");
  }
}

}  // namespace quorvane::tool
